#include "StreamFiles.h"
#include "support/Processes.h"

#include <climits>

namespace {

using namespace support;

static_assert(std::is_convertible_v<StreamBinFileR*, IBinInputStream*>);
static_assert(std::is_convertible_v<StreamBinFileR*, StreamBinFileBase*>);

testing::AssertionResult isAtEnd(BinFileBase const& file) {
    return hasFailed(file, {{StreamErrorId::END_OF_STREAM}});
}

class StreamBinFileRTest : public FileTest {
protected:
    StreamBinFileR m_file;
    Pipe m_pipe;
};

TEST_F(StreamBinFileRTest, baseIsVirtual) {
    class First : public virtual StreamBinFileBase {};
    class Both : public StreamBinFileR, public First {};
    Both file;
    EXPECT_EQ(
        static_cast<StreamBinFileBase*>(static_cast<StreamBinFileR*>(&file)),
        static_cast<StreamBinFileBase*>(static_cast<First*>(&file)));
}

TEST_F(StreamBinFileRTest, opensTheReadEndOfAPipeAndClosesTheOldFile) {
    EXPECT_FALSE(m_file.open(m_path, m_file.READ | m_file.NON_BLOCK));
    int const fd = m_file.getDescriptor();
    fill(m_pipe, "abc");
    EXPECT_FALSE(m_file.open(m_pipe));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(-1, m_pipe.getReadEnd());
    EXPECT_EQ(1U, Reading::getFlags(m_file));
    EXPECT_TRUE(Reading::getBlocking(m_file)) << "a pipe always blocks";
    EXPECT_EQ("abc", readFrom(m_file, 10)) << "a short read is not repeated";
    EXPECT_FALSE(m_pipe.closeWriteEnd());
    EXPECT_EQ("", readFrom(m_file, 10, 0));
    EXPECT_TRUE(isAtEnd(m_file));
    EXPECT_FALSE(m_file.open(m_path, m_file.READ | m_file.NON_BLOCK));
    EXPECT_FALSE(m_file.open(m_pipe));
    EXPECT_FALSE(m_file.isValid()) << "that end was taken";
    EXPECT_TRUE(Reading::getBlocking(m_file));
}

TEST_F(StreamBinFileRTest, pipeKeepsItsReadEndIfTheFileHasNoBuffer) {
    NewFault const fault(New::NOTHROW_ARRAY);
    StreamBinFileR file(16);
    std::ErrorStorage::ack();
    EXPECT_TRUE(file.open(m_pipe));
    EXPECT_TRUE(contractIsBroken("Attempted open on invalid object"));
    EXPECT_NE(-1, m_pipe.getReadEnd());
}

TEST_F(StreamBinFileRTest, flagsWithWriteBitsOpenForWriting) {
    EXPECT_FALSE(m_file.open(m_path.c_str(), BinFileBase::ReadFlags(m_file.READ_WRITE)));
    EXPECT_EQ(1, write(m_file.getDescriptor(), "X", 1));
    EXPECT_EQ("X123456789abcdef", contentOf(m_path));
    EXPECT_EQ(0, fcntl(m_file.getDescriptor(), F_GETFL) & O_NONBLOCK);
}

TEST_F(StreamBinFileRTest, emptyFifoIsNoFailureInNonBlockingMode) {
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    StreamBinFileR file(8);
    EXPECT_FALSE(file.open(fifo, file.READ | file.NON_BLOCK));
    int const writer = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_NE(-1, writer);
    EXPECT_EQ("", readFrom(file, 4)) << "EAGAIN is no failure";
    EXPECT_TRUE(hasNoError(file));
    EXPECT_EQ("", readFrom(file, 100));
    EXPECT_TRUE(hasNoError(file));
    ASSERT_EQ(2, write(writer, "ab", 2));
    EXPECT_EQ("ab", readFrom(file, 4));
    close(writer);
    EXPECT_EQ("", readFrom(file, 4, 0));
    EXPECT_TRUE(isAtEnd(file));
}

int s_handled_end = -1;

TEST_F(StreamBinFileRTest, signalDoesNotEndARead) {
    Pipe handled;
    Process reader([&] {
        s_handled_end = handled.getWriteEnd();
        struct sigaction action {};
        action.sa_handler = [](int) { [[maybe_unused]] ssize_t const n = write(s_handled_end, "h", 1); };
        ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr)) << "the system does not restart the call";
        EXPECT_FALSE(m_file.open(m_pipe));
        // The next call that sleeps is the read.
        ASSERT_EQ(1, write(s_handled_end, "r", 1));
        EXPECT_EQ("x", readFrom(m_file, 4));
    });
    char c = 0;
    ASSERT_EQ(1, read(handled.getReadEnd(), &c, 1));
    waitUntilAsleep(reader.getId(), reader.getId());
    ASSERT_EQ(0, kill(reader.getId(), SIGUSR1));
    ASSERT_EQ(1, read(handled.getReadEnd(), &c, 1));
    EXPECT_EQ('h', c);
    fill(m_pipe, "x");
    EXPECT_EQ(0, reader.join());
}

