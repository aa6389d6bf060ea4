#include "StreamFiles.h"
#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/NewFault.h"
#include "support/Processes.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/Directory.h>
#include <vesk/FileAccessError.h>
#include <vesk/Pipe.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/SysError.h>
#include <vesk/UnicodeString.h>

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <string>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::IBinInputStream;
using std::IBinStreamBase;
using support::chainIs;
using support::closedFileIsTold;
using support::contentOf;
using support::failureIs;
using support::Fault;
using support::getSlot;
using support::isOpen;
using support::New;
using support::NewFault;
using support::openIsRefused;
using support::readFrom;
using support::rowText;
using support::s_file_calls;
using support::streamFailureIs;
using support::systemText;
using vesk::BinFileBase;
using vesk::Directory;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::Pipe;
using vesk::StreamBinFileBase;
using vesk::StreamBinFileR;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnicodeString;

using Row = support::StreamRow;
using ReadFlags = BinFileBase::ReadFlags;

static_assert(std::is_convertible_v<StreamBinFileR*, IBinInputStream*>);
static_assert(std::is_convertible_v<StreamBinFileR*, StreamBinFileBase*>);

/// Shows what only deriving classes see.
class Reader : public StreamBinFileR {
public:
    using StreamBinFileR::checkReadBufferConsistency;
    using StreamBinFileR::performRead;
    using StreamBinFileR::StreamBinFileR;

    bool isBlocking() const { return m_blocking; }
    uint32_t getFlags() const { return m_flags.getWord(); }
    unsigned int getReadAhead() const { return m_end - m_pos; }
};

/// The standard error of a stream, without the cause below it.
testing::AssertionResult atEnd() {
    return chainIs({{IBinStreamBase::StreamErrorId::END_OF_STREAM}});
}

class StreamBinFileRTest : public support::StreamFileTest {
protected:
    StreamBinFileRTest() : StreamFileTest("0123456789abcdef") {}
};

TEST_F(StreamBinFileRTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(2, getSlot(&StreamBinFileR::isValid));
    EXPECT_EQ(3, getSlot(&Reader::checkReadBufferConsistency));
    EXPECT_EQ(4, getSlot(&Reader::performRead));
    EXPECT_EQ(5, getSlot(&StreamBinFileR::seek));
}

TEST_F(StreamBinFileRTest, baseIsVirtual) {
    class First : public virtual StreamBinFileBase {};
    class Both : public StreamBinFileR, public First {};
    Both file;
    EXPECT_EQ(
        static_cast<StreamBinFileBase*>(static_cast<StreamBinFileR*>(&file)),
        static_cast<StreamBinFileBase*>(static_cast<First*>(&file)));
}

TEST_F(StreamBinFileRTest, startsClosedBlockingAndUnbuffered) {
    Reader const file;
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.isBlocking());
    EXPECT_FALSE(file.isInputBuffered());
    EXPECT_TRUE(Reader(16).isInputBuffered());
}

// ---- open ----

TEST_F(StreamBinFileRTest, opensAPathInEachForm) {
    Reader file;
    EXPECT_FALSE(file.open(m_path.c_str(), file.READ));
    EXPECT_EQ("0123", readFrom(file, 4));
    EXPECT_EQ(1U, file.getFlags());
    EXPECT_FALSE(file.open(m_path, file.READ)) << "a string is borrowed";
    EXPECT_EQ("0123", readFrom(file, 4));
    EXPECT_FALSE(file.open(UnicodeString(m_path.c_str()), ReadFlags()));
    EXPECT_EQ("0123", readFrom(file, 4));
    EXPECT_FALSE(file.close());
    Directory const dir(m_folder.getPath(), true);
    EXPECT_FALSE(file.openAt(dir, "file", true, file.READ));
    EXPECT_EQ("0123", readFrom(file, 4));
}

