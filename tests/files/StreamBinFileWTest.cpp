#include "StreamFiles.h"
#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/Directory.h>
#include <vesk/FileAccessError.h>
#include <vesk/Pipe.h>
#include <vesk/StreamBinFileW.h>
#include <vesk/SysError.h>
#include <vesk/UnicodeString.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <initializer_list>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <thread>
#include <type_traits>

VESK_INJECT_ERRNO(int, -1, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::IBinOutputStream;
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
using support::rowText;
using support::streamFailureIs;
using support::systemText;
using support::writeTo;
using vesk::BinFileBase;
using vesk::Directory;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::Pipe;
using vesk::StreamBinFileBase;
using vesk::StreamBinFileW;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnicodeString;

using Row = support::StreamRow;
using WriteFlags = BinFileBase::WriteFlags;

static_assert(std::is_convertible_v<StreamBinFileW*, IBinOutputStream*>);
static_assert(std::is_convertible_v<StreamBinFileW*, StreamBinFileBase*>);

/// Shows what only deriving classes see.
class Writer : public StreamBinFileW {
public:
    using StreamBinFileW::checkWriteBufferConsistency;
    using StreamBinFileW::performFlush;
    using StreamBinFileW::performWrite;
    using StreamBinFileW::StreamBinFileW;

    bool isBlocking() const { return m_blocking; }
    uint32_t getFlags() const { return m_flags.getWord(); }
    unsigned int getBuffered() const { return m_end - m_pos; }
};

int writeOnce(IBinOutputStream& stream, std::string const& bytes, unsigned int expected_count) {
    unsigned int written = 12345;
    int const result = stream.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written);
    EXPECT_EQ(expected_count, written);
    return result;
}

class StreamBinFileWTest : public support::StreamFileTest {
protected:
    StreamBinFileWTest() : StreamFileTest("0123456789") {}
};

TEST_F(StreamBinFileWTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(2, getSlot(&StreamBinFileW::isValid));
    EXPECT_EQ(3, getSlot(&Writer::checkWriteBufferConsistency));
    EXPECT_EQ(4, getSlot(&Writer::performWrite));
    EXPECT_EQ(5, getSlot(&Writer::performFlush));
    EXPECT_EQ(6, getSlot(&StreamBinFileW::close));
    EXPECT_EQ(7, getSlot(&StreamBinFileW::seek));
}

TEST_F(StreamBinFileWTest, startsClosedBlockingAndUnbuffered) {
    Writer const file;
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.isBlocking());
    EXPECT_FALSE(file.isOutputBuffered());
    EXPECT_TRUE(Writer(16).isOutputBuffered());
}

// ---- open ----

TEST_F(StreamBinFileWTest, opensAPathInEachForm) {
    Writer file;
    EXPECT_FALSE(file.open(m_path.c_str(), file.WRITE));
    writeTo(file, "a");
    EXPECT_EQ(2U, file.getFlags());
    EXPECT_FALSE(file.open(m_path, file.WRITE | file.APPEND)) << "a string is borrowed";
    writeTo(file, "b");
    EXPECT_FALSE(file.open(UnicodeString(m_path.c_str()), WriteFlags(file.WRITE | file.APPEND)));
    writeTo(file, "c");
    EXPECT_FALSE(file.close());
    Directory const dir(m_folder.getPath(), true);
    EXPECT_FALSE(file.openAt(dir, "file", true, file.WRITE | file.APPEND));
    writeTo(file, "d");
    EXPECT_EQ("a123456789bcd", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, opensTheWriteEndOfAPipe) {
    Pipe pipe;
    Writer file;
    EXPECT_FALSE(file.open(pipe));
    EXPECT_EQ(-1, pipe.getWriteEnd());
    EXPECT_EQ(2U, file.getFlags());
    writeTo(file, "abc");
    char block[4] = {};
    EXPECT_EQ(3, read(pipe.getReadEnd(), block, sizeof block));
    EXPECT_STREQ("abc", block);
}

TEST_F(StreamBinFileWTest, failedOpenIsReportedAsInTheBase) {
    Writer file;
    Directory const dir(m_folder.getPath(), true);
    EXPECT_TRUE(file.open(m_path, file.WRITE | file.CREATE | file.EXCLUSIVE));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::IN_USE, rowText(SysErrorId::IN_USE, systemText(EEXIST))},
         {FileAccessError, FileAccessErrorId::ALREADY_EXISTS,
          rowText(FileAccessErrorId::ALREADY_EXISTS, m_path)}}));
    EXPECT_TRUE(file.openAt(dir, "file", true, WriteFlags(0x4AU)));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::IN_USE},
         {FileAccessError, FileAccessErrorId::ALREADY_EXISTS,
          rowText(FileAccessErrorId::ALREADY_EXISTS, "file")}}));
    EXPECT_FALSE(file.isValid());
}