TEST_F(StreamBinFileRTest, sourceThatTheSystemDoesNotReadIsReported) {
    auto const fails = [this](SysErrorId::Id cause, int error, StreamErrorId on_top) {
        EXPECT_EQ("", readFrom(m_file, 2, -1));
        return hasFailed(m_file, cause, error, on_top);
    };
    EXPECT_FALSE(m_file.open(m_folder.getPath(), m_file.READ));
    EXPECT_TRUE(fails(SysErrorId::INVALID_PATH, EISDIR, StreamErrorId::TRANSFER_FAILED));
    EXPECT_FALSE(m_file.open(m_path, BinFileBase::ReadFlags(m_file.WRITE)));
    EXPECT_TRUE(fails(SysErrorId::SPOILED_INTEGRITY, EBADF, StreamErrorId::UNUSABLE));
    EXPECT_FALSE(m_file.open(m_path, m_file.READ));
    close(m_file.getDescriptor());
    EXPECT_TRUE(fails(SysErrorId::SPOILED_INTEGRITY, EBADF, StreamErrorId::UNUSABLE));
    EXPECT_TRUE(m_file.close());
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
}

TEST_F(StreamBinFileRTest, failedSeekLosesTheReadAhead) {
    fill(m_pipe, "abcd");
    StreamBinFileR file(8);
    EXPECT_FALSE(file.open(m_pipe));
    EXPECT_EQ("a", readFrom(file, 1));
    EXPECT_TRUE(file.seek(0, file.Current, m_position));
    EXPECT_TRUE(hasFailed(file, SysErrorId::SPOILED_INTEGRITY, ESPIPE));
    EXPECT_EQ(0U, Reading::getReadAhead(file));
    fill(m_pipe, "e");
    EXPECT_EQ("e", readFrom(file, 1));
}

TEST_F(StreamBinFileRTest, closeKeepsTheReadAhead) {
    StreamBinFileR file(4);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("123", readFrom(file, 10));
    EXPECT_EQ("", readFrom(file, 10, -1));
    EXPECT_TRUE(isClosedFor(file, "read"));
}

