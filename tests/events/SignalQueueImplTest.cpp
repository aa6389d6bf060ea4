#include "FatalSupport.h"
#include "SignalSupport.h"
#include "support/AllocationCounter.h"
#include "support/ErrorRow.h"
#include "support/FailOnce.h"
#include "support/Privileges.h"
#include "support/Sanitizers.h"

#include <sys/ioctl.h>
#include <sys/select.h>

VESK_INJECT_ERRNO(ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {
// The descriptors that were closed, if it is set.
std::vector<int>* s_closed = nullptr;
} // namespace

support::Injected inject_close("close");
extern "C" VESK_UNWATCHED int close(int fd) {
    if (s_closed != nullptr) {
        s_closed->push_back(fd);
    }
    return reinterpret_cast<int (*)(int)>(inject_close.getReal())(fd);
}

support::Injected inject_fcntl("fcntl");
extern "C" VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    int error = 0;
    if (inject_fcntl.fails(error)) {
        errno = error;
        return -1;
    }
    va_list arguments;
    va_start(arguments, command);
    long const argument = va_arg(arguments, long);
    va_end(arguments);
    return reinterpret_cast<int (*)(int, int, ...)>(inject_fcntl.getReal())(fd, command, argument);
}

VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))

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

class SelfPipeCreationTest : public testing::TestWithParam<int> {};

TEST_P(SelfPipeCreationTest, failureIsAnAssertionAndLeavesNoPipe) {
    fd_set set;
    FD_ZERO(&set);
    int highest = 7;
    std::vector<int> closed;
    {
        EventRecorder const events;
        Fault const fault(inject_pipe, GetParam());
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

INSTANTIATE_TEST_SUITE_P(All, SelfPipeCreationTest, testing::Values(EMFILE, ENFILE, EFAULT), RowName());

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

struct FlagsFailure {
    char const* name;
    int nth;
    int times;
    int flags_after;
};
class SelfPipeFlagsTest : public testing::TestWithParam<FlagsFailure> {};

TEST_P(SelfPipeFlagsTest, failureIsAnAssertionAndThePipeStillWorks) {
    EventRecorder const events;
    auto fault = std::make_unique<Fault>(inject_fcntl, EINVAL, GetParam().nth, GetParam().times);
    SelfPipe self_pipe;
    fault.reset();
    EXPECT_EQ(
        "ASSERT framework/src/vesk/SignalQueueImpl-posix SelfPipe: errno==0: "
        "couldn't configure self-pipe as non-blocking",
        events.getText());
    EXPECT_EQ(O_WRONLY | GetParam().flags_after, fcntl(s_pipe[1], F_GETFL, 0L) & ~O_LARGEFILE);
    EXPECT_EQ(1, self_pipe.write("x", 1));
    char byte = 0;
    EXPECT_EQ(1, self_pipe.read(&byte, 1));
}

INSTANTIATE_TEST_SUITE_P(
    All, SelfPipeFlagsTest,
    testing::Values(
        // If the old flags cannot be read, only the new one is set.
        FlagsFailure{"F_GETFL", 1, 1, O_NONBLOCK}, FlagsFailure{"F_SETFL", 2, 1, 0},
        FlagsFailure{"Both", 1, 2, 0}),
    [](auto const& row) { return row.param.name; });

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
    for (int left = 4; left >= 3; --left) {
        Fault const reads(inject_read, 0);
        notifier.wait();
        EXPECT_EQ(left, countBytes());
        EXPECT_EQ(1, reads.getCalls());
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
    Fault const fault(inject_read, EINTR);
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
    EXPECT_EQ(0, (failOnce(inject_write, EAGAIN, [&] {
                  notifier.signal();
                  return countBytes();
              })));
}

class SignalNotifierWriteTest : public testing::TestWithParam<int> {};

TEST_P(SignalNotifierWriteTest, failureEndsTheProcess) {
    int const error = GetParam();
    auto const signal = [error] {
        Notifier notifier;
        Fault const fault(inject_write, error);
        notifier.signal();
    };
    EXPECT_TRUE(abortsWith(
        "write to self-pipe failed with errno=" + std::to_string(error) + " (" + strerror(error) + ")\n",
        signal));
    EXPECT_TRUE(abortsWith("framework/src/vesk/SignalQueueImpl-posix", signal));
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalNotifierWriteTest, testing::Values(EBADF, EPIPE, EINTR, EIO, EINVAL, ENOSPC), RowName());

TEST(SignalNotifierTest, withoutAPipeEndsTheProcessWithTheFirstSignal) {
    auto const signal = [] {
        Fault const fault(inject_pipe, EMFILE);
        Notifier notifier;
        notifier.signal();
    };
    EXPECT_TRUE(abortsWith("couldn't create self-pipe", signal));
    EXPECT_TRUE(abortsWith("write to self-pipe failed with errno=9 (Bad file descriptor)", signal));
}

TEST(SignalNotifierTest, withoutAPipeWaitsForASignal) {
    expectInChild([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        EXPECT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
        EventRecorder const recorder;
        Fault const fault(inject_pipe, EMFILE);
        Notifier notifier;
        Sleeper waiter([&] { notifier.wait(); });
        waiter.awaitSleep();
        waiter.kill(SIGUSR1);
        waiter.join();
    });
}

// ---- cancellation ----

TEST(SignalNotifierTest, signalIsNoCancellationPoint) {
    Notifier notifier;
    EXPECT_FALSE(isCanceled([&] {
        notifier.signal();
        EXPECT_EQ(1, countBytes());
    }));
}

TEST(SignalNotifierTest, waitIsACancellationPoint) {
    if (!FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    Notifier notifier;
    EXPECT_TRUE(isCanceled([&] { notifier.wait(); }));
}

TEST(SignalNotifierTest, isDestroyedInAThreadThatIsCanceled) {
    EXPECT_FALSE(isCanceled([] { Notifier const other; }));
}

} // namespace
