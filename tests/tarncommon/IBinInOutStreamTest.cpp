#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/stream/IBinInOutStream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>

namespace {

namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::ErrorStorage;
using std::IBinInOutStream;
using std::IBinInputStream;
using std::IBinOutputStream;
using std::IBinStreamBase;
using namespace support;

enum class From { CURRENT, BEGIN, END };

/// How the file transfers: completely, in pieces, or in non-blocking mode, sometimes nothing.
enum class Mode { WHOLE, SHORT, NON_BLOCKING };

/// A file in memory with one position for both directions. The hooks and `seek` synchronize the two buffers:
/// written bytes reach the file before a read, and read-ahead is undone before a write.
class MemoryFile : public IBinInOutStream {
public:
    MemoryFile(unsigned int read_buffer, unsigned int write_buffer, Mode mode = Mode::WHOLE)
        : IBinInOutStream(mode != Mode::NON_BLOCKING, read_buffer, write_buffer), m_mode(mode) {
        content.reserve(65536);
    }

    bool isValid() const override { return isReadBufferSound() && isWriteBufferSound(); }

    bool seek(int offset, From from, unsigned int& position) {
        if (m_writing) {
            if (IBinOutputStream::m_pos != IBinOutputStream::m_end && checkReadBufferConsistency()) {
                return true;
            }
        } else {
            offset = dropReadAhead(offset, from);
        }
        return moveTo(offset, from, position);
    }

    bool isBlocking() const { return m_blocking; }
    bool isWriting() const { return m_writing; }
    size_t getSystemPosition() const { return m_position; }

    std::string content;
    int reads = 0;
    int writes = 0;
    int flushes = 0;
    bool write_fails = false;

protected:
    bool checkReadBufferConsistency() override {
        if (m_writing && IBinOutputStream::m_pos != IBinOutputStream::m_end && flush(false)) {
            if (IBinOutputStream::m_pos != IBinOutputStream::m_end) {
                return true;
            }
            ErrorStorage::ack();
        }
        m_writing = false;
        return false;
    }

    bool checkWriteBufferConsistency() override {
        unsigned int position = 0;
        if (!m_writing && IBinInputStream::m_pos != IBinInputStream::m_end &&
            seek(0, From::CURRENT, position)) {
            return true;
        }
        m_writing = true;
        return false;
    }

    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        if (size == 0) {
            return false;
        }
        EXPECT_EQ(IBinOutputStream::m_pos, IBinOutputStream::m_end) << "written bytes come first";
        ++reads;
        size_t const rest = content.size() - std::min(m_position, content.size());
        if (rest == 0) {
            ErrorOutput("test", __LINE__, true)(StreamErrorId::END_OF_STREAM);
            return true;
        }
        read = limit(std::min(size, static_cast<unsigned int>(rest)));
        memcpy(buffer, content.data() + m_position, read);
        m_position += read;
        return false;
    }

    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        if (size == 0) {
            return false;
        }
        EXPECT_EQ(IBinInputStream::m_pos, IBinInputStream::m_end) << "read-ahead is undone first";
        ++writes;
        if (write_fails) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "full");
            ErrorOutput("test", __LINE__, false)(StreamErrorId::TRANSFER_FAILED);
            return true;
        }
        written = limit(size);
        if (content.size() < m_position + written) {
            content.resize(m_position + written);
        }
        if (written != 0) {
            memcpy(&content[m_position], buffer, written);
        }
        m_position += written;
        return false;
    }

    bool performFlush() override {
        ++flushes;
        return false;
    }

private:
    unsigned int limit(unsigned int count) {
        if (m_mode == Mode::WHOLE || count == 0) {
            return count;
        }
        unsigned int const least = m_mode == Mode::SHORT ? 1 : 0;
        return std::uniform_int_distribution<unsigned int>(least, count)(m_random);
    }

    int dropReadAhead(int offset, From from) {
        if (from == From::CURRENT) {
            offset -= static_cast<int>(IBinInputStream::m_end - IBinInputStream::m_pos);
        }
        IBinInputStream::m_pos = IBinInputStream::m_end = 0;
        return offset;
    }

    bool moveTo(int offset, From from, unsigned int& position) {
        long long base = 0;
        if (from == From::CURRENT) {
            base = static_cast<long long>(m_position);
        } else if (from == From::END) {
            base = static_cast<long long>(content.size());
        }
        if (base + offset < 0) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::UNSUPPORTED_VALUE, "negative position");
            return true;
        }
        m_position = static_cast<size_t>(base + offset);
        position = static_cast<unsigned int>(m_position);
        return false;
    }

    Mode m_mode;
    size_t m_position = 0;
    bool m_writing = false;
    std::mt19937 m_random{20240229};
};