TEST_F(StreamBinFileWTest, openWithoutAPathSucceedsAndStaysClosed) {
    Writer file;
    EXPECT_FALSE(file.open(nullptr, WriteFlags()));
    EXPECT_FALSE(file.open("", WriteFlags()));
    EXPECT_FALSE(file.open(std::string(), WriteFlags()));
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileWTest, fileThatIsMadeIsForOwnerAndGroup) {
    Writer file;
    mode_t const mask = umask(0);
    EXPECT_FALSE(file.open(m_folder / "new", file.WRITE | file.CREATE));
    EXPECT_EQ(0660U, file.getFileInfo().getAccess().getBits());
    EXPECT_FALSE(file.open(m_folder / "secret", file.WRITE | file.CREATE, vesk::FileAccess::owner_write));
    EXPECT_EQ(0200U, file.getFileInfo().getAccess().getBits());
    umask(mask);
}

TEST_F(StreamBinFileWTest, withoutMemoryForItsBufferItCannotBeOpened) {
    NewFault const fault(New::NOTHROW_ARRAY);
    Writer file(16);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_TRUE(file.open(m_path.c_str(), file.WRITE | file.TRUNCATE));
    EXPECT_TRUE(openIsRefused());
    EXPECT_TRUE(file.open(m_path, file.WRITE | file.TRUNCATE));
    EXPECT_TRUE(openIsRefused());
    Pipe pipe;
    EXPECT_TRUE(file.open(pipe));
    EXPECT_TRUE(openIsRefused());
    EXPECT_NE(-1, pipe.getWriteEnd());
    Directory const dir(m_folder.getPath(), true);
    EXPECT_TRUE(file.openAt(dir, "file", true, file.WRITE | file.TRUNCATE));
    EXPECT_TRUE(openIsRefused());
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("0123456789", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, flagsDecideWhetherItBlocks) {
    Writer file;
    EXPECT_FALSE(file.open(m_path, file.WRITE | file.NON_BLOCK));
    EXPECT_FALSE(file.isBlocking());
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    EXPECT_TRUE(file.isBlocking());
    EXPECT_FALSE(file.open(m_path, file.WRITE | file.NON_BLOCK));
    Pipe pipe;
    EXPECT_FALSE(file.open(pipe));
    EXPECT_TRUE(file.isBlocking()) << "a pipe always does";
    EXPECT_FALSE(file.open(m_path, file.WRITE | file.NON_BLOCK));
    EXPECT_FALSE(file.open(pipe));
    EXPECT_FALSE(file.isValid()) << "that end was taken";
    EXPECT_TRUE(file.isBlocking());
}

TEST_F(StreamBinFileWTest, reopeningFlushesTheOldFile) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    writeTo(file, "abc");
    EXPECT_EQ("0123456789", contentOf(m_path));
    std::string const other = m_folder.makeFile("other");
    EXPECT_FALSE(file.open(other, file.WRITE));
    EXPECT_EQ("abc3456789", contentOf(m_path));
    EXPECT_EQ(0U, file.getBuffered());
    EXPECT_EQ("", contentOf(other));
}