TEST_F(StreamBinFileRTest, opensTheReadEndOfAPipe) {
    Pipe pipe;
    ASSERT_EQ(3, write(pipe.getWriteEnd(), "abc", 3));
    Reader file;
    EXPECT_FALSE(file.open(pipe));
    EXPECT_EQ(-1, pipe.getReadEnd());
    EXPECT_EQ(1U, file.getFlags());
    EXPECT_EQ("abc", readFrom(file, 10)) << "a short read is not repeated";
    EXPECT_FALSE(pipe.closeWriteEnd());
    EXPECT_EQ("", readFrom(file, 10, 0));
    EXPECT_TRUE(atEnd());
}

TEST_F(StreamBinFileRTest, failedOpenIsReportedAsInTheBase) {
    Reader file;
    std::string const missing = m_folder / "missing";
    auto const is_missing = [](std::string const& path) {
        return chainIs(
            {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
             {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, path)}});
    };
    EXPECT_TRUE(file.open(missing.c_str(), file.READ));
    EXPECT_TRUE(is_missing(missing));
    EXPECT_TRUE(file.open(missing, file.READ));
    EXPECT_TRUE(is_missing(missing));
    Directory const dir(m_folder.getPath(), true);
    EXPECT_TRUE(file.openAt(dir, "missing", false, file.READ));
    EXPECT_TRUE(is_missing("missing"));
    EXPECT_FALSE(file.isValid());
}

TEST_F(StreamBinFileRTest, openWithoutAPathSucceedsAndStaysClosed) {
    Reader file;
    EXPECT_FALSE(file.open(nullptr, ReadFlags()));
    EXPECT_FALSE(file.isValid());
    EXPECT_FALSE(file.open("", ReadFlags()));
    EXPECT_FALSE(file.isValid());
    EXPECT_FALSE(file.open(std::string(), ReadFlags()));
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileRTest, wordWithWriteBitsOpensForWriting) {
    Reader file;
    EXPECT_FALSE(file.open(m_path.c_str(), ReadFlags(file.READ_WRITE)));
    EXPECT_EQ(1, write(file.getDescriptor(), "X", 1));
    EXPECT_EQ("X123456789abcdef", contentOf(m_path));
    EXPECT_EQ(0, fcntl(file.getDescriptor(), F_GETFL) & O_NONBLOCK);
}

TEST_F(StreamBinFileRTest, fileThatIsMadeIsForOwnerAndGroup) {
    Reader file;
    mode_t const mask = umask(0);
    EXPECT_FALSE(file.open(m_folder / "new", file.READ | file.CREATE));
    umask(mask);
    EXPECT_EQ(0660U, file.getFileInfo().getAccess().getBits());
}

TEST_F(StreamBinFileRTest, withoutMemoryForItsBufferItCannotBeOpened) {
    NewFault const fault(New::NOTHROW_ARRAY);
    Reader file(16);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    Fault const opens(inject_open, 0);
    EXPECT_TRUE(file.open(m_path.c_str(), file.READ));
    EXPECT_TRUE(openIsRefused());
    EXPECT_TRUE(file.open(m_path, file.READ));
    EXPECT_TRUE(openIsRefused());
    Pipe pipe;
    EXPECT_TRUE(file.open(pipe));
    EXPECT_TRUE(openIsRefused());
    EXPECT_NE(-1, pipe.getReadEnd());
    Directory const dir(m_folder.getPath(), true);
    int const calls = opens.getCalls();
    Fault const entries(inject_openat, 0);
    EXPECT_TRUE(file.openAt(dir, "file", true, file.READ));
    EXPECT_TRUE(openIsRefused());
    EXPECT_EQ(0, entries.getCalls());
    EXPECT_EQ(calls, opens.getCalls());
    EXPECT_FALSE(file.isValid());
}

