#include "StreamFiles.h"

#include <algorithm>
#include <random>

namespace {

using namespace support;

/// Makes protected members visible.
class File : public StreamBinFileRW {
public:
    using StreamBinFileRW::checkReadBufferConsistency;
    using StreamBinFileRW::checkWriteBufferConsistency;
    using StreamBinFileRW::performFlush;
    using StreamBinFileRW::performRead;
    using StreamBinFileRW::performWrite;
    using StreamBinFileRW::StreamBinFileRW;

    /// Checks that the last operation was a read, and the size of the read-ahead.
    testing::AssertionResult isReading(unsigned int read_ahead) const {
        return hasState(READING, read_ahead, 0);
    }
    /// Checks that the last operation was a write, and how much of it is in the buffer.
    testing::AssertionResult isWriting(unsigned int buffered) const { return hasState(WRITING, 0, buffered); }

private:
    testing::AssertionResult
    hasState(LastOperation operation, unsigned int read_ahead, unsigned int buffered) const {
        if (m_last_op == operation && Reading::getReadAhead(*this) == read_ahead &&
            Writing::getBuffered(*this) == buffered) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure()
            << (m_last_op == WRITING ? "writing" : "reading") << ", " << Reading::getReadAhead(*this)
            << " bytes read ahead, " << Writing::getBuffered(*this) << " in the buffer";
    }
};

class StreamBinFileRWTest : public FileTest {
protected:
    StreamBinFileRWTest() { EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE)); }

    File m_file{10, 10};
};

TEST_F(StreamBinFileRWTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(2, getSlot(&StreamBinFileRW::isValid));
    EXPECT_EQ(3, getSlot(&File::checkReadBufferConsistency));
    EXPECT_EQ(5, getSlot(&StreamBinFileRW::seek));
    EXPECT_EQ(6, getSlot(&StreamBinFileRW::close));
    EXPECT_EQ(7, getSlot(&File::checkWriteBufferConsistency));
    // The others are those of the two directions, each in its own part.
    EXPECT_EQ(4, getSlot(&File::performRead));
    EXPECT_EQ(4, getSlot(&File::performWrite));
    EXPECT_EQ(5, getSlot(&File::performFlush));
    class Port : public StreamBinFileRW {
    public:
        bool performFlush() override { return false; }
    };
    EXPECT_EQ(8, getSlot(&Port::performFlush)) << "follows all others in a derived class";
}

