#include "StreamFiles.h"
#include "support/Processes.h"

#include <poll.h>
#include <random>

VESK_INJECT_ERRNO(int, -1, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))

namespace {

using namespace support;

static_assert(std::is_convertible_v<StreamBinFileR*, IBinInputStream*>);
static_assert(std::is_convertible_v<StreamBinFileR*, StreamBinFileBase*>);
static_assert(std::is_convertible_v<StreamBinFileW*, IBinOutputStream*>);
static_assert(std::is_convertible_v<StreamBinFileW*, StreamBinFileBase*>);

/// Files that read or write a pipe.
class StreamPipe : public StreamSuite<StreamBinFileBase> {
protected:
    StreamPipe() {
        auto& verbs = m_steps.verbs;
        verbs["pipe"] = m_steps.operation([this](Words const&) { return openPipe(*m_file); });
        verbs["fill"] = Steps::check([this](Words const& words) { fill(m_pipe, words[1]); });
        verbs["drain"] = Steps::check([this](Words const& words) { EXPECT_EQ(words[1], drain(m_pipe)); });
        verbs["hangup"] = Steps::check([this](Words const&) { EXPECT_FALSE(m_pipe.closeWriteEnd()); });
    }

    bool openPipe(StreamBinFileBase& file) {
        return m_class.isReader() ? dynamic_cast<StreamBinFileR&>(file).open(m_pipe)
                                  : dynamic_cast<StreamBinFileW&>(file).open(m_pipe);
    }
    int getEnd() const { return m_class.isReader() ? m_pipe.getReadEnd() : m_pipe.getWriteEnd(); }

