#include "SignalSupport.h"
#include "support/Aborts.h"
#include "support/AllocationCounter.h"
#include "support/ErrorRow.h"
#include "support/FailOnce.h"
#include "support/Privileges.h"
#include "support/Sanitizers.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>

VESK_INJECT_ERRNO(ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {
// The arguments of poll, if it is set.
struct Poll {
    std::vector<pollfd> rows;
    int limit;
};
std::vector<Poll>* s_polls = nullptr;

void notePoll(pollfd* rows, nfds_t count, int limit) {
    if (s_polls != nullptr) {
        s_polls->push_back({{rows, rows + count}, limit});
    }
}
} // namespace

VESK_INJECT_NOTING(
    int, -1, poll, (pollfd * rows, nfds_t count, int limit), (rows, count, limit),
    notePoll(rows, count, limit))

support::Injected inject_fcntl("fcntl");
extern "C" VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    if (inject_fcntl.fails()) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, command);
    long const argument = va_arg(arguments, long);
    va_end(arguments);
    return inject_fcntl.getReal(fcntl)(fd, command, argument);
}

namespace {

using namespace support;
using SelfPipe = vesk::SignalQueueImpl::SelfPipe;
using Notifier = vesk::SignalQueue::Notifier;

constexpr char const* NOT_CREATED =
    "ASSERT framework/src/vesk/SignalQueueImpl-posix SelfPipe: result==0: couldn't create self-pipe";

int countBytes() {
    int bytes = -1;
    EXPECT_EQ(0, ioctl(s_pipe[0], FIONREAD, &bytes));
    return bytes;
}

// ---- the pipe ----

TEST(SelfPipeTest, blocksReadersButNotWritersAndIsInheritedByNewPrograms) {
    errno = EINVAL; // Is ignored.
    SelfPipe const self_pipe;
    EXPECT_EQ(O_RDONLY, fcntl(s_pipe[0], F_GETFL, 0L) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_EQ(O_WRONLY | O_NONBLOCK, fcntl(s_pipe[1], F_GETFL, 0L) & (O_ACCMODE | O_NONBLOCK));
    for (int const end : s_pipe) {
        EXPECT_EQ(0, fcntl(end, F_GETFD, 0L));
    }
}

TEST(SelfPipeTest, readsAndWritesWithTheResultsOfTheSystem) {
    SelfPipe self_pipe;
    char data[] = "abc";
    EXPECT_EQ(3, self_pipe.write(data, 3));
    char buffer[8] = {};
    EXPECT_EQ(2, self_pipe.read(buffer, 2));
    EXPECT_STREQ("ab", buffer);
    EXPECT_EQ(1, self_pipe.read(buffer, sizeof buffer));
    EXPECT_EQ('c', buffer[0]);
    EXPECT_EQ(-1, self_pipe.write(nullptr, 5));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, failOnce(inject_write, EIO, [&] { return self_pipe.write(data, 1); }));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, countBytes());
    std::string const much(1 << 20, 'x');
    EXPECT_LT(0, self_pipe.write(much.data(), static_cast<unsigned int>(much.size())));
    while (self_pipe.write(much.data(), 1) == 1) {}
    EXPECT_EQ(EAGAIN, errno) << "it is full";
}

TEST(SelfPipeTest, putsItsReadEndIntoASetAndRaisesTheHighestToOneMore) {
    SelfPipe const self_pipe;
    int const end = s_pipe[0];
    struct {
        int before;
        int after;
    } const rows[] = {
        {0, end + 1}, {end - 1, end + 1}, {end, end + 1}, {end + 1, end + 1}, {end + 10, end + 10}};
    for (auto const& row : rows) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(0, &set);
        EXPECT_FALSE(self_pipe.is_set(&set));
        int highest = row.before;
        self_pipe.set(&set, highest);
        EXPECT_EQ(row.after, highest);
        EXPECT_TRUE(FD_ISSET(end, &set));
        EXPECT_FALSE(FD_ISSET(s_pipe[1], &set));
        EXPECT_TRUE(FD_ISSET(0, &set));
        EXPECT_TRUE(self_pipe.is_set(&set));
        FD_CLR(end, &set);
        EXPECT_FALSE(self_pipe.is_set(&set));
    }
}