TEST_F(StreamBinFileWTest, reopeningStopsWhenTheOldFileCannotBeFlushed) {
    Writer file(16);
    std::string const other = m_folder.makeFile("other", "old");
    EXPECT_FALSE(file.open("/dev/full", file.WRITE));
    writeTo(file, "abc");
    EXPECT_TRUE(file.open(other, file.WRITE | file.TRUNCATE));
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("old", contentOf(other));
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ(0U, file.getBuffered()) << "what the old file did not take is dropped";
    EXPECT_FALSE(file.open(other, file.WRITE | file.TRUNCATE));
    EXPECT_FALSE(file.hadError());
    EXPECT_FALSE(file.close());
    EXPECT_EQ("", contentOf(other));
}

// ---- write ----

TEST_F(StreamBinFileWTest, writesThroughEachBuffer) {
    std::string bytes;
    for (int i = 0; i < 100; ++i) {
        bytes += std::to_string(i);
    }
    for (unsigned int const buffer : {0U, 1U, 5U, 16U, 1000U}) {
        for (unsigned int const size : {1U, 5U, 17U, 190U}) {
            Writer file(buffer);
            EXPECT_FALSE(file.open(m_path, file.WRITE | file.TRUNCATE));
            for (size_t at = 0; at < bytes.size(); at += size) {
                writeTo(file, bytes.substr(at, size));
                EXPECT_FALSE(file.hadError());
            }
            EXPECT_FALSE(file.close());
            EXPECT_EQ(bytes, contentOf(m_path)) << buffer << ", " << size;
        }
    }
}

