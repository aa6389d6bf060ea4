#pragma once

#include "FileSteps.h"
#include "support/AllocationCounter.h"
#include "support/NewFault.h"

#include <vesk/StreamBinFileRW.h>
#include <vesk/UnicodeString.h>

/// The suites that the stream files share. Must be included in exactly one file of a test program.

namespace support {

using vesk::StreamBinFileBase;
using vesk::StreamBinFileR;
using vesk::StreamBinFileRW;
using vesk::StreamBinFileW;

/// One of the stream classes, without its type.
struct StreamClass {
    std::string name;
    unsigned int direction; ///< The flags of its direction: 1, 2 or 3.
    std::unique_ptr<StreamBinFileBase> (*make)(unsigned int buffer_size);
    bool (*open)(StreamBinFileBase& file, char const* path, unsigned int flags, FileAccess const& access);
    bool (*open_text)(StreamBinFileBase& file, vesk::UnicodeString const& path, unsigned int flags);
    bool (*open_at)(StreamBinFileBase& file, Directory const& dir, char const* name, unsigned int flags);

    bool isReader() const { return direction != 2; }
    bool isWriter() const { return direction != 1; }
};

inline void PrintTo(StreamClass const& tested, std::ostream* out) {
    *out << tested.name;
}

template <typename Stream, typename Flags>
StreamClass classOf(char const* class_name) {
    StreamClass tested{class_name, Flags().getWord(), nullptr, nullptr, nullptr, nullptr};
    tested.make = [](unsigned int size) -> std::unique_ptr<StreamBinFileBase> {
        if constexpr (std::is_constructible_v<Stream, unsigned int, unsigned int>) {
            return std::make_unique<Stream>(size, size);
        } else {
            return std::make_unique<Stream>(size);
        }
    };
    tested.open = [](auto& file, char const* path, unsigned int flags, FileAccess const& access) {
        return dynamic_cast<Stream&>(file).open(path, Flags(flags), access);
    };
    tested.open_text = [](auto& file, vesk::UnicodeString const& path, unsigned int flags) {
        return dynamic_cast<Stream&>(file).open(path, Flags(flags));
    };
    tested.open_at = [](auto& file, Directory const& dir, char const* name, unsigned int flags) {
        return dynamic_cast<Stream&>(file).openAt(dir, name, true, Flags(flags));
    };
    return tested;
}

inline StreamClass const READER = classOf<StreamBinFileR, BinFileBase::ReadFlags>("StreamBinFileR");
inline StreamClass const WRITER = classOf<StreamBinFileW, BinFileBase::WriteFlags>("StreamBinFileW");
inline StreamClass const BOTH = classOf<StreamBinFileRW, BinFileBase::ReadWriteFlags>("StreamBinFileRW");

/// Names the cases of a suite after the classes.
inline std::string nameOf(testing::TestParamInfo<StreamClass> const& instance) {
    return instance.param.name;
}

/// Makes the protected members of any reader visible.
class Reading : public StreamBinFileR {
public:
    using StreamBinFileR::checkReadBufferConsistency;
    using StreamBinFileR::performRead;

    static bool& getBlocking(IBinStreamBase& file) { return file.*(&Reading::m_blocking); }
    static uint32_t getFlags(BinFileBase const& file) { return (file.*(&Reading::m_flags)).getWord(); }
    static unsigned int getReadAhead(IBinInputStream const& file) {
        return file.*(&Reading::m_end) - file.*(&Reading::m_pos);
    }
};

/// Makes the protected members of any writer visible.
class Writing : public StreamBinFileW {
public:
    using StreamBinFileW::checkWriteBufferConsistency;
    using StreamBinFileW::performFlush;
    using StreamBinFileW::performWrite;

    static unsigned int getBuffered(IBinOutputStream const& file) {
        return file.*(&Writing::m_end) - file.*(&Writing::m_pos);
    }
};

/// Tests of one of the stream classes through its base `Stream`. The fixture owns the files.
template <typename Stream>
class StreamTest : public FileTest {
protected:
    explicit StreamTest(StreamClass tested) : m_class(std::move(tested)) {
        auto& verbs = m_steps.verbs;
        verbs["ahead"] = Steps::check([this](Words const& words) {
            EXPECT_EQ(words.count(1), Reading::getReadAhead(dynamic_cast<IBinInputStream&>(*m_file)));
        });
        verbs["buffered"] = Steps::check([this](Words const& words) {
            EXPECT_EQ(words.count(1), Writing::getBuffered(dynamic_cast<IBinOutputStream&>(*m_file)));
        });
        verbs["blocks"] = Steps::check([this](Words const&) { EXPECT_TRUE(blocks()); });
        verbs["nonblocking"] = Steps::check([this](Words const&) { EXPECT_FALSE(blocks()); });
        verbs["offset"] =
            Steps::check([](Words const& words) { EXPECT_EQ(words.number(1), s_file_calls.seek_offset); });
    }

    bool blocks() const { return Reading::getBlocking(dynamic_cast<IBinStreamBase&>(*m_file)); }

    /// Performs steps on a file of the class. They may also check the buffers ("ahead SIZE", "buffered SIZE"), the
    /// mode ("blocks", "nonblocking") and the last offset of the system ("offset OFFSET").
    void runOn(Stream& file, StepList const& steps) {
        m_file = &file;
        m_steps.openBy([this, &file](char const* path, unsigned int flags) {
            return m_class.open(file, path, m_class.direction | flags, BinFileBase::DEFAULT_ACCESS);
        });
        m_steps.run(file, steps);
    }

    /// Performs steps on a new file. Returns it.
    Stream& run(unsigned int buffer_size, StepList const& steps) {
        Stream& file = make(buffer_size);
        runOn(file, steps);
        return file;
    }

    /// Returns a closed file.
    Stream& make(unsigned int buffer_size = 0) {
        m_files.push_back(m_class.make(buffer_size));
        return dynamic_cast<Stream&>(*m_files.back());
    }

    /// Opens a file in the directions of its class.
    bool reopen(StreamBinFileBase& file, std::string const& path, unsigned int flags = 0) const {
        return m_class.open(file, path.c_str(), m_class.direction | flags, BinFileBase::DEFAULT_ACCESS);
    }
    Stream& open(unsigned int buffer_size, std::string const& path, unsigned int flags = 0) {
        Stream& file = make(buffer_size);
        EXPECT_FALSE(reopen(file, path, flags));
        return file;
    }
    Stream& open(unsigned int buffer_size = 0) { return open(buffer_size, m_path); }

    StreamClass m_class;
    std::vector<std::unique_ptr<StreamBinFileBase>> m_files;
    Stream* m_file = nullptr; ///< The file of the steps.
    Steps m_steps{m_folder, m_dir};
};

template <typename Stream>
class StreamSuite : public StreamTest<Stream>, public testing::WithParamInterface<StreamClass> {
protected:
    StreamSuite() : StreamTest<Stream>(this->GetParam()) {}
};

} // namespace support