TEST(SelfPipeTest, creationThatFailsIsAnAssertionAndLeavesNoPipe) {
    for (int const error : {EMFILE, ENFILE, EFAULT}) {
        SCOPED_TRACE(error);
        fd_set set;
        FD_ZERO(&set);
        int highest = 7;
        std::vector<int> closed;
        {
            EventRecorder const events;
            Fault const fault(inject_pipe, error);
            Fault const flags(inject_fcntl, 0);
            SelfPipe self_pipe;
            EXPECT_EQ(NOT_CREATED, events.getText());
            EXPECT_EQ(0, flags.getCalls());
            self_pipe.set(&set, highest);
            EXPECT_EQ(7, highest);
            EXPECT_FALSE(self_pipe.is_set(&set));
            EXPECT_EQ(-1, self_pipe.write("", 1));
            EXPECT_EQ(EBADF, errno);
            s_closed = &closed;
        }
        s_closed = nullptr;
        EXPECT_TRUE(closed.empty());
    }
}

TEST(SelfPipeTest, creationWithoutAFreeDescriptorIsAnAssertion) {
    expectInChild([] {
        rlimit limit{};
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        limit.rlim_cur = 4; // At most one more is free.
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EventRecorder const events;
        SelfPipe const self_pipe;
        EXPECT_EQ(NOT_CREATED, events.getText());
    });
}

TEST(SelfPipeTest, flagsThatCannotBeSetAreAnAssertionAndThePipeStillWorks) {
    struct {
        char const* fails;
        int nth;
        int times;
        int flags_after;
    } const rows[] = {
        // If the old flags cannot be read, only the new one is set.
        {"F_GETFL", 1, 1, O_NONBLOCK},
        {"F_SETFL", 2, 1, 0},
        {"both", 1, 2, 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.fails);
        EventRecorder const events;
        auto fault = std::make_unique<Fault>(inject_fcntl, EINVAL, row.nth, row.times);
        SelfPipe self_pipe;
        fault.reset();
        EXPECT_EQ(
            "ASSERT framework/src/vesk/SignalQueueImpl-posix SelfPipe: errno==0: "
            "couldn't configure self-pipe as non-blocking",
            events.getText());
        EXPECT_EQ(O_WRONLY | row.flags_after, fcntl(s_pipe[1], F_GETFL, 0L) & ~O_LARGEFILE);
        EXPECT_EQ(1, self_pipe.write("x", 1));
        char byte = 0;
        EXPECT_EQ(1, self_pipe.read(&byte, 1));
    }
}

TEST(SelfPipeTest, closesItsReadEndFirst) {
    std::vector<int> closed;
    {
        Notifier const notifier;
        s_closed = &closed;
    }
    s_closed = nullptr;
    EXPECT_EQ((std::vector<int>{s_pipe[0], s_pipe[1]}), closed);
}

/// The number of the read end, and the assertion of a set.
struct HighNumber {
    int read_end;
    char const* events_of_set;
};
class SelfPipeHighNumberTest : public testing::TestWithParam<HighNumber> {};

