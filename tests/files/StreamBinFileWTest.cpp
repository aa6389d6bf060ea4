#include "StreamFiles.h"

#include <algorithm>
#include <chrono>
#include <poll.h>
#include <thread>

VESK_INJECT_ERRNO(int, -1, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))

namespace {

using namespace support;

static_assert(std::is_convertible_v<StreamBinFileW*, IBinOutputStream*>);
static_assert(std::is_convertible_v<StreamBinFileW*, StreamBinFileBase*>);

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

TEST_F(StreamBinFileWTest, opensTheWriteEndOfAPipe) {
    EXPECT_FALSE(m_file.open(m_path, m_file.WRITE | m_file.NON_BLOCK));
    EXPECT_FALSE(m_file.open(m_pipe));
    EXPECT_EQ(-1, m_pipe.getWriteEnd());
    EXPECT_EQ(2U, Reading::getFlags(m_file));
    EXPECT_TRUE(Reading::getBlocking(m_file)) << "a pipe always blocks";
    writeTo(m_file, "abc");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(m_file.flush(false));
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_TRUE(hasNoError(m_file)) << "a pipe has no medium";
    EXPECT_EQ("abc", drain(m_pipe));
    EXPECT_FALSE(m_file.open(m_path, m_file.WRITE | m_file.NON_BLOCK));
    EXPECT_FALSE(m_file.open(m_pipe));
    EXPECT_FALSE(m_file.isValid()) << "that end was taken";
    EXPECT_TRUE(Reading::getBlocking(m_file));
}

TEST_F(StreamBinFileWTest, pipeKeepsItsWriteEndIfTheFileHasNoBuffer) {
    NewFault const fault(New::NOTHROW_ARRAY);
    StreamBinFileW file(16);
    std::ErrorStorage::ack();
    EXPECT_TRUE(file.open(m_pipe));
    EXPECT_TRUE(contractIsBroken("Attempted open on invalid object"));
    EXPECT_NE(-1, m_pipe.getWriteEnd());
}

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
    EXPECT_TRUE(hasNoError(file));
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
    EXPECT_TRUE(hasFullDisk(file));
}

TEST_F(StreamBinFileWTest, seekOnAPipeFailsAfterTheFlush) {
    EXPECT_FALSE(m_file.open(m_pipe));
    writeTo(m_file, "abc");
    EXPECT_TRUE(m_file.seek(0, m_file.Current, m_position));
    EXPECT_TRUE(hasFailed(m_file, SysErrorId::SPOILED_INTEGRITY, ESPIPE));
    EXPECT_EQ(0U, Writing::getBuffered(m_file));
    EXPECT_EQ("abc", drain(m_pipe));
}

class StreamWrite : public StreamSuite<StreamBinFileW> {
protected:
    /// Returns a file with these bytes in its buffer.
    StreamBinFileW& openWith(std::string const& bytes, std::string const& path) {
        StreamBinFileW& file = open(16, path);
        writeTo(file, bytes);
        return file;
    }
    StreamBinFileW& openWith(std::string const& bytes) { return openWith(bytes, m_path); }

    std::string m_warning = "WARNING framework/src/vesk/posix/" + GetParam().name + " ~" + GetParam().name +
        ": Error closing BinFileW";
    std::string m_other = m_folder.makeFile("other", "old");
    std::string m_content = contentOf(m_path);
};

TEST_P(StreamWrite, reopeningFlushesTheOldFile) {
    StreamBinFileW& file = openWith("abc");
    EXPECT_EQ(m_content, contentOf(m_path));
    EXPECT_FALSE(reopen(file, m_other));
    EXPECT_EQ("abc3456789abcdef", contentOf(m_path));
    EXPECT_EQ(0U, Writing::getBuffered(file));
    EXPECT_EQ("old", contentOf(m_other));
}