TEST_F(StreamBinFileRTest, destructorReportsAFailureOnStandardError) {
    auto const end = runInChild([&] {
        StreamBinFileR file;
        EXPECT_FALSE(file.open(m_path, file.READ));
        close(file.getDescriptor());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("~BinFileBase|Warning: Error closing BinFile: ")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find(systemText(EBADF))) << end.errors;
}

class StreamRead : public StreamSuite<StreamBinFileR> {};

TEST_P(StreamRead, readsToTheEnd) {
    for (unsigned int const buffer_size : {0U, 1U, 5U, 16U, 100U}) {
        StreamBinFileR& file = open(buffer_size);
        std::string content;
        while (content.size() < 16) {
            content += readFrom(file, 3);
            ASSERT_TRUE(hasNoError(file));
        }
        EXPECT_EQ("0123456789abcdef", content) << buffer_size;
        EXPECT_EQ("", readFrom(file, 3, 0));
        EXPECT_TRUE(isAtEnd(file));
    }
}

TEST_P(StreamRead, readOf0BytesSucceedsWithoutASystemCall) {
    for (unsigned int const buffer_size : {0U, 4U}) {
        StreamBinFileR& file = make(buffer_size);
        EXPECT_EQ("", readFrom(file, 0, -1));
        EXPECT_TRUE(isClosedFor(file, "read"));
        EXPECT_FALSE(reopen(file, m_folder.makeFile("empty")));
        EXPECT_EQ("", readFrom(file, 1, 0));
        EXPECT_TRUE(isAtEnd(file));
        Calls const none(inject_read, 0);
        EXPECT_EQ("", readFrom(file, 0)) << "also at the end";
        EXPECT_TRUE(hasNoError(file));
    }
}

TEST_P(StreamRead, unavailableDataIsNoFailureWithAnyBuffer) {
    for (unsigned int const buffer_size : {0U, 16U}) {
        StreamBinFileR& file = open(buffer_size);
        Fault const fault(inject_read, EAGAIN);
        EXPECT_EQ("", readFrom(file, 2));
        EXPECT_TRUE(hasNoError(file));
        EXPECT_EQ("01", readFrom(file, 2));
    }
}

TEST_P(StreamRead, performReadStartsWithACountOf0AndTheHookBeforeItSucceeds) {
    StreamBinFileR& file = make();
    char block[4];
    unsigned int count = 12345;
    EXPECT_TRUE((file.*(&Reading::performRead))(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(isClosedFor(file, "read"));
    EXPECT_FALSE(reopen(file, m_path));
    EXPECT_FALSE((file.*(&Reading::performRead))(block, sizeof block, count));
    EXPECT_EQ(4U, count);
    Fault const fault(inject_read, EAGAIN);
    EXPECT_FALSE((file.*(&Reading::performRead))(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_FALSE((file.*(&Reading::checkReadBufferConsistency))());
}

TEST_P(StreamRead, openDiscardsTheReadAhead) {
    StreamBinFileR& file = open(8);
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_EQ(7U, Reading::getReadAhead(file));
    EXPECT_FALSE(reopen(file, m_path));
    EXPECT_EQ(0U, Reading::getReadAhead(file));
}

TEST_P(StreamRead, seekCountsFromTheReadersPositionAndDiscardsTheReadAhead) {
    struct Step {
        int offset;
        StreamBinFileBase::SeekDirection direction;
        int system_offset;
        unsigned int position;
        char const* next;
    };
    StreamBinFileR& file = open(10);
    StreamBinFileBase& base = file;
    EXPECT_EQ("012", readFrom(file, 3));
    for (auto const& [offset, direction, system_offset, position, next] :
         {Step{0, base.Current, -7, 3, "3"}, Step{2, base.Current, -7, 6, "6"},
          Step{-7, base.Current, -16, 0, "0"}, Step{5, base.Begin, 5, 5, "5"},
          Step{-2, base.End, -2, 14, "e"}, Step{-1, base.Current, -2, 14, "e"}}) {
        EXPECT_FALSE(base.seek(offset, direction, m_position));
        EXPECT_EQ(position, m_position);
        EXPECT_EQ(system_offset, s_file_calls.seek_offset);
        EXPECT_EQ(0U, Reading::getReadAhead(file));
        EXPECT_EQ(next, readFrom(file, 1));
    }
    EXPECT_EQ("f", readFrom(file, 10));
    EXPECT_FALSE(file.seek(-1, file.Current, m_position)) << "nothing is read ahead";
    EXPECT_EQ(15U, m_position);
    EXPECT_EQ(-1, s_file_calls.seek_offset);
}

TEST_P(StreamRead, adjustedOffsetWrapsAround) {
    StreamBinFileR& file = open(10);
    EXPECT_EQ("012", readFrom(file, 3));
    EXPECT_TRUE(file.seek(INT_MIN, file.Current, m_position));
    EXPECT_EQ(INT_MAX - 6, s_file_calls.seek_offset);
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EOVERFLOW));
}

INSTANTIATE_TEST_SUITE_P(classes, StreamRead, testing::Values(READER, BOTH), nameOf);

} // namespace