TEST_F(StreamBinFileRWTest, isOneFileThroughEachOfItsBases) {
    StreamBinFileR& reader = m_file;
    StreamBinFileW& writer = m_file;
    StreamBinFileBase& base = m_file;
    EXPECT_EQ(static_cast<StreamBinFileBase*>(&reader), static_cast<StreamBinFileBase*>(&writer));
    EXPECT_EQ(static_cast<IBinStreamBase*>(&reader), static_cast<IBinStreamBase*>(&writer));
    EXPECT_EQ(reader.getDescriptor(), writer.getDescriptor());
    EXPECT_EQ("0", readFrom(reader, 1));
    writeTo(writer, "X");
    EXPECT_FALSE(base.seek(0, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(2U, m_position);
    EXPECT_EQ("2", readFrom(reader, 1));
    EXPECT_FALSE(writer.seek(0, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(3U, m_position);
    EXPECT_FALSE(writer.close());
    EXPECT_FALSE(reader.isValid());
    EXPECT_EQ("0X23456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, startsReadingWithABufferForEachDirection) {
    EXPECT_TRUE(File().isReading(0));
    EXPECT_TRUE(File(1, 0).isInputBuffered());
    EXPECT_FALSE(File(1, 0).isOutputBuffered());
    EXPECT_TRUE(File(0, 1).isOutputBuffered());
}

TEST_F(StreamBinFileRWTest, reopeningEmptiesBothBuffersAndKeepsTheDirection) {
    EXPECT_EQ("0", readFrom(m_file, 1));
    EXPECT_TRUE(m_file.isReading(9));
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    EXPECT_TRUE(m_file.isReading(0));
    writeTo(m_file, "X");
    EXPECT_TRUE(m_file.isWriting(1));
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    EXPECT_TRUE(m_file.isWriting(0));
    EXPECT_EQ("X1", readFrom(m_file, 2));
    EXPECT_TRUE(m_file.isReading(8));
    EXPECT_TRUE(m_file.open(m_missing, m_file.READ_WRITE));
    EXPECT_TRUE(isMissing(m_missing));
    EXPECT_TRUE(m_file.isReading(0)) << "also if the new file cannot be opened";
}

TEST_F(StreamBinFileRWTest, flushWhileReadingKeepsTheReadAheadAndAWriteReturnsIt) {
    EXPECT_EQ("0", readFrom(m_file, 1));
    EXPECT_FALSE(m_file.flush(false));
    EXPECT_TRUE(m_file.isReading(9));
    EXPECT_EQ("123", readFrom(m_file, 3));
    writeTo(m_file, "X");
    EXPECT_TRUE(m_file.isWriting(1));
    EXPECT_FALSE(m_file.flush(true));
    EXPECT_EQ("0123X56789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, writtenBytesAreInTheFileAndOnItsMediumBeforeARead) {
    writeTo(m_file, "AB");
    EXPECT_EQ("0123456789abcdef", contentOf(m_path));
    Calls const syncs(inject_fsync, 1);
    EXPECT_EQ("23", readFrom(m_file, 2));
    EXPECT_EQ("AB23456789abcdef", contentOf(m_path));
    EXPECT_TRUE(m_file.isReading(8));
}

TEST_F(StreamBinFileRWTest, changeOfDirectionWithEmptyBuffersIsNoSystemCall) {
    for (unsigned int const buffer_size : {0U, 4U}) {
        File file(buffer_size, buffer_size);
        EXPECT_FALSE(file.open(m_path, file.READ_WRITE));
        EXPECT_EQ("0123", readFrom(file, 4));
        Calls const no_seeks(inject_lseek, 0);
        Calls const no_syncs(inject_fsync, 0);
        writeTo(file, "WXYZ");
        EXPECT_EQ("89ab", readFrom(file, 4));
        EXPECT_EQ("0123WXYZ89abcdef", contentOf(m_path));
    }
}

TEST_F(StreamBinFileRWTest, readFailsWhileWrittenDataIsLeftInTheBuffer) {
    writeTo(m_file, "AB");
    Fault const fault(inject_write, ENOSPC);
    {
        Calls const no_reads(inject_read, 0);
        EXPECT_EQ("", readFrom(m_file, 2, -1));
    }
    EXPECT_TRUE(hasFullDisk(m_file));
    EXPECT_TRUE(m_file.isWriting(2));
    EXPECT_EQ("23", readFrom(m_file, 2)) << "it can be tried again";
    EXPECT_EQ("AB23456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, readContinuesWhenOnlyTheMediumFails) {
    writeTo(m_file, "AB");
    Calls const syncs(inject_fsync, 1, EIO);
    EXPECT_EQ("23", readFrom(m_file, 2));
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_TRUE(m_file.isReading(8));
}

TEST_F(StreamBinFileRWTest, writeFailsWhereTheReadAheadCannotBeReturnedAndLosesIt) {
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    File file(8, 0);
    EXPECT_FALSE(file.open(fifo, file.READ_WRITE)) << "on Linux one process may open both ends";
    writeTo(file, "abcd");
    EXPECT_EQ("a", readFrom(file, 1));
    EXPECT_TRUE(file.isReading(3));
    EXPECT_EQ(-1, writeOnce(file, "X", 0));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ESPIPE));
    EXPECT_TRUE(file.isReading(0));
    writeTo(file, "Y");
    EXPECT_TRUE(file.isWriting(0));
    EXPECT_EQ("Y", readFrom(file, 8));
}

TEST_F(StreamBinFileRWTest, readAheadIsReturnedThroughTheSeekOfADerivedClass) {
    class Lazy : public File {
    public:
        using File::File;
        bool seek(int offset, SeekDirection direction, unsigned int& position) override {
            EXPECT_EQ(0, offset);
            EXPECT_EQ(Current, direction);
            position = 0;
            ++seeks;
            return fails;
        }
        int seeks = 0;
        bool fails = true;
    } file(10, 10);
    EXPECT_FALSE(file.open(m_path, file.READ_WRITE));
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_EQ(-1, writeOnce(file, "X", 0));
    EXPECT_TRUE(file.hadError());
    EXPECT_TRUE(file.isReading(9));
    file.fails = false;
    writeTo(file, "X");
    EXPECT_TRUE(file.isWriting(1)) << "the read-ahead is discarded whatever that seek does";
    EXPECT_EQ(2, file.seeks);
}

TEST_F(StreamBinFileRWTest, hooksCalledDirectlyOnlyChangeTheDirection) {
    EXPECT_FALSE(m_file.checkWriteBufferConsistency());
    EXPECT_TRUE(m_file.isWriting(0));
    EXPECT_FALSE(m_file.checkReadBufferConsistency());
    EXPECT_TRUE(m_file.isReading(0));
    writeTo(m_file, "AB");
    EXPECT_FALSE(m_file.checkWriteBufferConsistency()) << "this is the direction already";
    EXPECT_TRUE(m_file.isWriting(2));
    EXPECT_FALSE(m_file.checkReadBufferConsistency());
    EXPECT_TRUE(m_file.isReading(0));
}

TEST_F(StreamBinFileRWTest, seekThatFlushesEndsWritingAndSeekWithoutDataKeepsIt) {
    writeTo(m_file, "AB");
    EXPECT_FALSE(m_file.seek(1, m_file.Current, m_position));
    EXPECT_EQ(3U, m_position);
    EXPECT_TRUE(m_file.isReading(0));
    EXPECT_FALSE(m_file.checkWriteBufferConsistency());
    EXPECT_FALSE(m_file.seek(0, m_file.End, m_position));
    EXPECT_TRUE(m_file.isWriting(0));
    writeTo(m_file, "CD");
    Fault const fault(inject_write, ENOSPC);
    EXPECT_TRUE(m_file.seek(5, m_file.Begin, m_position));
    EXPECT_TRUE(hasFullDisk(m_file));
    EXPECT_TRUE(m_file.isWriting(2)) << "data is left in the buffer";
}

TEST_F(StreamBinFileRWTest, transfersOf0BytesDoNotChangeTheDirection) {
    readFrom(m_file, 1);
    writeTo(m_file, "");
    EXPECT_TRUE(m_file.isReading(9));
    writeTo(m_file, "ab");
    EXPECT_EQ("", readFrom(m_file, 0));
    EXPECT_TRUE(m_file.isWriting(2));
}

TEST_F(StreamBinFileRWTest, alternatingReadsAndWritesAllocateNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    s_file_calls.syncs_for_nothing = true;
    char block[40] = {};
    unsigned int count = 0;
    AllocationCounter const counter;
    for (unsigned int i = 0; i < 100; ++i) {
        EXPECT_FALSE(m_file.seek(static_cast<int>(i % 8), m_file.Begin, m_position));
        EXPECT_EQ(1, m_file.read(block, 1 + i % 8, count));
        EXPECT_EQ(1, m_file.write(block, 1 + i % 40, count));
    }
    EXPECT_EQ(0, counter.getCount());
}

/// The sizes of the buffers, and whether the system transfers in pieces of any size.
using Setting = std::tuple<unsigned int, unsigned int, bool>;

/// Compares the file with what every caller may rely on: one text and one position in it, no buffers.
class StreamBinFileRWModel : public FileTest, public testing::WithParamInterface<Setting> {
protected:
    StreamBinFileRWModel() : FileTest(""), m_file(std::get<0>(GetParam()), std::get<1>(GetParam())) {
        s_file_calls.syncs_for_nothing = true;
        EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    }

    unsigned int pick(unsigned int least, unsigned int most) {
        return std::uniform_int_distribution<unsigned int>(least, most)(m_random);
    }

    /// Returns mostly small sizes, and some around the sizes of the buffers.
    unsigned int pickSize() {
        auto const [read_size, write_size, in_pieces] = GetParam();
        unsigned int const sizes[] = {
            pick(0, 3), pick(0, 20), std::max(1U, read_size) + pick(0, 2) - 1,
            std::max(1U, write_size) + pick(0, 2) - 1};
        return sizes[pick(0, 3)];
    }

    void read() {
        unsigned int const size = pickSize();
        bool const is_end = size != 0 && m_place >= m_content.size();
        std::string const block = readFrom(m_file, size, is_end ? 0 : 1);
        ASSERT_EQ(is_end || size == 0, block.empty());
        ASSERT_TRUE(is_end ? chainIs({{StreamErrorId::END_OF_STREAM}}) : chainIs({}));
        ASSERT_LE(m_place + block.size(), std::max(m_place, m_content.size()));
        ASSERT_EQ(block.empty() ? "" : m_content.substr(m_place, block.size()), block);
        m_place += block.size();
    }

    void write() {
        std::string bytes(pickSize(), ' ');
        std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>('a' + pick(0, 25)); });
        writeTo(m_file, bytes);
        if (!bytes.empty()) {
            m_content.resize(std::max(m_content.size(), m_place + bytes.size()));
            m_content.replace(m_place, bytes.size(), bytes);
            m_place += bytes.size();
        }
    }

    void seek() {
        auto const place = static_cast<int>(m_place);
        auto const size = static_cast<unsigned int>(m_content.size());
        int const target = pick(0, 3) == 0 ? place : static_cast<int>(pick(0, size + 20));
        int const origins[] = {place, 0, static_cast<int>(size)};
        auto const direction = static_cast<StreamBinFileBase::SeekDirection>(pick(0, 2));
        ASSERT_FALSE(m_file.seek(target - origins[direction], direction, m_position)) << "from " << place;
        ASSERT_EQ(static_cast<unsigned int>(target), m_position);
        m_place = m_position;
    }

    void act() {
        if (std::get<2>(GetParam())) {
            s_file_calls.most = pick(1, 12);
        }
        unsigned int const action = pick(0, 9);
        if (action == 0) {
            seek();
        } else if (action == 1) {
            ASSERT_FALSE(m_file.flush(pick(0, 1) == 0));
            ASSERT_EQ(m_content, contentOf(m_path));
        } else if (action < 6) {
            read();
        } else {
            write();
        }
        s_file_calls.most = SIZE_MAX;
    }

    File m_file;
    std::string m_content;
    size_t m_place = 0;
    std::mt19937 m_random{20240229};
};

TEST_P(StreamBinFileRWModel, randomSequenceKeepsOnePositionAndOneContent) {
    for (int i = 0; i < 3000; ++i) {
        ASSERT_NO_FATAL_FAILURE(act()) << "step " << i;
        ASSERT_FALSE(HasFailure()) << "step " << i;
    }
    EXPECT_FALSE(m_file.close());
    EXPECT_EQ(m_content, contentOf(m_path));
}

INSTANTIATE_TEST_SUITE_P(
    sizes, StreamBinFileRWModel,
    testing::Combine(testing::Values(0U, 1U, 7U, 64U), testing::Values(0U, 1U, 5U, 64U), testing::Bool()));

} // namespace