TEST_F(StreamBinFileRTest, withoutItsBufferAnOpenFileIsNotValid) {
    NewFault const fault(New::NOTHROW_ARRAY);
    Reader file(16);
    std::ErrorStorage::ack();
    EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.READ, vesk::FileAccess::none));
    EXPECT_NE(-1, file.getDescriptor());
    EXPECT_FALSE(file.isValid());
}

TEST_F(StreamBinFileRTest, openDropsWhatWasReadAhead) {
    Reader file(8);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_EQ(7U, file.getReadAhead());
    EXPECT_FALSE(file.open(m_folder.makeFile("other", "xyz"), file.READ));
    EXPECT_EQ(0U, file.getReadAhead());
    EXPECT_EQ("x", readFrom(file, 1));
    Pipe pipe;
    EXPECT_FALSE(file.open(pipe));
    EXPECT_EQ(0U, file.getReadAhead());
}

TEST_F(StreamBinFileRTest, flagsDecideWhetherItBlocks) {
    Reader file;
    EXPECT_FALSE(file.open(m_path, file.READ | file.NON_BLOCK));
    EXPECT_FALSE(file.isBlocking());
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_TRUE(file.isBlocking());
    EXPECT_FALSE(file.close());
    Directory const dir(m_folder.getPath(), true);
    EXPECT_FALSE(file.openAt(dir, "file", true, file.READ | file.NON_BLOCK));
    EXPECT_FALSE(file.isBlocking());
    Pipe pipe;
    EXPECT_FALSE(file.open(pipe));
    EXPECT_TRUE(file.isBlocking()) << "a pipe always does";
    EXPECT_FALSE(file.open(m_path, file.READ | file.NON_BLOCK));
    EXPECT_FALSE(file.open(pipe));
    EXPECT_FALSE(file.isValid()) << "that end was taken";
    EXPECT_TRUE(file.isBlocking());
}

TEST_F(StreamBinFileRTest, reopeningClosesTheOldFile) {
    Reader file;
    EXPECT_FALSE(file.open(m_path, file.READ));
    int const fd = file.getDescriptor();
    Pipe pipe;
    int const end = pipe.getReadEnd();
    EXPECT_FALSE(file.open(pipe));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(isOpen(end));
}

// ---- read ----

TEST_F(StreamBinFileRTest, readsToTheEnd) {
    for (unsigned int const buffer : {0U, 1U, 5U, 16U, 100U}) {
        Reader file(buffer);
        EXPECT_FALSE(file.open(m_path, file.READ));
        std::string content;
        for (;;) {
            char block[3];
            unsigned int count = 0;
            int const result = file.read(block, sizeof block, count);
            content.append(block, count);
            if (result != 1) {
                EXPECT_EQ(0, result);
                EXPECT_TRUE(atEnd());
                EXPECT_TRUE(file.hadError());
                break;
            }
            EXPECT_FALSE(file.hadError());
        }
        EXPECT_EQ("0123456789abcdef", content) << buffer;
    }
}

TEST_F(StreamBinFileRTest, readingNothingSucceedsWithoutASystemCall) {
    for (unsigned int const buffer : {0U, 4U}) {
        Reader file(buffer);
        EXPECT_EQ("", readFrom(file, 0, -1));
        EXPECT_TRUE(closedFileIsTold("read"));
        EXPECT_TRUE(file.hadError());
        EXPECT_FALSE(file.open(m_folder.makeFile("empty"), file.READ));
        EXPECT_EQ("", readFrom(file, 1, 0));
        EXPECT_TRUE(atEnd());
        EXPECT_TRUE(file.hadError());
        Fault const calls(inject_read, 0);
        EXPECT_EQ("", readFrom(file, 0)) << "also at the end";
        EXPECT_EQ(0, calls.getCalls());
        EXPECT_FALSE(file.hadError());
    }
}