TEST_F(StreamBinFileWTest, shortWriteIsContinuedByTheStreamAndNotByTheCall) {
    Writer file;
    EXPECT_FALSE(file.open(m_path, file.WRITE | file.TRUNCATE));
    support::s_file_calls.most = 2;
    Fault const calls(inject_write, 0);
    unsigned int written = 0;
    EXPECT_FALSE(file.performWrite("abcde", 5, written));
    EXPECT_EQ(2U, written);
    EXPECT_EQ(1, calls.getCalls());
    writeTo(file, "cde");
    EXPECT_EQ(3, calls.getCalls());
    support::s_file_calls.most = SIZE_MAX;
    EXPECT_EQ("abcde", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, fullPipeIsNoFailureInNonBlockingMode) {
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int const reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Writer file;
    EXPECT_FALSE(file.open(fifo, file.WRITE | file.NON_BLOCK));
    std::string const block(65536, 'x');
    for (unsigned int written = 1; written != 0;) {
        ASSERT_EQ(1, file.write(block.data(), 65536, written));
    }
    EXPECT_FALSE(file.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(1, writeOnce(file, "y", 0));
    close(reader);
}

TEST_F(StreamBinFileWTest, writeIsRepeatedWhileItIsInterrupted) {
    Writer file;
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    Fault const fault(inject_write, EINTR, 1, 3);
    writeTo(file, "ab");
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(file.hadError());
    EXPECT_EQ("ab23456789", contentOf(m_path));
    EXPECT_TRUE(chainIs({}));
}

class StreamBinFileWWrite : public testing::TestWithParam<Row> {};

TEST_P(StreamBinFileWWrite, failureTellsItsCauseAndWhatItMeansForTheStream) {
    Row const row = GetParam();
    for (unsigned int const buffer : {0U, 2U}) {
        Writer file(buffer);
        EXPECT_FALSE(file.open("/dev/null", file.WRITE));
        {
            Fault const fault(inject_write, row.error);
            EXPECT_EQ(-1, writeOnce(file, "abc", 0));
            EXPECT_EQ(1, fault.getCalls());
        }
        EXPECT_TRUE(streamFailureIs(row.error, row.cause, row.on_top));
        EXPECT_TRUE(file.hadError());
        EXPECT_TRUE(file.isValid());
        writeTo(file, "abc");
        EXPECT_FALSE(file.hadError());
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, StreamBinFileWWrite,
    testing::Values(
        Row{EIO, 11, 1}, Row{ENXIO, 16, 0}, Row{EBADF, 10, 0}, Row{EINVAL, 10, 0}, Row{EPIPE, 10, 0},
        Row{ERANGE, 10, 0}, Row{ENETDOWN, 10, 0}, Row{ENETUNREACH, 10, 0}, Row{ECONNRESET, 10, 0},
        Row{ENOMEM, 1, 1}, Row{EACCES, 7, 1}, Row{EFBIG, 8, 1}, Row{ENOSPC, 15, 1}, Row{ENOBUFS, 0, 1},
        Row{EFAULT, 19, 1}, Row{EDQUOT, 19, 1}, Row{EPERM, 19, 1}));

TEST_F(StreamBinFileWTest, writeThatWouldWaitIsNoFailure) {
    Writer file;
    EXPECT_FALSE(file.open(m_path, file.WRITE | file.NON_BLOCK));
    Fault const fault(inject_write, EAGAIN);
    EXPECT_EQ(1, writeOnce(file, "ab", 0));
    EXPECT_FALSE(file.hadError());
    EXPECT_TRUE(chainIs({}));
    writeTo(file, "ab");
}

TEST_F(StreamBinFileWTest, writingNothingSucceedsWithoutASystemCall) {
    for (unsigned int const buffer : {0U, 16U}) {
        Writer file(buffer);
        EXPECT_EQ(-1, writeOnce(file, "", 0));
        EXPECT_TRUE(closedFileIsTold("write"));
        EXPECT_TRUE(file.hadError());
        EXPECT_FALSE(file.open("/dev/full", file.WRITE));
        Fault const calls(inject_write, 0);
        EXPECT_EQ(1, writeOnce(file, "", 0));
        EXPECT_EQ(0, calls.getCalls());
        EXPECT_FALSE(file.hadError());
    }
}

TEST_F(StreamBinFileWTest, writeOnAClosedObjectFailsAndLeavesNothingBehind) {
    for (unsigned int const buffer : {0U, 16U}) {
        Writer file(buffer);
        Fault const calls(inject_write, 0);
        for (auto const& make_closed : std::initializer_list<std::function<bool()>>{
                 [] { return false; }, [&] { return file.open(m_path, file.WRITE) || file.close(); },
                 [&] { return !file.open(m_folder / "missing", file.WRITE); },
                 [&] { return file.open(m_path, file.WRITE) || !file.open("/missing/file", file.WRITE); },
                 [&] { return file.open("", file.WRITE); }}) {
            EXPECT_FALSE(make_closed());
            std::ErrorStorage::ack();
            for (int i = 0; i < 2; ++i) {
                EXPECT_EQ(-1, writeOnce(file, "ab", 0));
                EXPECT_TRUE(closedFileIsTold("write"));
                EXPECT_TRUE(file.hadError());
            }
        }
        EXPECT_EQ(0, calls.getCalls());
        EXPECT_FALSE(file.open(m_path, file.WRITE));
        EXPECT_FALSE(file.close());
        EXPECT_EQ("0123456789", contentOf(m_path));
    }
}

TEST_F(StreamBinFileWTest, closeWhoseFlushFailsLeavesNothingBehind) {
    Writer file(16);
    EXPECT_FALSE(file.open("/dev/full", file.WRITE));
    writeTo(file, "ab");
    EXPECT_TRUE(file.close());
    std::ErrorStorage::ack();
    EXPECT_EQ(-1, writeOnce(file, "cd", 0));
    EXPECT_TRUE(closedFileIsTold("write"));
    EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.WRITE, vesk::FileAccess::none));
    EXPECT_FALSE(file.close());
    EXPECT_EQ("0123456789", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, hadErrorTellsTheOutcomeOfTheWholeOperation) {
    Writer file(16);
    EXPECT_FALSE(file.open("/dev/full", file.WRITE));
    writeTo(file, "ab");
    EXPECT_TRUE(file.flush(true));
    EXPECT_TRUE(file.hadError());
    writeTo(file, "c");
    EXPECT_FALSE(file.hadError()) << "it is in the buffer";
    EXPECT_TRUE(file.seek(0, file.Begin, m_position));
    EXPECT_TRUE(file.hadError());
    EXPECT_TRUE(file.open(m_path, file.WRITE)) << "the old one is not flushed";
    EXPECT_TRUE(file.hadError());
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.hadError());
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        Writer unbuffered(16);
        EXPECT_TRUE(unbuffered.open(m_path, file.WRITE));
        EXPECT_TRUE(unbuffered.hadError());
    }
    std::ErrorStorage::ack();
}