std::string readFrom(IBinInputStream& stream, unsigned int size, int expected = 1) {
    std::string block(size, '\0');
    unsigned int count = 0;
    EXPECT_EQ(expected, stream.read(&block[0], size, count));
    return block.substr(0, count);
}

void writeTo(IBinOutputStream& stream, std::string const& bytes) {
    unsigned int written = 0;
    EXPECT_EQ(1, stream.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written));
    EXPECT_EQ(bytes.size(), written);
}

/// Gives access to protected operations.
class Slots : public IBinInOutStream {
public:
    using IBinInOutStream::checkReadBufferConsistency;
    using IBinInOutStream::checkWriteBufferConsistency;
    using IBinInOutStream::performFlush;
    using IBinInOutStream::performRead;
    using IBinInOutStream::performWrite;
};

TEST(IBinInOutStream, addsNoOperationToThoseOfItsTwoDirections) {
    EXPECT_EQ(2, getSlot(&IBinInOutStream::isValid));
    EXPECT_EQ(3, getSlot(&Slots::checkReadBufferConsistency));
    EXPECT_EQ(4, getSlot(&Slots::performRead));
    EXPECT_EQ(3, getSlot(&Slots::checkWriteBufferConsistency));
    EXPECT_EQ(4, getSlot(&Slots::performWrite));
    EXPECT_EQ(5, getSlot(&Slots::performFlush));
}

TEST(IBinInOutStream, hasOneBaseForBothDirections) {
    MemoryFile file(4, 8);
    IBinInputStream& input = file;
    IBinOutputStream& output = file;
    EXPECT_EQ(static_cast<IBinStreamBase*>(&input), static_cast<IBinStreamBase*>(&output));
    EXPECT_TRUE(input.isValid());
    EXPECT_TRUE(output.isValid());
}

TEST(IBinInOutStream, constructorPassesItsArgumentsToTheDirections) {
    for (bool const input : {true, false}) {
        MemoryFile const file(input ? 4 : 0, input ? 0 : 4, input ? Mode::WHOLE : Mode::NON_BLOCKING);
        EXPECT_EQ(input, file.isInputBuffered());
        EXPECT_EQ(!input, file.isOutputBuffered());
        EXPECT_EQ(input, file.isBlocking());
    }
}

TEST(IBinInOutStream, withoutMemoryForABufferFailsInThatDirectionOnly) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    ExpectedReport const no_memory(CommonErrorId::OUT_OF_MEMORY);
    unsigned int count = 0;
    char block[4] = {};
    for (bool const input : {true, false}) {
        MemoryFile file(input ? 4 : 0, input ? 0 : 4);
        EXPECT_TRUE(chainIs({no_memory}));
        EXPECT_FALSE(file.isValid());
        EXPECT_EQ(-1, input ? file.read(block, 4, count) : file.write(block, 4, count));
        EXPECT_TRUE(chainIs({no_memory, {IBinStreamBase::UNUSABLE}}));
        EXPECT_EQ(input ? 1 : 0, input ? file.write(block, 4, count) : file.read(block, 4, count));
        EXPECT_TRUE(input ? chainIs({}) : chainIs({{IBinStreamBase::END_OF_STREAM}}));
    }
}

TEST(IBinInOutStream, writeAfterReadStartsAtTheReadersPosition) {
    MemoryFile file(10, 10);
    file.content = "0123456789abcdef";
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_EQ(10U, file.getSystemPosition());
    writeTo(file, "X");
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ("0X23456789abcdef", file.content);
    EXPECT_EQ("234", readFrom(file, 3));
}

TEST(IBinInOutStream, writtenBytesReachTheFileBeforeARead) {
    MemoryFile file(10, 10);
    file.content = "0123456789";
    writeTo(file, "AB");
    EXPECT_EQ("0123456789", file.content);
    EXPECT_EQ("23", readFrom(file, 2));
    EXPECT_EQ("AB23456789", file.content);
    EXPECT_EQ(1, file.flushes);
}