TEST_F(StreamBinFileRTest, nothingToReadIsNoFailureInNonBlockingMode) {
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    Reader file(8);
    EXPECT_FALSE(file.open(fifo, file.READ | file.NON_BLOCK));
    int const writer = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_NE(-1, writer);
    EXPECT_EQ("", readFrom(file, 4)) << "EAGAIN is no failure";
    EXPECT_FALSE(file.hadError());
    EXPECT_EQ("", readFrom(file, 100));
    EXPECT_TRUE(chainIs({}));
    ASSERT_EQ(2, write(writer, "ab", 2));
    EXPECT_EQ("ab", readFrom(file, 4));
    close(writer);
    EXPECT_EQ("", readFrom(file, 4, 0));
    EXPECT_TRUE(atEnd());
}

TEST_F(StreamBinFileRTest, readIsRepeatedWhileItIsInterrupted) {
    Reader file;
    EXPECT_FALSE(file.open(m_path, file.READ));
    Fault const fault(inject_read, EINTR, 1, 3);
    EXPECT_EQ("01", readFrom(file, 2));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(file.hadError());
    EXPECT_TRUE(chainIs({}));
}

int s_handled_end = -1;

TEST_F(StreamBinFileRTest, signalDoesNotEndARead) {
    Pipe data;
    Pipe handled;
    support::Process reader([&] {
        s_handled_end = handled.getWriteEnd();
        struct sigaction action {};
        action.sa_handler = [](int) { [[maybe_unused]] ssize_t const n = write(s_handled_end, "h", 1); };
        ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr)) << "the system does not restart the call";
        StreamBinFileR file;
        EXPECT_FALSE(file.open(data));
        // Only now is it asleep for good.
        ASSERT_EQ(1, write(s_handled_end, "r", 1));
        EXPECT_EQ("x", readFrom(file, 4));
    });
    char c = 0;
    ASSERT_EQ(1, read(handled.getReadEnd(), &c, 1));
    support::waitUntilAsleep(reader.getId(), reader.getId());
    ASSERT_EQ(0, kill(reader.getId(), SIGUSR1));
    ASSERT_EQ(1, read(handled.getReadEnd(), &c, 1));
    EXPECT_EQ('h', c);
    ASSERT_EQ(1, write(data.getWriteEnd(), "x", 1));
    EXPECT_EQ(0, reader.join());
}

class StreamBinFileRRead : public testing::TestWithParam<Row> {};