/// The write end of a full pipe that does not wait.
class FullPipe {
public:
    FullPipe() {
        int const fd = m_pipe.getWriteEnd();
        fcntl(fd, F_SETFL, O_NONBLOCK);
        while (::write(fd, m_page, sizeof m_page) > 0) {
            m_bytes += sizeof m_page;
        }
    }

    Pipe& getPipe() { return m_pipe; }

    /// Reads what it was filled with.
    void drain() {
        for (size_t left = m_bytes; left != 0;) {
            ssize_t const count = ::read(m_pipe.getReadEnd(), m_page, std::min(left, sizeof m_page));
            ASSERT_GT(count, 0);
            left -= static_cast<size_t>(count);
        }
    }

private:
    Pipe m_pipe;
    char m_page[4096] = {};
    size_t m_bytes = 0;
};

TEST_F(StreamBinFileWTest, hadErrorTellsThatASinkDidNotTakeWhatAFlushOrSeekPassesOn) {
    FullPipe full;
    class NonBlocking : public Writer {
    public:
        NonBlocking() : Writer(16) {}
        void setNonBlocking() { m_blocking = false; }
    } file;
    EXPECT_FALSE(file.open(full.getPipe()));
    file.setNonBlocking();
    for (auto const& refused : std::initializer_list<std::function<bool()>>{
             [&] { return file.flush(true); }, [&] { return file.flush(false); },
             [&] { return file.seek(0, file.Current, m_position); }}) {
        writeTo(file, "a");
        EXPECT_FALSE(file.hadError());
        EXPECT_TRUE(refused());
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_TRUE(file.hadError());
    }
    EXPECT_EQ(1, writeOnce(file, std::string(16, 'b'), 13)) << "no failure of a write";
    EXPECT_FALSE(file.hadError());
    full.drain();
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.hadError());
}