TEST_P(StreamWrite, reopeningStopsAndDiscardsTheBufferWhenTheOldFileCannotBeFlushed) {
    StreamBinFileW& file = openWith("abc", "/dev/full");
    EXPECT_TRUE(reopen(file, m_other, file.TRUNCATE));
    EXPECT_TRUE(hasFullDisk(file));
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("old", contentOf(m_other));
    EXPECT_EQ(0U, Writing::getBuffered(file));
    EXPECT_FALSE(reopen(file, m_other, file.TRUNCATE));
    EXPECT_FALSE(file.hadError());
    EXPECT_FALSE(file.close());
    EXPECT_EQ("", contentOf(m_other));
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
        StreamBinFileW& file = make(buffer_size);
        EXPECT_EQ(-1, writeOnce(file, "", 0));
        EXPECT_TRUE(isClosedFor(file, "write"));
        EXPECT_FALSE(reopen(file, "/dev/full"));
        Calls const none(inject_write, 0);
        EXPECT_EQ(1, writeOnce(file, "", 0));
        EXPECT_TRUE(hasNoError(file));
    }
}

TEST_P(StreamWrite, writeOnAClosedObjectFailsAndBuffersNothing) {
    Calls const none(inject_write, 0);
    for (unsigned int const buffer_size : {0U, 16U}) {
        StreamBinFileW& file = make(buffer_size);
        for (auto const& make_closed : std::initializer_list<std::function<bool()>>{
                 [] { return false; }, [&] { return reopen(file, m_path) || file.close(); },
                 [&] { return !reopen(file, m_missing); },
                 [&] { return reopen(file, m_path) || !reopen(file, "/missing/file"); },
                 [&] { return reopen(file, ""); }}) {
            EXPECT_FALSE(make_closed());
            std::ErrorStorage::ack();
            for (int i = 0; i < 2; ++i) {
                EXPECT_EQ(-1, writeOnce(file, "ab", 0));
                EXPECT_TRUE(isClosedFor(file, "write"));
            }
        }
        EXPECT_FALSE(reopen(file, m_path));
        EXPECT_FALSE(file.close());
        EXPECT_EQ(m_content, contentOf(m_path));
    }
}

TEST_P(StreamWrite, hadErrorReportsTheResultOfTheWholeOperation) {
    StreamBinFileW& file = openWith("ab", "/dev/full");
    EXPECT_TRUE(file.flush(true));
    EXPECT_TRUE(file.hadError());
    writeTo(file, "c");
    EXPECT_FALSE(file.hadError()) << "it is in the buffer";
    EXPECT_TRUE(file.seek(0, file.Begin, m_position));
    EXPECT_TRUE(file.hadError());
    EXPECT_TRUE(reopen(file, m_path)) << "the old one is not flushed";
    EXPECT_TRUE(file.hadError());
    std::ErrorStorage::ack();
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.hadError());
}

TEST_P(StreamWrite, fileIsNotWrittenBeyondTheLimitOfItsSize) {
    expectInChild([&] {
        limitFileSize(4);
        StreamBinFileW& file = open(0, m_path, BinFileBase::TRUNCATE);
        EXPECT_EQ(-1, writeOnce(file, "abcdef", 4));
        EXPECT_TRUE(hasFailed(file, SysErrorId::INVALID_PARAMETER, EFBIG, StreamErrorId::TRANSFER_FAILED));
        EXPECT_EQ("abcd", contentOf(m_path));
    });
}

TEST_P(StreamWrite, fullFileSystemIsReportedAndWhatFitsIsWritten) {
    std::string const mount_point = m_folder.makeFolder("mount");
    bool const mounted = runWithMount(mount_point, "size=64k", [&] {
        StreamBinFileW& file = open(0, mount_point + "/file", BinFileBase::CREATE);
        EXPECT_EQ(-1, writeOnce(file, std::string(100000, 'x'), 65536));
        EXPECT_TRUE(hasFullDisk(file));
        EXPECT_EQ(65536, file.getFileInfo().getSize());
    });
    if (!mounted) {
        GTEST_SKIP() << "mounting needs a privilege";
    }
}

TEST_P(StreamWrite, flushWritesTheDataToTheMediumUnlessOnlyTheBufferIsRequested) {
    StreamBinFileW& file = openWith("abc");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.flush(true));
    EXPECT_EQ("abc3456789abcdef", contentOf(m_path));
    EXPECT_EQ(0, syncs.getCalls());
    EXPECT_FALSE(file.flush(false));
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_FALSE(file.hadError());
}