TEST_P(SelfPipeHighNumberTest, isWaitedForAndASetChangesNoMemoryBeyondItsEnd) {
    ChildEnd const end = runWithDescriptors(GetParam().read_end, [] {
        EventRecorder const events;
        Notifier notifier;
        EXPECT_EQ(GetParam().read_end, s_pipe[0]);
        notifier.signal();
        notifier.wait();
        EXPECT_EQ(0, countBytes());

        // Another one gets the same descriptors.
        close(s_pipe[0]);
        close(s_pipe[1]);
        SelfPipe const self_pipe;
        EXPECT_EQ(GetParam().read_end, self_pipe.getReadEnd());
        EXPECT_EQ("", events.getText());
        struct {
            fd_set set;
            fd_set beyond;
        } memory{};
        int highest = 0;
        self_pipe.set(&memory.set, highest);
        bool const fits = GetParam().read_end < FD_SETSIZE;
        EXPECT_EQ(fits, self_pipe.is_set(&memory.set));
        EXPECT_EQ(fits ? GetParam().read_end + 1 : 0, highest);
        EXPECT_EQ(GetParam().events_of_set, events.getText());
        decltype(memory) untouched{};
        if (fits) {
            FD_SET(GetParam().read_end, &untouched.set);
        }
        EXPECT_EQ(0, memcmp(&untouched, &memory, sizeof memory));
        fflush(nullptr);
        // Without the destructor of the notifier, which would close descriptors of the other pipe.
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    VESK_SKIP_WITHOUT_DESCRIPTORS(end);
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

INSTANTIATE_TEST_SUITE_P(
    All, SelfPipeHighNumberTest,
    testing::Values(
        HighNumber{FD_SETSIZE - 1, ""},
        HighNumber{FD_SETSIZE, "ASSERT framework/src/vesk/SignalQueueImpl-posix set: read_end<FD_SETSIZE"},
        HighNumber{1500, "ASSERT framework/src/vesk/SignalQueueImpl-posix set: read_end<FD_SETSIZE"}),
    [](auto const& row) { return std::to_string(row.param.read_end); });

// ---- the notifier ----

TEST(SignalNotifierTest, writesOneByteOfValueZeroForEachSignalAndTakesOneInEachWait) {
    Notifier notifier;
    for (int count = 1; count <= 5; ++count) {
        notifier.signal();
        EXPECT_EQ(count, countBytes());
    }
    std::vector<Poll> polls;
    s_polls = &polls;
    for (int left = 4; left >= 3; --left) {
        notifier.wait();
        EXPECT_EQ(left, countBytes());
    }
    s_polls = nullptr;
    ASSERT_EQ(2u, polls.size());
    for (Poll const& poll : polls) {
        ASSERT_EQ(1u, poll.rows.size());
        EXPECT_EQ(s_pipe[0], poll.rows[0].fd);
        EXPECT_EQ(POLLIN, poll.rows[0].events);
        EXPECT_EQ(-1, poll.limit) << "no timeout";
    }
    char bytes[4] = "xyz";
    EXPECT_EQ(3, read(s_pipe[0], bytes, sizeof bytes));
    EXPECT_EQ(std::string(3, '\0'), std::string(bytes, 3));
}

TEST(SignalNotifierTest, sleepsUntilItIsSignaled) {
    Notifier notifier;
    Sleeper waiter([&] { notifier.wait(); });
    waiter.awaitSleep();
    EXPECT_FALSE(waiter.isDone());
    notifier.signal();
    waiter.join();
    EXPECT_TRUE(waiter.isDone());
    EXPECT_EQ(0, countBytes());
}

TEST(SignalNotifierTest, takesItsByteAfterAnInterruptedWait) {
    Notifier notifier;
    notifier.signal();
    notifier.signal();
    Fault const fault(inject_poll, EINTR);
    notifier.wait();
    EXPECT_EQ(1, countBytes());
}

TEST(SignalNotifierTest, returnsFromAnInterruptedWaitWithAnEmptyPipe) {
    expectInChild([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        EXPECT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
        Notifier notifier;
        Sleeper waiter([&] { notifier.wait(); });
        waiter.awaitSleep();
        waiter.kill(SIGUSR1);
        waiter.join();
        notifier.signal();
        notifier.wait();
        EXPECT_EQ(0, countBytes());
    });
}

TEST(SignalNotifierTest, allocatesNothingAndTakesNoLock) {
    Notifier notifier;
    Fault const locks(inject_pthread_mutex_lock, 0);
    AllocationCounter const allocations;
    notifier.signal();
    notifier.wait();
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_EQ(0, allocations.getCount());
}

TEST(SignalNotifierTest, ignoresAFullPipe) {
    Notifier notifier;
    failOnce(inject_write, EAGAIN, [&] { return notifier.signal(), 0; });
    EXPECT_EQ(0, countBytes());
}

TEST(SignalNotifierTest, writeThatFailsEndsTheProcess) {
    for (int const error : {EBADF, EPIPE, EINTR, EIO, EINVAL, ENOSPC}) {
        std::string const text = std::to_string(error) + " (" + strerror(error) + ")\n";
        auto const signal = [error] {
            Notifier notifier;
            Fault const fault(inject_write, error);
            notifier.signal();
        };
        EXPECT_TRUE(abortsWith("write to self-pipe failed with errno=" + text, signal));
        EXPECT_TRUE(abortsWith("framework/src/vesk/SignalQueueImpl-posix", signal));
    }
}

TEST(SignalNotifierTest, withoutAPipeEndsTheProcessWithTheFirstSignal) {
    auto const signal = [] {
        Fault const fault(inject_pipe, EMFILE);
        Notifier notifier;
        notifier.signal();
    };
    EXPECT_TRUE(abortsWith("couldn't create self-pipe", signal));
    EXPECT_TRUE(abortsWith("write to self-pipe failed with errno=9 (Bad file descriptor)", signal));
}

// ---- cancellation ----

TEST(SignalNotifierTest, signalAndDestructorAreNoCancellationPoints) {
    Notifier notifier;
    EXPECT_FALSE(isCanceled([&] {
        notifier.signal();
        EXPECT_EQ(1, countBytes());
    }));
    EXPECT_FALSE(isCanceled([] { Notifier const other; })) << "nor is the destructor";
}

TEST(SignalNotifierTest, waitIsACancellationPoint) {
    VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
    Notifier notifier;
    EXPECT_TRUE(isCanceled([&] { notifier.wait(); }));
}

} // namespace