TEST_F(StreamBinFileWTest, blockingOneWaitsForASinkThatDoesNot) {
    FullPipe full;
    Writer file;
    EXPECT_FALSE(file.open(full.getPipe()));
    Fault const waits(inject_poll, 0, 1, 1, Fault::Threads::ALL);
    Fault const writes(inject_write, 0, 1, 1, Fault::Threads::ALL);
    std::thread reader([&] {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (waits.getCalls() == 0 && std::chrono::steady_clock::now() < deadline) {
            sched_yield();
        }
        full.drain();
    });
    writeTo(file, std::string(100, 'x'));
    reader.join();
    EXPECT_NE(0, waits.getCalls());
    EXPECT_LE(writes.getCalls(), waits.getCalls() + 1) << "one wait for each write that was refused";
    EXPECT_FALSE(file.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileWTest, whatTheSystemDoesNotWriteIsReported) {
    signal(SIGPIPE, SIG_IGN);
    Writer file;
    Pipe pipe;
    EXPECT_FALSE(file.open(pipe));
    EXPECT_FALSE(pipe.closeReadEnd());
    EXPECT_EQ(-1, writeOnce(file, "a", 0));
    EXPECT_TRUE(streamFailureIs(EPIPE, 10, 0));
    EXPECT_FALSE(file.open("/dev/full", file.WRITE));
    EXPECT_EQ(-1, writeOnce(file, "a", 0));
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_FALSE(file.open(m_path, WriteFlags(file.READ)));
    EXPECT_EQ(-1, writeOnce(file, "a", 0));
    EXPECT_TRUE(streamFailureIs(EBADF, 10, 0));
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    close(file.getDescriptor());
    EXPECT_EQ(-1, writeOnce(file, "a", 0));
    EXPECT_TRUE(streamFailureIs(EBADF, 10, 0));
    support::EventRecorder const events;
    EXPECT_TRUE(file.close());
    std::ErrorStorage::ack();
}

TEST_F(StreamBinFileWTest, fileThatGetsTooLargeIsNotWritten) {
    auto const end = support::runInChild([&] {
        support::limitFileSize(4);
        Writer file;
        EXPECT_FALSE(file.open(m_path, file.WRITE | file.TRUNCATE));
        EXPECT_EQ(-1, writeOnce(file, "abcdef", 4));
        EXPECT_TRUE(streamFailureIs(EFBIG, 8, 1));
        EXPECT_EQ("abcd", contentOf(m_path));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(StreamBinFileWTest, fullFileSystemIsReportedAndWhatFitsIsWritten) {
    constexpr int NO_RIGHT = 77;
    std::string const mount_point = m_folder.makeFolder("mount");
    auto const end = support::runInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", mount_point.c_str(), "tmpfs", 0, "size=64k") != 0) {
            _exit(NO_RIGHT);
        }
        Writer file;
        EXPECT_FALSE(file.open(mount_point + "/file", file.WRITE | file.CREATE));
        std::string const block(100000, 'x');
        EXPECT_EQ(-1, writeOnce(file, block, 65536));
        EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
        EXPECT_EQ(65536, file.getFileInfo().getSize());
    });
    if (end.exit_code == NO_RIGHT) {
        GTEST_SKIP() << "mounting needs a privilege";
    }
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(StreamBinFileWTest, hookOfAFileWithOneDirectionDoesNothing) {
    Writer file(4);
    EXPECT_FALSE(file.checkWriteBufferConsistency());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileWTest, writeIsOneSystemCallWithoutAnAllocation) {
    if (!support::COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    StreamBinFileW file;
    EXPECT_FALSE(file.open("/dev/null", file.WRITE));
    Fault const calls(inject_write, 0);
    Fault const syncs(inject_fsync, 0);
    support::AllocationCounter const counter;
    char const block[64] = {};
    unsigned int written = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(1, file.write(block, sizeof block, written));
    }
    EXPECT_EQ(10, calls.getCalls());
    EXPECT_EQ(0, syncs.getCalls());
    StreamBinFileW broken;
    EXPECT_EQ(-1, broken.write(block, sizeof block, written));
    std::ErrorStorage::ack();
    EXPECT_EQ(0, counter.getCount());
}

// ---- flush ----

TEST_F(StreamBinFileWTest, flushPutsTheDataOnTheMedium) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    writeTo(file, "abc");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.flush(true));
    EXPECT_EQ("abc3456789", contentOf(m_path));
    EXPECT_EQ(0, syncs.getCalls()) << "the system alone was wanted";
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_FALSE(file.hadError());
}

TEST_F(StreamBinFileWTest, flushOfWhatHasNoMediumSucceeds) {
    Pipe pipe;
    Writer file(16);
    EXPECT_FALSE(file.open(pipe));
    writeTo(file, "abc");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_FALSE(file.hadError());
    EXPECT_TRUE(chainIs({}));
    char block[4] = {};
    EXPECT_EQ(3, read(pipe.getReadEnd(), block, sizeof block));
}

class StreamBinFileWUnsynchronised : public testing::TestWithParam<int> {};

