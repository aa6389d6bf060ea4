#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <vesk/Pipe.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <ostream>
#include <string>
#include <sys/resource.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

VESK_INJECT_ERRNO(int, -1, pipe, (int* ends), (ends))
VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))

namespace {

using support::chainIs;
using support::failureIs;
using support::Fault;
using vesk::Pipe;

static_assert(!std::is_polymorphic_v<Pipe> && !std::is_copy_constructible_v<Pipe>);
static_assert(sizeof(Pipe) == 2 * sizeof(int));

TEST(Pipe, carriesBytesFromItsWriteEndToItsReadEnd) {
    Pipe const pipe;
    ASSERT_EQ(3, write(pipe.getWriteEnd(), "abc", 3));
    char block[4] = {};
    EXPECT_EQ(3, read(pipe.getReadEnd(), block, sizeof block));
    EXPECT_STREQ("abc", block);
}

TEST(Pipe, endsBlockAndStayOpenAcrossExec) {
    Pipe const pipe;
    for (int const fd : {pipe.getReadEnd(), pipe.getWriteEnd()}) {
        EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    }
}

struct CreationRow {
    int error;
    int id;
};

void PrintTo(CreationRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class PipeCreation : public testing::TestWithParam<CreationRow> {};

TEST_P(PipeCreation, failureLeavesBothEndsClosed) {
    support::EventRecorder const events;
    {
        Fault const fault(inject_pipe, GetParam().error);
        Pipe pipe;
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
        EXPECT_EQ(-1, pipe.getReadEnd());
        EXPECT_EQ(-1, pipe.getWriteEnd());
        EXPECT_FALSE(pipe.closeReadEnd());
        EXPECT_FALSE(pipe.closeWriteEnd());
    }
    EXPECT_EQ("", events.getText()) << "it is destroyed without a warning";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    rows, PipeCreation,
    testing::Values(
        CreationRow{ENFILE, 0}, CreationRow{EMFILE, 0}, CreationRow{ENOSPC, 1}, CreationRow{ENOSYS, 6},
        CreationRow{EFAULT, 19}, CreationRow{EINTR, 19}, CreationRow{ENOMEM, 19}));

TEST(Pipe, withoutDescriptorsLeftItIsNotMade) {
    auto const end = support::runInChild([] {
        rlimit const limit{4, 4};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        Pipe const pipe;
        EXPECT_TRUE(failureIs(EMFILE, 0));
        EXPECT_EQ(-1, pipe.getReadEnd());
        EXPECT_EQ(-1, pipe.getWriteEnd());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(Pipe, secondCloseOfAnEndDoesNothing) {
    Pipe pipe;
    EXPECT_FALSE(pipe.closeReadEnd());
    EXPECT_FALSE(pipe.closeWriteEnd());
    Fault const calls(inject_close, 0);
    EXPECT_FALSE(pipe.closeReadEnd());
    EXPECT_FALSE(pipe.closeWriteEnd());
    EXPECT_EQ(0, calls.getCalls());
}

TEST(Pipe, eachEndIsClosedAlone) {
    Pipe pipe;
    int const read_end = pipe.getReadEnd();
    int const write_end = pipe.getWriteEnd();
    EXPECT_FALSE(pipe.closeReadEnd());
    EXPECT_EQ(-1, pipe.getReadEnd());
    EXPECT_FALSE(support::isOpen(read_end));
    EXPECT_EQ(write_end, pipe.getWriteEnd());
    EXPECT_TRUE(support::isOpen(write_end));
    EXPECT_FALSE(pipe.closeWriteEnd());
    EXPECT_EQ(-1, pipe.getWriteEnd());
    EXPECT_FALSE(support::isOpen(write_end));
}

class PipeClose : public testing::TestWithParam<int> {};

TEST_P(PipeClose, failureIsReportedAndCountsAsClosed) {
    Pipe pipe;
    int const ends[] = {pipe.getReadEnd(), pipe.getWriteEnd()};
    {
        Fault const fault(inject_close, GetParam());
        EXPECT_TRUE(pipe.closeReadEnd());
        EXPECT_TRUE(failureIs(GetParam(), 19));
        EXPECT_EQ(-1, pipe.getReadEnd());
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
        EXPECT_FALSE(pipe.closeReadEnd());
        EXPECT_EQ(1, fault.getCalls());
    }
    {
        Fault const fault(inject_close, GetParam());
        EXPECT_TRUE(pipe.closeWriteEnd());
        EXPECT_TRUE(failureIs(GetParam(), 19));
        EXPECT_EQ(-1, pipe.getWriteEnd());
        EXPECT_EQ(1, fault.getCalls());
    }
    close(ends[0]);
    close(ends[1]);
}

INSTANTIATE_TEST_SUITE_P(errors, PipeClose, testing::Values(EINTR, EBADF, EIO));

TEST(Pipe, closingAnEndThatIsNotOpenAnyMoreFails) {
    Pipe pipe;
    close(pipe.getReadEnd());
    EXPECT_TRUE(pipe.closeReadEnd());
    EXPECT_TRUE(failureIs(EBADF, 19));
}

TEST(Pipe, destructorClosesWhatIsOpen) {
    int ends[2] = {};
    {
        Pipe const pipe;
        ends[0] = pipe.getReadEnd();
        ends[1] = pipe.getWriteEnd();
    }
    EXPECT_FALSE(support::isOpen(ends[0]));
    EXPECT_FALSE(support::isOpen(ends[1]));
}

/// One warning, and whether a report was pending when it came.
struct Warning {
    std::string text;
    bool pending;
};

bool noteWarning(std::GlobalErrorHandler::Event const& event, void* context) {
    std::string const text = std::string(event.file) + " " + event.function + ": " + event.message;
    static_cast<std::vector<Warning>*>(context)->push_back({text, std::ErrorStorage::isError(false)});
    return true;
}

TEST(Pipe, destructorAcknowledgesBeforeTheWarningOfTheReadEndAndAfterThatOfTheWriteEnd) {
    std::vector<Warning> warnings;
    std::GlobalErrorHandler::Hook const hook{noteWarning, &warnings};
    auto const* const previous = std::GlobalErrorHandler::setHook(&hook);
    {
        Pipe const pipe;
        close(pipe.getReadEnd());
        close(pipe.getWriteEnd());
    }
    std::GlobalErrorHandler::setHook(previous);
    ASSERT_EQ(2U, warnings.size());
    EXPECT_EQ("framework/src/vesk/posix/Pipe ~Pipe: Couldn't close unused pipe read end", warnings[0].text);
    EXPECT_FALSE(warnings[0].pending);
    EXPECT_EQ("framework/src/vesk/posix/Pipe ~Pipe: Couldn't close unused pipe write end", warnings[1].text);
    EXPECT_TRUE(warnings[1].pending);
    EXPECT_TRUE(chainIs({}));
}

TEST(Pipe, closedWriteEndIsTheEndForTheReader) {
    Pipe pipe;
    ASSERT_EQ(1, write(pipe.getWriteEnd(), "x", 1));
    EXPECT_FALSE(pipe.closeWriteEnd());
    char block[4];
    EXPECT_EQ(1, read(pipe.getReadEnd(), block, sizeof block));
    EXPECT_EQ(0, read(pipe.getReadEnd(), block, sizeof block));
}

TEST(Pipe, closedReadEndIsABrokenPipeForTheWriter) {
    signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    EXPECT_FALSE(pipe.closeReadEnd());
    EXPECT_EQ(-1, write(pipe.getWriteEnd(), "x", 1));
    EXPECT_EQ(EPIPE, errno);
}

TEST(Pipe, endThatIsTakenBelongsToTheTaker) {
    int read_end = -1;
    int write_end = -1;
    {
        Pipe pipe;
        read_end = pipe.takeReadEnd();
        EXPECT_EQ(-1, pipe.getReadEnd());
        EXPECT_EQ(-1, pipe.takeReadEnd());
        write_end = pipe.takeWriteEnd();
        EXPECT_EQ(-1, pipe.getWriteEnd());
        EXPECT_EQ(-1, pipe.takeWriteEnd());
    }
    EXPECT_EQ(0, close(read_end));
    EXPECT_EQ(0, close(write_end));
}

} // namespace