TEST_P(StreamBinFileRRead, failureTellsItsCauseAndWhatItMeansForTheStream) {
    Row const row = GetParam();
    for (unsigned int const buffer : {0U, 16U}) {
        Reader file(buffer);
        EXPECT_FALSE(file.open("/dev/zero", file.READ));
        {
            Fault const fault(inject_read, row.error);
            EXPECT_EQ("", readFrom(file, 2, -1));
            EXPECT_EQ(1, fault.getCalls());
        }
        EXPECT_TRUE(streamFailureIs(row.error, row.cause, row.on_top));
        EXPECT_TRUE(file.hadError());
        EXPECT_TRUE(file.isValid());
        EXPECT_EQ(std::string(2, '\0'), readFrom(file, 2));
        EXPECT_FALSE(file.hadError());
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, StreamBinFileRRead,
    testing::Values(
        Row{EIO, 11, 1}, Row{ENXIO, 16, 0}, Row{EBADF, 10, 0}, Row{EINVAL, 10, 0}, Row{ECONNRESET, 10, 0},
        Row{ENOTCONN, 10, 0}, Row{ETIMEDOUT, 10, 0}, Row{ENOMEM, 1, 1}, Row{EISDIR, 2, 1},
        Row{EOVERFLOW, 8, 1}, Row{ENOBUFS, 0, 1}, Row{EFAULT, 19, 4}, Row{ENOSPC, 19, 4}, Row{EPIPE, 19, 4}));

TEST_F(StreamBinFileRTest, unavailableDataIsNoFailureWhateverTheBuffer) {
    for (unsigned int const buffer : {0U, 16U}) {
        Reader file(buffer);
        EXPECT_FALSE(file.open(m_path, file.READ));
        Fault const fault(inject_read, EAGAIN);
        EXPECT_EQ("", readFrom(file, 2));
        EXPECT_FALSE(file.hadError());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ("01", readFrom(file, 2));
    }
}

TEST_F(StreamBinFileRTest, readOnAClosedObjectFails) {
    for (unsigned int const buffer : {0U, 16U}) {
        Reader file(buffer);
        Fault const calls(inject_read, 0);
        EXPECT_EQ("", readFrom(file, 2, -1));
        EXPECT_TRUE(closedFileIsTold("read"));
        EXPECT_TRUE(file.hadError());
        EXPECT_EQ(0, calls.getCalls());
    }
}

TEST_F(StreamBinFileRTest, whatTheSystemDoesNotReadIsReported) {
    Reader file;
    EXPECT_FALSE(file.open(m_folder.getPath(), file.READ));
    EXPECT_EQ("", readFrom(file, 2, -1));
    EXPECT_TRUE(streamFailureIs(EISDIR, 2, 1));
    EXPECT_FALSE(file.open(m_path, ReadFlags(file.WRITE)));
    EXPECT_EQ("", readFrom(file, 2, -1));
    EXPECT_TRUE(streamFailureIs(EBADF, 10, 0));
    EXPECT_FALSE(file.open(m_path, file.READ));
    close(file.getDescriptor());
    EXPECT_EQ("", readFrom(file, 2, -1));
    EXPECT_TRUE(streamFailureIs(EBADF, 10, 0));
    EXPECT_TRUE(file.close());
    std::ErrorStorage::ack();
}

TEST_F(StreamBinFileRTest, performReadStartsFromNothing) {
    Reader file;
    unsigned int count = 12345;
    char block[4];
    EXPECT_TRUE(file.performRead(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    std::ErrorStorage::ack();
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_FALSE(file.performRead(block, sizeof block, count));
    EXPECT_EQ(4U, count);
    Fault const fault(inject_read, EAGAIN);
    EXPECT_FALSE(file.performRead(block, sizeof block, count));
    EXPECT_EQ(0U, count);
}

TEST_F(StreamBinFileRTest, hookOfAFileWithOneDirectionDoesNothing) {
    Reader file(4);
    EXPECT_FALSE(file.checkReadBufferConsistency());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileRTest, readIsOneSystemCallWithoutAnAllocation) {
    if (!support::COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    StreamBinFileR file;
    EXPECT_FALSE(file.open("/dev/zero", file.READ));
    Fault const calls(inject_read, 0);
    support::AllocationCounter const counter;
    char block[64];
    unsigned int count = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(1, file.read(block, sizeof block, count));
    }
    EXPECT_EQ(10, calls.getCalls());
    StreamBinFileR broken;
    EXPECT_EQ(-1, broken.read(block, sizeof block, count));
    std::ErrorStorage::ack();
    EXPECT_EQ(0, counter.getCount());
}

// ---- seek ----

TEST_F(StreamBinFileRTest, currentPositionIsThatOfTheReader) {
    Reader file(10);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("012", readFrom(file, 3));
    EXPECT_FALSE(file.seek(0, file.Current, m_position));
    EXPECT_EQ(3U, m_position);
    EXPECT_EQ(-7, s_file_calls.seek_offset);
    EXPECT_EQ("3", readFrom(file, 1));
    EXPECT_FALSE(file.seek(2, file.Current, m_position));
    EXPECT_EQ(6U, m_position);
    EXPECT_EQ("6", readFrom(file, 1));
    EXPECT_FALSE(file.seek(-7, file.Current, m_position));
    EXPECT_EQ(0U, m_position);
    EXPECT_EQ("0", readFrom(file, 1));
}

TEST_F(StreamBinFileRTest, offsetFromTheBeginOrTheEndIsNotAdjusted) {
    Reader file(10);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("012", readFrom(file, 3));
    EXPECT_FALSE(file.seek(5, file.Begin, m_position));
    EXPECT_EQ(5U, m_position);
    EXPECT_EQ(5, s_file_calls.seek_offset);
    EXPECT_EQ(0U, file.getReadAhead());
    EXPECT_EQ("5", readFrom(file, 1));
    EXPECT_FALSE(file.seek(-2, file.End, m_position));
    EXPECT_EQ(14U, m_position);
    EXPECT_EQ(-2, s_file_calls.seek_offset);
    EXPECT_EQ("ef", readFrom(file, 10));
    EXPECT_FALSE(file.seek(-1, file.Current, m_position)) << "nothing is read ahead";
    EXPECT_EQ(15U, m_position);
    EXPECT_EQ(-1, s_file_calls.seek_offset);
}

TEST_F(StreamBinFileRTest, adjustedOffsetWrapsAround) {
    Reader file(10);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("012", readFrom(file, 3));
    EXPECT_TRUE(file.seek(INT_MIN, file.Current, m_position));
    EXPECT_EQ(INT_MAX - 6, s_file_calls.seek_offset);
    EXPECT_TRUE(failureIs(EOVERFLOW, 10));
}

TEST_F(StreamBinFileRTest, failedSeekLosesTheReadAhead) {
    Pipe pipe;
    ASSERT_EQ(4, write(pipe.getWriteEnd(), "abcd", 4));
    Reader file(8);
    EXPECT_FALSE(file.open(pipe));
    EXPECT_EQ("a", readFrom(file, 1));
    EXPECT_TRUE(file.seek(0, file.Current, m_position));
    EXPECT_TRUE(failureIs(ESPIPE, 10));
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ(0U, file.getReadAhead());
    ASSERT_EQ(1, write(pipe.getWriteEnd(), "e", 1));
    EXPECT_EQ("e", readFrom(file, 1));
}

TEST_F(StreamBinFileRTest, seekOnAClosedObjectFails) {
    Reader file;
    EXPECT_TRUE(file.seek(0, file.Begin, m_position));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Attempt to seek on invalid file object")}}));
    EXPECT_EQ(0U, m_position);
}

TEST_F(StreamBinFileRTest, seekThroughTheBaseGivesBackTheReadAhead) {
    Reader file(10);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("012", readFrom(file, 3));
    StreamBinFileBase& base = file;
    EXPECT_FALSE(base.seek(0, file.Current, m_position));
    EXPECT_EQ(3U, m_position);
}

// ---- close and the end of the object ----

TEST_F(StreamBinFileRTest, closeKeepsTheReadAheadForTheReader) {
    Reader file(4);
    EXPECT_FALSE(file.open(m_path, file.READ));
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("123", readFrom(file, 10));
    EXPECT_EQ("", readFrom(file, 10, -1));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}, {IBinStreamBase::StreamErrorId::UNUSABLE}}));
}

TEST_F(StreamBinFileRTest, destructorClosesTheFileThroughEveryBase) {
    auto const expect = [this](auto const& destroy) {
        auto* const file = new StreamBinFileR;
        EXPECT_FALSE(file->open(m_path, file->READ));
        int const fd = file->getDescriptor();
        destroy(file);
        EXPECT_FALSE(isOpen(fd));
    };
    expect([](StreamBinFileR* file) { delete file; });
    expect([](IBinInputStream* file) { delete file; });
    expect([](IBinStreamBase* file) { delete file; });
    expect([](StreamBinFileBase* file) { delete file; });
    expect([](BinFileBase* file) { delete file; });
}

TEST_F(StreamBinFileRTest, destructorTellsAFailureOnStandardError) {
    auto const end = support::runInChild([&] {
        StreamBinFileR file;
        EXPECT_FALSE(file.open(m_path, file.READ));
        close(file.getDescriptor());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("~BinFileBase|Warning: Error closing BinFile: ")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find(systemText(EBADF))) << end.errors;
}

} // namespace