TEST_P(StreamBinFileWUnsynchronised, flushSucceeds) {
    Writer file;
    EXPECT_FALSE(file.open("/dev/null", file.WRITE));
    Fault const fault(inject_fsync, GetParam());
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(file.hadError());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(errors, StreamBinFileWUnsynchronised, testing::Values(EINVAL, ENOSYS));

TEST_F(StreamBinFileWTest, flushIsRepeatedWhileItIsInterrupted) {
    Writer file;
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    Fault const fault(inject_fsync, EINTR, 1, 3);
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

class StreamBinFileWFlush : public testing::TestWithParam<Row> {};

TEST_P(StreamBinFileWFlush, failureTellsItsCauseAndWhatItMeansForTheStream) {
    Row const row = GetParam();
    Writer file;
    EXPECT_FALSE(file.open("/dev/null", file.WRITE));
    {
        Fault const fault(inject_fsync, row.error);
        EXPECT_TRUE(file.flush(false));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(streamFailureIs(row.error, row.cause, row.on_top));
    EXPECT_TRUE(file.hadError());
    EXPECT_FALSE(file.performFlush());
    EXPECT_FALSE(file.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    rows, StreamBinFileWFlush,
    testing::Values(
        Row{EIO, 11, 1}, Row{EBADF, 10, 0}, Row{ENOSPC, 19, 4}, Row{EDQUOT, 19, 4}, Row{EROFS, 19, 4}));

TEST_F(StreamBinFileWTest, flushOnAClosedObjectFails) {
    Writer file;
    Fault const calls(inject_fsync, 0);
    EXPECT_TRUE(file.flush(false));
    EXPECT_TRUE(closedFileIsTold("flush"));
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ(0, calls.getCalls());
}

// ---- close ----

TEST_F(StreamBinFileWTest, closeFlushesFirst) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    int const fd = file.getDescriptor();
    writeTo(file, "abc");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.close());
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ("abc3456789", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, closeOfAClosedObjectDoesNothing) {
    Writer file(16);
    Fault const closes(inject_close, 0);
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.close());
    EXPECT_EQ(0, closes.getCalls());
    EXPECT_EQ(0, syncs.getCalls());
}

TEST_F(StreamBinFileWTest, closeClosesTheFileAlsoWhenItCannotBeFlushed) {
    Writer file(16);
    EXPECT_FALSE(file.open("/dev/full", file.WRITE));
    int const fd = file.getDescriptor();
    writeTo(file, "abc");
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_FALSE(file.isValid());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(file.hadError()) << "although the last step succeeded";
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.hadError());
}

TEST_F(StreamBinFileWTest, closeFailsWhenTheDescriptorCannotBeClosed) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    writeTo(file, "abc");
    {
        Fault const fault(inject_close, EIO);
        EXPECT_TRUE(file.close());
    }
    EXPECT_TRUE(failureIs(EIO, 11));
    EXPECT_TRUE(file.isValid());
    EXPECT_EQ("abc3456789", contentOf(m_path)) << "it was flushed";
    Fault const syncs(inject_fsync, EIO);
    Fault const closes(inject_close, EIO);
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(failureIs(EIO, 11)) << "of two failures the second is told";
}

// ---- seek ----

TEST_F(StreamBinFileWTest, seekPutsWhatIsWrittenBeforeIt) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    writeTo(file, "ab");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.seek(0, file.Current, m_position));
    EXPECT_EQ(2U, m_position);
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_EQ("ab23456789", contentOf(m_path));
    EXPECT_FALSE(file.seek(-1, file.End, m_position));
    EXPECT_EQ(9U, m_position);
    EXPECT_EQ(1, syncs.getCalls()) << "there was nothing to flush";
    writeTo(file, "X");
    StreamBinFileBase& base = file;
    EXPECT_FALSE(base.seek(4, file.Begin, m_position));
    writeTo(file, "Y");
    EXPECT_FALSE(file.close());
    EXPECT_EQ("ab23Y5678X", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, seekStopsWhileSomethingIsLeftInTheBuffer) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    writeTo(file, "ab");
    Fault const seeks(inject_lseek, 0);
    {
        Fault const fault(inject_write, ENOSPC);
        EXPECT_TRUE(file.seek(5, file.Begin, m_position));
    }
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_EQ(0, seeks.getCalls());
    EXPECT_EQ(2U, file.getBuffered());
    EXPECT_FALSE(file.seek(5, file.Begin, m_position)) << "it may be tried again";
    EXPECT_EQ("ab23456789", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, seekGoesOnWhenOnlyTheMediumFails) {
    Writer file(16);
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    writeTo(file, "ab");
    Fault const fault(inject_fsync, EIO);
    EXPECT_FALSE(file.seek(5, file.Begin, m_position));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_EQ(5U, m_position);
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_EQ("ab23456789", contentOf(m_path));
}