TEST_P(StreamWrite, closeFlushesFirst) {
    StreamBinFileW& file = openWith("abc");
    Calls const syncs(inject_fsync, 1);
    EXPECT_FALSE(file.close());
    EXPECT_EQ("abc3456789abcdef", contentOf(m_path));
    Calls const none(inject_close, 0);
    EXPECT_FALSE(file.close()) << "nothing is left to do";
}

TEST_P(StreamWrite, closeClosesAFileThatCannotBeFlushedAndLeavesNothingForTheNextOne) {
    StreamBinFileW& file = openWith("abc", "/dev/full");
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(hasFullDisk(file)) << "although the last step succeeded";
    EXPECT_FALSE(file.isValid());
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.hadError());
    EXPECT_EQ(-1, writeOnce(file, "cd", 0));
    EXPECT_TRUE(isClosedFor(file, "write"));
    EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.READ_WRITE, FileAccess::none));
    EXPECT_FALSE(file.close());
    EXPECT_EQ(m_content, contentOf(m_path));
}

TEST_P(StreamWrite, closeFailsWhenTheDescriptorCannotBeClosed) {
    StreamBinFileW& file = openWith("abc");
    Fault const closes(inject_close, EIO, 1, 2);
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(file.isValid());
    EXPECT_EQ("abc3456789abcdef", contentOf(m_path)) << "it was flushed";
    Fault const syncs(inject_fsync, EIO);
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO)) << "the second of two failures is reported";
}

TEST_P(StreamWrite, seekWritesTheBufferFirst) {
    StreamBinFileW& file = openWith("ab");
    StreamBinFileBase& base = file;
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(file.seek(0, file.Current, m_position));
    EXPECT_EQ(2U, m_position);
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_EQ("ab23456789abcdef", contentOf(m_path));
    EXPECT_FALSE(file.seek(-1, file.End, m_position));
    EXPECT_EQ(15U, m_position);
    EXPECT_EQ(1, syncs.getCalls()) << "there was nothing to flush";
    writeTo(file, "X");
    EXPECT_FALSE(base.seek(4, file.Begin, m_position));
    writeTo(file, "Y");
    EXPECT_FALSE(file.close());
    EXPECT_EQ("ab23Y56789abcdeX", contentOf(m_path));
}

TEST_P(StreamWrite, seekStopsWhileDataIsLeftInTheBuffer) {
    StreamBinFileW& file = openWith("ab");
    Calls const one_seek(inject_lseek, 1);
    Fault const fault(inject_write, ENOSPC);
    EXPECT_TRUE(file.seek(5, file.Begin, m_position));
    EXPECT_TRUE(hasFullDisk(file));
    EXPECT_EQ(2U, Writing::getBuffered(file));
    EXPECT_FALSE(file.seek(5, file.Begin, m_position)) << "it can be tried again";
    EXPECT_EQ("ab23456789abcdef", contentOf(m_path));
}

TEST_P(StreamWrite, seekContinuesWhenOnlyTheMediumFails) {
    StreamBinFileW& file = openWith("ab");
    Calls const syncs(inject_fsync, 1, EIO);
    EXPECT_FALSE(file.seek(5, file.Begin, m_position));
    EXPECT_EQ(5U, m_position);
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_EQ("ab23456789abcdef", contentOf(m_path));
}

TEST_P(StreamWrite, destructorWarnsAboutAFailedFlushOrCloseAndStillCloses) {
    EventRecorder const events;
    openWith("abc", "/dev/full");
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

INSTANTIATE_TEST_SUITE_P(classes, StreamWrite, testing::Values(WRITER, BOTH), nameOf);

class StreamUnsynchronized : public StreamTest<StreamBinFileW>,
                             public testing::WithParamInterface<std::tuple<StreamClass, int>> {
protected:
    StreamUnsynchronized() : StreamTest(std::get<0>(GetParam())) {}
};

TEST_P(StreamUnsynchronized, flushSucceeds) {
    StreamBinFileW& file = open(0, "/dev/null");
    Calls const calls(inject_fsync, 1, std::get<1>(GetParam()));
    EXPECT_FALSE(file.flush(false));
    EXPECT_TRUE(hasNoError(file));
}

INSTANTIATE_TEST_SUITE_P(
    errors, StreamUnsynchronized,
    testing::Combine(testing::Values(WRITER, BOTH), testing::Values(EINVAL, ENOSYS)));

} // namespace