    Pipe m_pipe;
};

TEST_P(StreamPipe, movesItsEndIntoTheFileWhichClosesTheOldFileAndBlocks) {
    StreamBinFileBase& file = open(m_class.isReader() ? 0 : 16, m_path, BinFileBase::NON_BLOCK);
    int const old = file.getDescriptor();
    runOn(file, {"pipe", "blocks"});
    EXPECT_FALSE(isOpen(old));
    EXPECT_EQ(-1, getEnd());
    EXPECT_EQ(m_class.direction, Reading::getFlags(file));
    if (m_class.isReader()) {
        fill(m_pipe, "abc");
        runOn(file, {"read 10 abc", "hangup", "read 10 ENDS"});
    } else {
        runOn(file, {"write abc", "count fsync", "sync", "calls fsync 1", "drain abc"});
    }
    runOn(file, {"open file nonblock", "pipe", "invalid", "blocks"});
}

TEST_P(StreamPipe, keepsItsEndIfTheFileHasNoBuffer) {
    NewFault const fault(New::NOTHROW_ARRAY);
    StreamBinFileBase& file = make(16);
    std::ErrorStorage::ack();
    EXPECT_TRUE(openPipe(file));
    EXPECT_TRUE(isContractBroken("Attempted open on invalid object"));
    EXPECT_NE(-1, getEnd());
}

TEST_P(StreamPipe, failedSeekHasEmptiedTheBuffer) {
    if (m_class.isReader()) {
        run(8,
            {"fill abcd", "pipe", "read 1 a", "seek current 0 FAILS SPOILED_INTEGRITY ESPIPE", "ahead 0",
             "fill e", "read 1 e"});
    } else {
        run(16,
            {"pipe", "write abc", "seek current 0 FAILS SPOILED_INTEGRITY ESPIPE", "buffered 0",
             "drain abc"});
    }
}

INSTANTIATE_TEST_SUITE_P(classes, StreamPipe, testing::Values(READER, WRITER), nameOf);

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

TEST_F(StreamBinFileRTest, flagsWithWriteBitsOpenForWriting) {
    EXPECT_FALSE(m_file.open(m_path.c_str(), BinFileBase::ReadFlags(m_file.READ_WRITE)));
    EXPECT_EQ(1, write(m_file.getDescriptor(), "X", 1));
    EXPECT_EQ("X123456789abcdef", contentOf(m_path));
    EXPECT_EQ(0, fcntl(m_file.getDescriptor(), F_GETFL) & O_NONBLOCK);
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

TEST_F(StreamBinFileRTest, fileThatIsOnlyOpenForWritingIsNotRead) {
    EXPECT_FALSE(m_file.open(m_path, BinFileBase::ReadFlags(m_file.WRITE)));
    EXPECT_EQ("", readFrom(m_file, 2, -1));
    EXPECT_TRUE(hasFailed(m_file, SysErrorId::SPOILED_INTEGRITY, EBADF, StreamErrorId::UNUSABLE));
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
        EXPECT_TRUE(hasFailed(file, AT_END));
    }
}

TEST_P(StreamRead, readOf0BytesOrUnavailableDataIsNoFailure) {
    m_folder.makeFile("empty");
    for (unsigned int const buffer_size : {0U, 4U}) {
        run(buffer_size,
            {"read 0 FAILS CLOSED", "open empty", "read 1 ENDS", "count read", "read 0", "calls read 0",
             "open file", "fail read EAGAIN", "read 2", "read 2 01"});
    }
}

TEST_P(StreamRead, performReadStartsWithACountOf0AndTheHookBeforeItSucceeds) {
    StreamBinFileR& file = make();
    char block[4];
    unsigned int count = 12345;
    EXPECT_TRUE((file.*(&Reading::performRead))(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(hasFailed(file, closedFor("read")));
    EXPECT_FALSE(reopen(file, m_path));
    EXPECT_FALSE((file.*(&Reading::performRead))(block, sizeof block, count));
    EXPECT_EQ(4U, count);
    Fault const fault(inject_read, EAGAIN);
    EXPECT_FALSE((file.*(&Reading::performRead))(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_FALSE((file.*(&Reading::checkReadBufferConsistency))());
}

TEST_P(StreamRead, openDiscardsTheReadAhead) {
    run(8, {"open file", "read 1 0", "ahead 7", "open file", "ahead 0"});
}

TEST_P(StreamRead, seekCountsFromTheReadersPositionAndDiscardsTheReadAhead) {
    run(10, {"open file", "read 3 012", "seek current 0 3",   "offset -7",
             "ahead 0",   "read 1 3",   "seek current 2 6",   "offset -7",
             "ahead 0",   "read 1 6",   "seek current -7 0",  "offset -16",
             "ahead 0",   "read 1 0",   "seek begin 5 5",     "offset 5",
             "ahead 0",   "read 1 5",   "seek end -2 14",     "offset -2",
             "ahead 0",   "read 1 e",   "seek current -1 14", "offset -2",
             "ahead 0",   "read 1 e",   "read 10 f",          "seek current -1 15",
             "offset -1"});
}

TEST_P(StreamRead, adjustedOffsetWrapsAround) {
    static_assert(INT_MAX - 6 == 2147483641);
    run(10,
        {"open file", "read 3 012", "seek current -2147483648 FAILS SPOILED_INTEGRITY EOVERFLOW",
         "offset 2147483641"});
}

INSTANTIATE_TEST_SUITE_P(classes, StreamRead, testing::Values(READER, BOTH), nameOf);

class StreamBinFileRSteps : public StreamTest<StreamBinFileR> {
protected:
    StreamBinFileRSteps() : StreamTest(READER) {}
};

TEST_F(StreamBinFileRSteps, sourceThatTheSystemDoesNotReadIsReported) {
    run(0,
        {"open .", "read 2 FAILS INVALID_PATH EISDIR TRANSFER_FAILED", "open file", "lose",
         "read 2 FAILS SPOILED_INTEGRITY EBADF UNUSABLE", "close FAILS SPOILED_INTEGRITY EBADF"});
}

TEST_F(StreamBinFileRSteps, emptyFifoIsNoFailureInNonBlockingMode) {
    ASSERT_EQ(0, mkfifo(m_missing.c_str(), 0600));
    StreamBinFileR& file = run(8, {"open missing nonblock"});
    int const writer = ::open(m_missing.c_str(), O_WRONLY | O_CLOEXEC);
    runOn(file, {"read 4", "read 100"});
    ASSERT_EQ(2, write(writer, "ab", 2));
    runOn(file, {"read 4 ab"});
    close(writer);
    runOn(file, {"read 4 ENDS"});
}

TEST_F(StreamBinFileRSteps, closeKeepsTheReadAhead) {
    run(4, {"open file", "read 1 0", "close", "invalid", "read 10 123", "read 10 FAILS CLOSED"});
}

/// The write end of a full pipe that does not wait.
class FullPipe {
public:
    FullPipe() {
        int const fd = pipe.getWriteEnd();
        fcntl(fd, F_SETFL, O_NONBLOCK);
        while (::write(fd, m_page, sizeof m_page) > 0) {
            m_bytes += sizeof m_page;
        }
    }

    /// Reads everything that the constructor wrote.
    void drain() {
        for (size_t left = m_bytes; left != 0;) {
            ssize_t const count = ::read(pipe.getReadEnd(), m_page, std::min(left, sizeof m_page));
            ASSERT_GT(count, 0);
            left -= static_cast<size_t>(count);
        }
    }

    Pipe pipe;

private:
    char m_page[4096] = {};
    size_t m_bytes = 0;
};

class StreamBinFileWTest : public FileTest {
protected:
    StreamBinFileW m_file{16};
    Pipe m_pipe;
};

TEST_F(StreamBinFileWTest, hadErrorReportsThatASinkRefusedTheDataOfAFlushOrSeek) {
    FullPipe full;
    EXPECT_FALSE(m_file.open(full.pipe));
    Reading::getBlocking(m_file) = false;
    for (auto const& refused : std::initializer_list<std::function<bool()>>{
             [&] { return m_file.flush(true); }, [&] { return m_file.flush(false); },
             [&] { return m_file.seek(0, m_file.Current, m_position); }}) {
        writeTo(m_file, "a");
        EXPECT_FALSE(m_file.hadError());
        EXPECT_TRUE(refused());
        EXPECT_TRUE(hasFailed(m_file, {{StreamErrorId::TRANSFER_FAILED}}));
    }
    EXPECT_EQ(1, writeOnce(m_file, std::string(16, 'b'), 13)) << "no failure of a write";
    EXPECT_FALSE(m_file.hadError());
    full.drain();
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.hadError());
}

TEST_F(StreamBinFileWTest, blockingFileWaitsForASinkThatDoesNotBlock) {
    FullPipe full;
    StreamBinFileW file;
    EXPECT_FALSE(file.open(full.pipe));
    Fault const waits(inject_poll, 0, 1, 1, Fault::Threads::ALL);
    Fault const writes(inject_write, 0, 1, 1, Fault::Threads::ALL);
    std::thread reader([&] {
        EXPECT_TRUE(eventually([&waits] { return waits.getCalls() != 0; }));
        full.drain();
    });
    writeTo(file, std::string(100, 'x'));
    reader.join();
    EXPECT_LE(writes.getCalls(), waits.getCalls() + 1) << "one wait for each write that was refused";
    EXPECT_FALSE(file.hadError());
}

TEST_F(StreamBinFileWTest, sinkThatTheSystemDoesNotWriteIsReported) {
    signal(SIGPIPE, SIG_IGN);
    StreamBinFileW file;
    auto const fails = [&file](int error) {
        EXPECT_EQ(-1, writeOnce(file, "a", 0));
        return hasFailed(file, SysErrorId::SPOILED_INTEGRITY, error, StreamErrorId::UNUSABLE);
    };
    EXPECT_FALSE(file.open(m_pipe));
    EXPECT_FALSE(m_pipe.closeReadEnd());
    EXPECT_TRUE(fails(EPIPE));
    EXPECT_FALSE(file.open(m_path, BinFileBase::WriteFlags(file.READ)));
    EXPECT_TRUE(fails(EBADF));
    EXPECT_FALSE(file.open(m_path, file.WRITE));
    close(file.getDescriptor());
    EXPECT_TRUE(fails(EBADF));
    EXPECT_TRUE(file.close());
    std::ErrorStorage::ack();
    EXPECT_FALSE(file.open("/dev/full", file.WRITE));
    EXPECT_EQ(-1, writeOnce(file, "a", 0));
    EXPECT_TRUE(hasFailed(file, FULL_DISK));
}

class StreamWrite : public StreamSuite<StreamBinFileW> {
protected:
    std::string m_warning = "WARNING framework/src/vesk/posix/" + GetParam().name + " ~" + GetParam().name +
        ": Error closing BinFileW";
    std::string m_other = m_folder.makeFile("other", "old");
    std::string m_content = contentOf(m_path);
};

TEST_P(StreamWrite, reopeningFlushesTheOldFileAndStopsIfThatFails) {
    run(16,
        {"open file", "write abc", "content file 0123456789abcdef", "open other",
         "content file abc3456789abcdef", "buffered 0", "content other old"});
    run(16,
        {"open /dev/full", "write abc", "open other truncate FAILS NO_SPACE ENOSPC TRANSFER_FAILED",
         "invalid", "content other old", "buffered 0", "open other truncate", "close", "content other"});
}

TEST_P(StreamWrite, writesThroughEachBuffer) {
    std::string bytes;
    for (int i = 0; i < 100; ++i) {
        bytes += std::to_string(i);
    }
    for (unsigned int const buffer_size : {0U, 1U, 5U, 16U, 1000U}) {
        for (unsigned int const size : {1U, 5U, 17U, 190U}) {
            StreamBinFileW& file = open(buffer_size, m_path, BinFileBase::TRUNCATE);
            for (size_t at = 0; at < bytes.size(); at += size) {
                writeTo(file, bytes.substr(at, size));
                EXPECT_FALSE(file.hadError());
            }
            EXPECT_FALSE(file.close());
            EXPECT_EQ(bytes, contentOf(m_path)) << buffer_size << ", " << size;
        }
    }
}

TEST_P(StreamWrite, shortWriteIsContinuedByTheStreamAndNotByTheCall) {
    StreamBinFileW& file = open(0, m_path, BinFileBase::TRUNCATE);
    s_file_calls.most = 2;
    Calls const writes(inject_write, 3);
    Calls const no_syncs(inject_fsync, 0);
    unsigned int written = 0;
    EXPECT_FALSE((file.*(&Writing::checkWriteBufferConsistency))());
    EXPECT_FALSE((file.*(&Writing::performWrite))("abcde", 5, written));
    EXPECT_EQ(2U, written) << "after one call";
    writeTo(file, "cde");
    s_file_calls.most = SIZE_MAX;
    EXPECT_EQ("abcde", contentOf(m_path));
}

TEST_P(StreamWrite, sinkThatIsFullIsNoFailureInNonBlockingMode) {
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int const reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    StreamBinFileW& file = open(0, fifo, BinFileBase::NON_BLOCK);
    std::string const block(65536, 'x');
    for (unsigned int written = 1; written != 0;) {
        ASSERT_EQ(1, file.write(block.data(), 65536, written));
    }
    EXPECT_TRUE(hasNoError(file));
    EXPECT_EQ(1, writeOnce(file, "y", 0));
    close(reader);
    EXPECT_FALSE(reopen(file, m_path, file.NON_BLOCK));
    Fault const fault(inject_write, EAGAIN);
    EXPECT_EQ(1, writeOnce(file, "ab", 0));
    EXPECT_TRUE(hasNoError(file));
    writeTo(file, "ab");
}

TEST_P(StreamWrite, writeOf0BytesSucceedsWithoutASystemCall) {
    for (unsigned int const buffer_size : {0U, 16U}) {
        run(buffer_size, {"write FAILS CLOSED", "open /dev/full", "count write", "write", "calls write 0"});
    }
}

TEST_P(StreamWrite, writeOnAClosedObjectFailsAndBuffersNothing) {
    std::vector<StepList> const ways_to_close = {
        {},
        {"open file", "close"},
        {"open missing FAILS INVALID_PATH ENOENT BAD_PATH"},
        {"open file", "open /missing/file FAILS INVALID_PATH ENOENT BAD_PATH"},
        {"open"}};
    for (unsigned int const buffer_size : {0U, 16U}) {
        StreamBinFileW& file = make(buffer_size);
        for (auto const& steps : ways_to_close) {
            runOn(file, steps);
            runOn(file, {"count write", "write ab FAILS CLOSED", "write ab FAILS CLOSED", "calls write 0"});
        }
        runOn(file, {"count write", "open file", "close", "calls write 0", "content file 0123456789abcdef"});
    }
}

TEST_P(StreamWrite, hadErrorReportsTheResultOfTheWholeOperation) {
    run(16,
        {"open /dev/full", "write ab", "flush FAILS NO_SPACE ENOSPC TRANSFER_FAILED", "write c",
         "seek begin 0 FAILS NO_SPACE ENOSPC TRANSFER_FAILED",
         "open file FAILS NO_SPACE ENOSPC TRANSFER_FAILED", "close"});
}

TEST_P(StreamWrite, fileIsNotWrittenBeyondTheLimitOfItsSize) {
    expectInChild([&] {
        limitFileSize(4);
        run(0,
            {"open file truncate", "write abcdef 4 FAILS INVALID_PARAMETER EFBIG TRANSFER_FAILED",
             "content file abcd"});
    });
}

TEST_P(StreamWrite, fullFileSystemIsReportedAndWhatFitsIsWritten) {
    std::string const mount_point = m_folder.makeFolder("mount");
    bool const mounted = runWithMount(mount_point, "size=64k", [&] {
        StreamBinFileW& file = open(0, mount_point + "/file", BinFileBase::CREATE);
        EXPECT_EQ(-1, writeOnce(file, std::string(100000, 'x'), 65536));
        EXPECT_TRUE(hasFailed(file, FULL_DISK));
        EXPECT_EQ(65536, file.getFileInfo().getSize());
    });
    if (!mounted) {
        GTEST_SKIP() << "mounting needs a privilege";
    }
}

TEST_P(StreamWrite, flushWritesTheDataToTheMediumUnlessOnlyTheBufferIsRequested) {
    run(16,
        {"open file", "write abc", "count fsync", "flush", "content file abc3456789abcdef", "calls fsync 0",
         "count fsync", "sync", "calls fsync 1"});
}

TEST_P(StreamWrite, closeFlushesFirstAndFailsWhenTheDescriptorCannotBeClosed) {
    run(16,
        {"open file", "write abc", "count fsync", "close", "calls fsync 1", "content file abc3456789abcdef",
         "count close", "close", "calls close 0"});
    m_folder.makeFile("file", m_content);
    run(16,
        {"open file", "write abc", "fail close EIO 2", "close FAILS INPUT_OUTPUT EIO", "valid",
         "content file abc3456789abcdef", // It was flushed.
         "fail fsync EIO", "close FAILS INPUT_OUTPUT EIO"});
}

TEST_P(StreamWrite, closeClosesAFileThatCannotBeFlushedAndLeavesNothingForTheNextOne) {
    StreamBinFileW& file =
        run(16,
            {"open /dev/full", "write abc", "close FAILS NO_SPACE ENOSPC TRANSFER_FAILED", "invalid", "close",
             "write cd FAILS CLOSED"});
    EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.READ_WRITE, FileAccess::none));
    runOn(file, {"close", "content file 0123456789abcdef"});
}

TEST_P(StreamWrite, seekWritesTheBufferFirstAndStopsOnlyWhileDataIsLeft) {
    run(16,
        {"open file", "write ab", "count fsync", "seek current 0 2", "calls fsync 1",
         "content file ab23456789abcdef", "count fsync", "seek end -1 15", "calls fsync 0", "write X",
         "seek begin 4 4", "write Y", "close", "content file ab23Y56789abcdeX"});
    m_folder.makeFile("file", "0123456789abcdef");
    run(16,
        {"open file", "write ab", "count lseek", "fail write ENOSPC",
         "seek begin 5 FAILS NO_SPACE ENOSPC TRANSFER_FAILED", "buffered 2", "seek begin 5 5",
         "calls lseek 1", "content file ab23456789abcdef"});
    m_folder.makeFile("file", "0123456789abcdef");
    run(16,
        {"open file", "write ab", "fail fsync EIO", "seek begin 5 5", "calls fsync 1",
         "content file ab23456789abcdef"});
}

TEST_P(StreamWrite, destructorWarnsAboutAFailedFlushOrCloseAndStillCloses) {
    EventRecorder const events;
    run(16, {"open /dev/full", "write abc"});
    m_files.clear();
    EXPECT_EQ(m_warning, events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    Calls const flushes(inject_fsync, 1, EINVAL);
    close(open().getDescriptor());
    m_files.clear();
    EXPECT_EQ(m_warning + "\n" + m_warning, events.getText());
}

TEST_P(StreamWrite, destructorOfEachBaseTriesToCloseAFileThatStaysOpen) {
    bool const is_both = GetParam().direction == 3;
    auto const end = runInChild([&] {
        EventRecorder const events;
        open();
        Calls const closes(inject_close, is_both ? 3 : 2, EIO, 3);
        m_files.clear();
        std::string const next =
            "\nWARNING framework/src/vesk/posix/StreamBinFileW ~StreamBinFileW: Error closing BinFileW";
        EXPECT_EQ(m_warning + (is_both ? next : ""), events.getText());
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("~BinFileBase|Warning: Error closing BinFile: ")) << end.errors;
}

TEST_P(StreamWrite, flushSucceedsIfTheSinkHasNoMedium) {
    run(0,
        {"open /dev/null", "fail fsync EINVAL", "sync", "calls fsync 1", "fail fsync ENOSYS", "sync",
         "calls fsync 1"});
}

INSTANTIATE_TEST_SUITE_P(classes, StreamWrite, testing::Values(WRITER, BOTH), nameOf);

/// Makes protected members visible.
class File : public StreamBinFileRW {
public:
    using StreamBinFileRW::checkReadBufferConsistency;
    using StreamBinFileRW::checkWriteBufferConsistency;
    using StreamBinFileRW::performFlush;
    using StreamBinFileRW::performRead;
    using StreamBinFileRW::performWrite;
    using StreamBinFileRW::StreamBinFileRW;

    static bool wasWriting(StreamBinFileRW const& file) { return file.*(&File::m_last_op) == WRITING; }
};

/// Steps with two buffers of 10 bytes. They also check the last operation and what is in the buffers ("reading SIZE",
/// "writing SIZE"), and call the hooks ("check-read", "check-write").
class StreamBinFileRWTest : public StreamTest<StreamBinFileRW> {
protected:
    StreamBinFileRWTest() : StreamTest(BOTH) {
        auto& verbs = m_steps.verbs;
        verbs["reading"] =
            Steps::check([this](Words const& words) { expectState(false, words.count(1), 0); });
        verbs["writing"] = Steps::check([this](Words const& words) { expectState(true, 0, words.count(1)); });
        verbs["check-read"] = Steps::check(
            [this](Words const&) { EXPECT_FALSE((m_file->*(&File::checkReadBufferConsistency))()); });
        verbs["check-write"] = Steps::check(
            [this](Words const&) { EXPECT_FALSE((m_file->*(&File::checkWriteBufferConsistency))()); });
    }

    void expectState(bool was_writing, unsigned int read_ahead, unsigned int buffered) const {
        EXPECT_EQ(was_writing, File::wasWriting(*m_file));
        EXPECT_EQ(read_ahead, Reading::getReadAhead(*m_file));
        EXPECT_EQ(buffered, Writing::getBuffered(*m_file));
    }

    void run(StepList const& steps) { runOn(open(10), steps); }
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
    StreamBinFileRW& file = open(10);
    StreamBinFileR& reader = file;
    StreamBinFileW& writer = file;
    StreamBinFileBase& base = file;
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
    StreamTest::run(0, {"reading 0"});
    EXPECT_TRUE(File(1, 0).isInputBuffered());
    EXPECT_FALSE(File(1, 0).isOutputBuffered());
    EXPECT_TRUE(File(0, 1).isOutputBuffered());
}

TEST_F(StreamBinFileRWTest, reopeningEmptiesBothBuffersAndKeepsTheDirection) {
    run(
        {"read 1 0", "reading 9", "open file", "reading 0", "write X", "writing 1", "open file", "writing 0",
         "read 2 X1", "reading 8", "open missing FAILS INVALID_PATH ENOENT BAD_PATH", "reading 0"});
}

TEST_F(StreamBinFileRWTest, flushAndTransfersOf0BytesKeepTheDirection) {
    run(
        {"read 1 0", "sync", "reading 9", "read 3 123", "write X", "writing 1", "flush",
         "content file 0123X56789abcdef"});
    run({"read 1 0", "write", "reading 9", "write ab", "read 0", "writing 2"});
}

TEST_F(StreamBinFileRWTest, readWritesTheBufferFirstAndStopsOnlyWhileDataIsLeft) {
    run(
        {"write AB", "content file 0123456789abcdef", "count fsync", "read 2 23", "calls fsync 1",
         "content file AB23456789abcdef", "reading 8"});
    m_folder.makeFile("file", "0123456789abcdef");
    run(
        {"write AB", "fail write ENOSPC", "count read", "read 2 FAILS NO_SPACE ENOSPC TRANSFER_FAILED",
         "calls read 0", "writing 2", "read 2 23", "content file AB23456789abcdef"});
    m_folder.makeFile("file", "0123456789abcdef");
    run({"write AB", "fail fsync EIO", "read 2 23", "calls fsync 1", "reading 8"});
}

TEST_F(StreamBinFileRWTest, changeOfDirectionWithEmptyBuffersIsNoSystemCall) {
    for (unsigned int const buffer_size : {0U, 4U}) {
        runOn(
            open(buffer_size),
            {"read 4 0123", "count lseek", "count fsync", "write WXYZ", "read 4 89ab", "calls lseek 0",
             "calls fsync 0", "content file 0123WXYZ89abcdef"});
        m_folder.makeFile("file", "0123456789abcdef");
    }
}

TEST_F(StreamBinFileRWTest, writeFailsWhereTheReadAheadCannotBeReturnedAndLosesIt) {
    ASSERT_EQ(0, mkfifo(m_missing.c_str(), 0600));
    File file(8, 0);
    // On Linux one process may open both ends.
    runOn(
        file,
        {"open missing", "write abcd", "read 1 a", "reading 3", "write X FAILS SPOILED_INTEGRITY ESPIPE",
         "reading 0", "write Y", "writing 0", "read 8 Y"});
}

TEST_F(StreamBinFileRWTest, readAheadIsReturnedThroughTheSeekOfADerivedClass) {
    class Lazy : public File {
    public:
        using File::File;
        bool seek(int offset, SeekDirection direction, unsigned int& position) override {
            EXPECT_EQ(0, offset);
            EXPECT_EQ(Current, direction);
            position = 0;
            return ++seeks == 1;
        }
        int seeks = 0;
    } file(10, 10);
    runOn(file, {"open file", "read 1 0"});
    EXPECT_EQ(-1, writeOnce(file, "X", 0));
    EXPECT_TRUE(file.hadError());
    // Now the read-ahead is discarded whatever that seek does.
    runOn(file, {"reading 9", "write X", "writing 1"});
    EXPECT_EQ(2, file.seeks);
}

TEST_F(StreamBinFileRWTest, hooksCalledDirectlyOnlyChangeTheDirection) {
    run(
        {"check-write", "writing 0", "check-read", "reading 0", "write AB", "check-write", "writing 2",
         "check-read", "reading 0"});
}

TEST_F(StreamBinFileRWTest, seekThatFlushesEndsWritingAndSeekWithoutDataKeepsIt) {
    run(
        {"write AB", "seek current 1 3", "reading 0", "check-write", "seek end 0 16", "writing 0", "write CD",
         "fail write ENOSPC", "seek begin 5 FAILS NO_SPACE ENOSPC TRANSFER_FAILED", "writing 2"});
}

TEST_F(StreamBinFileRWTest, alternatingReadsAndWritesAllocateNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    StreamBinFileRW& file = open(10);
    s_file_calls.syncs_for_nothing = true;
    char block[40] = {};
    unsigned int count = 0;
    AllocationCounter const counter;
    for (unsigned int i = 0; i < 100; ++i) {
        EXPECT_FALSE(file.seek(static_cast<int>(i % 8), file.Begin, m_position));
        EXPECT_EQ(1, file.read(block, 1 + i % 8, count));
        EXPECT_EQ(1, file.write(block, 1 + i % 40, count));
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