TEST_F(StreamBinFileWTest, seekOnAPipeFailsBehindTheFlush) {
    Pipe pipe;
    Writer file(16);
    EXPECT_FALSE(file.open(pipe));
    writeTo(file, "abc");
    EXPECT_TRUE(file.seek(0, file.Current, m_position));
    EXPECT_TRUE(failureIs(ESPIPE, 10));
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ(0U, file.getBuffered());
    char block[4] = {};
    EXPECT_EQ(3, read(pipe.getReadEnd(), block, sizeof block));
}

// ---- the end of the object ----

TEST_F(StreamBinFileWTest, destructorFlushesAndClosesThroughEveryBase) {
    auto const expect = [this](std::string const& bytes, auto const& destroy) {
        auto* const file = new StreamBinFileW(16);
        EXPECT_FALSE(file->open(m_path, file->WRITE | file->TRUNCATE));
        int const fd = file->getDescriptor();
        writeTo(*file, bytes);
        Fault const syncs(inject_fsync, 0);
        destroy(file);
        EXPECT_EQ(1, syncs.getCalls());
        EXPECT_FALSE(isOpen(fd));
        EXPECT_EQ(bytes, contentOf(m_path));
    };
    support::EventRecorder const events;
    expect("a", [](StreamBinFileW* file) { delete file; });
    expect("b", [](IBinOutputStream* file) { delete file; });
    expect("c", [](IBinStreamBase* file) { delete file; });
    expect("d", [](StreamBinFileBase* file) { delete file; });
    expect("e", [](BinFileBase* file) { delete file; });
    { StreamBinFileW const closed; }
    EXPECT_EQ("", events.getText());
}

constexpr char const* WARNING =
    "WARNING framework/src/vesk/posix/StreamBinFileW ~StreamBinFileW: Error closing BinFileW";

TEST_F(StreamBinFileWTest, destructorWarnsAboutAFailedFlushAndClosesAllTheSame) {
    support::EventRecorder const events;
    int fd = -1;
    {
        StreamBinFileW file(16);
        EXPECT_FALSE(file.open("/dev/full", file.WRITE));
        fd = file.getDescriptor();
        writeTo(file, "abc");
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(WARNING, events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
}

TEST_F(StreamBinFileWTest, destructorWarnsAboutAFailedClose) {
    support::EventRecorder const events;
    Fault const flushes(inject_fsync, EINVAL);
    {
        StreamBinFileW file(16);
        EXPECT_FALSE(file.open(m_path, file.WRITE));
        close(file.getDescriptor());
    }
    EXPECT_EQ(1, flushes.getCalls());
    EXPECT_EQ(WARNING, events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileWTest, destructorLeavesAFileThatStaysOpenToItsBase) {
    auto const end = support::runInChild([&] {
        support::EventRecorder const events;
        {
            auto* const file = new StreamBinFileW;
            EXPECT_FALSE(file->open(m_path, file->WRITE));
            Fault const fault(inject_close, EIO, 1, Fault::FOREVER);
            delete file;
            EXPECT_EQ(2, fault.getCalls());
        }
        EXPECT_EQ(WARNING, events.getText());
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("~BinFileBase|Warning: Error closing BinFile: ")) << end.errors;
}

TEST_F(StreamBinFileWTest, destructorOfAnObjectWithoutItsBufferOnlyCloses) {
    support::EventRecorder const events;
    int fd = -1;
    Fault const syncs(inject_fsync, 0);
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        StreamBinFileW file(16);
        std::ErrorStorage::ack();
        EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.WRITE, vesk::FileAccess::none));
        EXPECT_FALSE(file.isValid());
        fd = file.getDescriptor();
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(0, syncs.getCalls());
    EXPECT_EQ("", events.getText());
}

} // namespace