TEST(IBinInOutStream, readFailsIfWrittenBytesCannotBePassedOn) {
    MemoryFile file(10, 10);
    file.content = "0123456789";
    writeTo(file, "AB");
    file.write_fails = true;
    EXPECT_EQ("", readFrom(file, 2, -1));
    EXPECT_TRUE(chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::TRANSFER_FAILED}}));
    EXPECT_EQ(0, file.reads);
    EXPECT_TRUE(file.isWriting());
    file.write_fails = false;
    EXPECT_EQ("23", readFrom(file, 2)) << "nothing is lost";
    EXPECT_EQ("AB23456789", file.content);
}

TEST(IBinInOutStream, flushWhileReadingKeepsTheReadAhead) {
    MemoryFile file(10, 10);
    file.content = "0123456789abcdef";
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ(10U, file.getSystemPosition());
    EXPECT_FALSE(file.isWriting());
    EXPECT_EQ("123", readFrom(file, 3));
    EXPECT_EQ(1, file.reads);
}

TEST(IBinInOutStream, failedSeekBeforeAWriteFailsTheWrite) {
    struct Pipe : MemoryFile {
        Pipe() : MemoryFile(10, 10) { content = "0123456789"; }
        bool checkWriteBufferConsistency() override {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::UNSUPPORTED_VALUE, "cannot seek");
            return true;
        }
    } pipe;
    EXPECT_EQ("0", readFrom(pipe, 1));
    unsigned int written = 12345;
    EXPECT_EQ(-1, pipe.write("X", 1, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(chainIs({{CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ("123", readFrom(pipe, 3)) << "the read-ahead is still there";
}

TEST(IBinInOutStream, readingAndWritingInTurnAllocatesNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    MemoryFile file(16, 16);
    file.content.assign(4096, '.');
    char block[40] = {};
    unsigned int count = 0;
    unsigned int position = 0;
    AllocationCounter const counter;
    for (unsigned int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(file.seek(static_cast<int>(i), From::BEGIN, position));
        EXPECT_EQ(1, file.read(block, 1 + i % 40, count));
        EXPECT_EQ(1, file.write(block, 1 + i % 37, count));
    }
    EXPECT_FALSE(file.seek(0, From::END, position));
    EXPECT_EQ(0, file.read(block, 1, count));
    EXPECT_EQ(0, counter.getCount());
    EXPECT_TRUE(chainIs({{IBinStreamBase::END_OF_STREAM}}));
}

// ---- against a model ----

using Setting = std::tuple<unsigned int, unsigned int, Mode>;

/// The behavior that callers rely on: one text and one position in it, without buffers.
class Model {
public:
    void expectRead(std::string const& bytes) {
        ASSERT_LE(m_position + bytes.size(), m_content.size());
        ASSERT_EQ(m_content.substr(m_position, bytes.size()), bytes);
        m_position += bytes.size();
    }
    void write(std::string const& bytes) {
        if (!bytes.empty() && m_content.size() < m_position + bytes.size()) {
            m_content.resize(m_position + bytes.size());
        }
        m_content.replace(m_position, bytes.size(), bytes);
        m_position += bytes.size();
    }
    void setPosition(size_t position) { m_position = position; }
    size_t getPosition() const { return m_position; }
    std::string const& getContent() const { return m_content; }
    bool isAtEnd() const { return m_position >= m_content.size(); }

private:
    std::string m_content;
    size_t m_position = 0;
};

class IBinInOutStreamModel : public testing::TestWithParam<Setting> {
protected:
    unsigned int pick(unsigned int least, unsigned int most) {
        return std::uniform_int_distribution<unsigned int>(least, most)(m_random);
    }

    /// Mostly small requests, with some around the sizes of the buffers.
    unsigned int pickSize() {
        auto const [read_buffer, write_buffer, mode] = GetParam();
        unsigned int const sizes[] = {
            pick(0, 3), pick(0, 20), std::max(1U, read_buffer) + pick(0, 2) - 1,
            std::max(1U, write_buffer) + pick(0, 2) - 1};
        return sizes[pick(0, 3)];
    }

    bool isNonBlocking() const { return std::get<2>(GetParam()) == Mode::NON_BLOCKING; }

    /// Only a non-blocking file may refuse, with a report and without a change.
    void expectNotNow() {
        ASSERT_TRUE(isNonBlocking());
        ASSERT_TRUE(chainIs({{IBinStreamBase::TRANSFER_FAILED, "Stream transfer failed"}}));
    }

    void read() {
        unsigned int const size = pickSize();
        std::string block(size, '#');
        unsigned int count = 12345;
        int const result = m_file.read(&block[0], size, count);
        ASSERT_LE(count, size);
        if (result == 1) {
            ASSERT_TRUE(count != 0 || size == 0 || isNonBlocking());
            m_model.expectRead(block.substr(0, count));
            return;
        }
        ASSERT_EQ(0U, count);
        if (result == -1) {
            expectNotNow();
            return;
        }
        ASSERT_EQ(0, result);
        ASSERT_TRUE(m_model.isAtEnd());
        ASSERT_TRUE(chainIs({{IBinStreamBase::END_OF_STREAM, "End of stream"}}));
    }

    void write() {
        std::string bytes(pickSize(), '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(pick('!', '~'));
        }
        unsigned int written = 12345;
        ASSERT_EQ(1, m_file.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written));
        ASSERT_TRUE(written == bytes.size() || (isNonBlocking() && written < bytes.size()));
        m_model.write(bytes.substr(0, written));
    }

    void seek() {
        auto const from = static_cast<From>(pick(0, 2));
        int offset = static_cast<int>(pick(0, 40));
        // Not beyond the end: the content there does not depend on streams.
        size_t const size = m_model.getContent().size();
        size_t target = std::min(static_cast<size_t>(offset) * 3, size);
        if (from == From::CURRENT) {
            target = m_model.getPosition() + static_cast<size_t>(offset) -
                std::min<size_t>(20, m_model.getPosition());
            target = std::min(target, size);
            offset = static_cast<int>(target) - static_cast<int>(m_model.getPosition());
        } else if (from == From::BEGIN) {
            offset = static_cast<int>(target);
        } else {
            // The file must have all written bytes to find its end.
            target = size - std::min(static_cast<size_t>(offset), size);
            offset = static_cast<int>(target) - static_cast<int>(size);
        }
        unsigned int position = 0;
        if (m_file.seek(offset, from, position)) {
            expectNotNow();
        } else {
            ASSERT_EQ(target, position);
            m_model.setPosition(target);
        }
    }

    void flush() {
        bool const buffer_only = pick(0, 1) == 0;
        int const flushes = m_file.flushes;
        if (m_file.flush(buffer_only)) {
            expectNotNow();
            ASSERT_EQ(flushes, m_file.flushes);
        } else {
            ASSERT_EQ(m_model.getContent(), m_file.content);
            ASSERT_EQ(flushes + (buffer_only ? 0 : 1), m_file.flushes);
        }
    }

    MemoryFile m_file{std::get<0>(GetParam()), std::get<1>(GetParam()), std::get<2>(GetParam())};
    Model m_model;
    std::mt19937 m_random{std::get<0>(GetParam()) * 31 + std::get<1>(GetParam()) + 7};
};

TEST_P(IBinInOutStreamModel, behavesAsOneFileWithOnePosition) {
    for (int i = 0; i < 3000 && !HasFatalFailure(); ++i) {
        SCOPED_TRACE(i);
        unsigned int const action = pick(0, 9);
        if (action == 0) {
            seek();
        } else if (action == 1) {
            flush();
        } else if (action < 6) {
            write();
        } else {
            read();
        }
        ASSERT_TRUE(chainIs({}));
    }
    while (m_file.flush(false)) {
        expectNotNow();
    }
    EXPECT_EQ(m_model.getContent(), m_file.content);
    EXPECT_GT(m_file.content.size(), 100U);
    EXPECT_GT(m_file.reads, 5);
    EXPECT_GT(m_file.writes, 5);
}

char const* const MODES[] = {"whole", "short", "nonBlocking"};

INSTANTIATE_TEST_SUITE_P(
    All, IBinInOutStreamModel,
    testing::Combine(
        testing::Values(1U, 2U, 7U, 16U, 4096U, 0U), testing::Values(1U, 2U, 7U, 16U, 4096U, 0U),
        testing::Values(Mode::WHOLE, Mode::SHORT, Mode::NON_BLOCKING)),
    [](testing::TestParamInfo<Setting> const& instance) {
        return "read" + std::to_string(std::get<0>(instance.param)) + "write" +
            std::to_string(std::get<1>(instance.param)) +
            MODES[static_cast<int>(std::get<2>(instance.param))];
    });

} // namespace
