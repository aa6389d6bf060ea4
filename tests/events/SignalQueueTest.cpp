#include "SignalSupport.h"
#include "support/Aborts.h"
#include "support/AllocationCounter.h"
#include "support/FailOnce.h"
#include "support/NewFault.h"
#include "support/Sanitizers.h"
#include "support/SyscallFault.h"
#include "support/VtableSlot.h"

#include <array>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/select.h>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))

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
using vesk::Dispatcher;
using vesk::SignalQueue;
using Handler = std::GlobalErrorHandler;
using Signals = std::vector<int>;
using SelfPipe = vesk::SignalQueueImpl::SelfPipe;

// The former names of two functions, which programs call that were built with an older header.
extern "C" ssize_t writeByFormerName(SelfPipe* pipe, void* buffer, unsigned int length) __asm__(
    "_ZN4vesk15SignalQueueImpl8SelfPipe5writeEPvj");
extern "C" bool isSetByFormerName(SelfPipe const* pipe, fd_set* set) __asm__(
    "_ZNK4vesk15SignalQueueImpl8SelfPipe6is_setEP6fd_set");
using Notifier = vesk::SignalQueue::Notifier;

void ignore(int, void*) {}

int countBytes() {
    int bytes = -1;
    EXPECT_EQ(0, ioctl(s_pipe[0], FIONREAD, &bytes));
    return bytes;
}

class SignalQueueTest : public SignalTest {
protected:
    bool sign_on(int signal) { return queue.sign_on(signal, CallLog::record, &log); }

    /// Pops and invokes a message. Returns false if there is none.
    bool pop() { return popOne(queue); }
    /// Pops and invokes all messages. Returns their signals.
    Signals popSignals() {
        size_t const before = log.getCount();
        popAll(queue);
        Signals signals = log.getSignals();
        signals.erase(signals.begin(), signals.begin() + static_cast<ptrdiff_t>(before));
        return signals;
    }
};

/// A sequence of steps: "on", "off" and "push" with signals, "pop" with the signals of all messages there
/// are, and "pop1" with that of the next one.
struct Scenario {
    char const* name;
    std::vector<std::string> steps;
};

Scenario const SCENARIOS[] = {
    {"eachPushSignalsTheNotifierOnceAlsoIfItsSignalIsNotSignedOn",
     {"on 3", "push 3", "notified 1", "push 4", "notified 2", "pop1 3", "pop", "notified 2"}},
    {"threePushesGiveThreeMessagesAndThenNone",
     {"on 5", "push 5 5 5", "pop1 5", "pop1 5", "pop1 5", "pop", "push 5", "pop1 5", "pop"}},
    {"theLowerSignalComesFirstInAnyOrderOfPushes",
     {"on 10 2", "push 10 2", "pop 2 10", "push 2 10", "pop 2 10", "push 10 10 2 2", "pop 2 2 10 10"}},
    {"aSignOffDiscardsPendingSignalsAndANewSignOnStartsFromZero",
     {"on 7", "push 7 7", "off 7", "pop", "on 7", "pop", "push 7", "pop 7"}},
    {"pushesBeforeASignOnAreDiscarded", {"push 7 7", "on 7", "pop", "off 7", "push 7", "on 7", "pop"}},
    {"aSignOffLeavesOtherSignalsAlone", {"on 7 8", "push 8 7", "off 7", "pop 8"}},
    {"aPopLeavesOtherOccurrencesAlone",
     {"on 1 30 64", "push 1 30 64 1 30 64", "pop1 1", "pop 1 30 30 64 64"}}};

VESK_TEST_TABLE(SignalQueueScenario, givesTheExpectedMessages, SignalQueueTest, SCENARIOS) {
    for (std::string const& step : GetParam().steps) {
        SCOPED_TRACE(step);
        std::istringstream words(step);
        std::string verb;
        words >> verb;
        Signals const signals{std::istream_iterator<int>(words), {}};
        if (verb == "notified") {
            EXPECT_EQ(signals[0], notifier.signals);
        } else if (verb == "pop") {
            EXPECT_EQ(signals, popSignals());
        } else if (verb == "pop1") {
            EXPECT_TRUE(pop());
            EXPECT_EQ(signals[0], log.getSignals().back());
        }
        for (int const signal : signals) {
            if (verb == "on") {
                EXPECT_FALSE(sign_on(signal));
            } else if (verb == "off") {
                queue.sign_off(signal);
            } else if (verb == "push") {
                queue.push(signal);
            }
        }
    }
}

TEST_F(SignalQueueTest, aSignalThatIsSignedOnAgainCallsTheNewCallbackWithItsData) {
    CallLog other;
    sign_on(7);
    queue.sign_off(7);
    queue.sign_on(7, CallLog::record, &other);
    queue.push(7);
    EXPECT_TRUE(pop());
    EXPECT_EQ(0u, log.getCount());
    EXPECT_EQ((Signals{7}), other.getSignals());
}

TEST_F(SignalQueueTest, everySignalFrom0To64IsAccepted) {
    Signals expected;
    for (int signal = 64; signal >= 0; --signal) {
        EXPECT_FALSE(sign_on(signal));
        queue.push(signal);
        expected.insert(expected.begin(), signal);
    }
    EXPECT_EQ(expected, popSignals());
    for (int signal = 0; signal <= 64; ++signal) {
        queue.sign_off(signal);
    }
    EXPECT_EQ(65, vesk::TARN_NSIGNALS);
}

TEST_F(SignalQueueTest, aMessageCallsItsCallbackWithSignalAndDataAlsoAfterTheSignOff) {
    sign_on(9);
    queue.push(9);
    vesk::Message* const popped = queue.pop_nonblock();
    ASSERT_NE(nullptr, popped);
    queue.sign_off(9);
    popped->invoke();
    popped->dismiss();
    SignalQueue::Message message(12, CallLog::record, &log);
    message.invoke();
    vesk::Message& base = message;
    base.get_handled_by(nullptr);
    EXPECT_EQ(0, base.abort());
    EXPECT_EQ((Signals{9, 12}), log.getSignals());
}

TEST_F(SignalQueueTest, signingOnAndOffAndAPushAllocateNothingAndAPopOneMessage) {
    AllocationCounter const allocations;
    NewFault const news(New::NOTHROW_SINGLE, 1, 0);
    queue.sign_on(5, ignore, nullptr);
    EXPECT_EQ(nullptr, queue.pop_nonblock());
    {
        Fault const locks(inject_pthread_mutex_lock, 0);
        for (int i = 0; i < 100; ++i) {
            queue.push(5);
        }
        EXPECT_EQ(0, locks.getCalls());
    }
    queue.sign_off(5);
    queue.sign_on(5, ignore, nullptr);
    queue.push(5);
    EXPECT_EQ(0, allocations.getCount());
    EXPECT_EQ(0, news.getCalls());
    EXPECT_TRUE(pop());
    EXPECT_EQ(1, news.getCalls());
    EXPECT_EQ((std::vector<size_t>{sizeof(SignalQueue::Message)}), news.getSizes());
}

TEST_F(SignalQueueTest, withoutMemoryOneOccurrenceIsLostWithoutAReportAndTheOthersStay) {
    for (int const signal : {5, 6}) {
        sign_on(signal);
        queue.push(signal);
    }
    queue.push(5);
    {
        NewFault const no_memory(New::NOTHROW_SINGLE);
        EXPECT_EQ(nullptr, queue.pop_nonblock());
        EXPECT_EQ(1, no_memory.getCalls());
    }
    EXPECT_EQ((Signals{5, 6}), popSignals());
}

// ---- broken preconditions ----

struct BadNumber {
    char const* name;
    int signal;
    char const* condition;
};
BadNumber const BAD_NUMBERS[] = {
    {"minus1", -1, "signal>=0"},
    {"lowest", INT_MIN, "signal>=0"},
    {"first", 65, "signal<TARN_NSIGNALS"},
    {"highest", INT_MAX, "signal<TARN_NSIGNALS"}};

VESK_TEST_TABLE(SignalQueueNumberTest, outOfRangeIsAnAssertionWithoutEffect, SignalQueueTest, BAD_NUMBERS) {
    sign_on(0);
    sign_on(64);
    queue.push(64);
    EXPECT_TRUE(sign_on(GetParam().signal));
    queue.sign_off(GetParam().signal);
    queue.push(GetParam().signal);
    std::string expected;
    for (char const* const function : {"sign_on", "sign_off", "push"}) {
        expected += expected.empty() ? "" : "\n";
        expected += std::string("ASSERT framework/src/vesk/SignalQueuePosixBase ") + function + ": " +
            GetParam().condition;
    }
    expectEvents(expected);
    EXPECT_EQ(1, notifier.signals);
    EXPECT_EQ((Signals{64}), popSignals());
}

TEST_F(SignalQueueTest, signingOnTwiceAndSigningOffTwiceAreAssertionsAndKeepTheFirstCallback) {
    queue.sign_off(5);
    sign_on(5);
    queue.push(5);
    CallLog other;
    EXPECT_TRUE(queue.sign_on(5, CallLog::record, &other));
    expectEvents("ASSERT framework/src/vesk/SignalQueuePosixBase sign_off: signals[signal].callback!=NULL\n"
                 "ASSERT framework/src/vesk/SignalQueuePosixBase sign_on: signals[signal].callback==NULL");
    EXPECT_EQ((Signals{5}), popSignals());
    EXPECT_EQ(0u, other.getCount());
}

/// A hook that throws, and counts the locks that are locked then. Only the queue's lock is used meanwhile.
class ThrowingHook {
public:
    ThrowingHook() : m_hook{&ThrowingHook::call, this}, m_before(Handler::setHook(&m_hook)) {}
    ~ThrowingHook() { Handler::setHook(m_before); }
    ThrowingHook(ThrowingHook const&) = delete;
    ThrowingHook& operator=(ThrowingHook const&) = delete;

    int locked = -1;

private:
    static bool call(Handler::Event const& event, void* context) {
        auto& self = *static_cast<ThrowingHook*>(context);
        self.locked = self.m_locks.getCalls() - self.m_unlocks.getCalls();
        throw std::runtime_error(event.expression);
    }

    Fault const m_locks{inject_pthread_mutex_lock, 0};
    Fault const m_unlocks{inject_pthread_mutex_unlock, 0};
    Handler::Hook m_hook;
    Handler::Hook const* m_before;
};

TEST_F(SignalQueueTest, anAssertionAboutARowIsRaisedWithTheLockLockedAndReleasesItOnUnwinding) {
    struct {
        void (*call)(SignalQueue&);
        int locked;
    } const rows[] = {
        {[](SignalQueue& q) { q.sign_on(5, ignore, nullptr); }, 1},
        {[](SignalQueue& q) { q.sign_off(6); }, 1},
        {[](SignalQueue& q) { q.sign_on(65, ignore, nullptr); }, 0},
    };
    sign_on(5);
    for (auto const& row : rows) {
        ThrowingHook const hook;
        EXPECT_THROW(row.call(queue), std::runtime_error);
        EXPECT_EQ(row.locked, hook.locked);
    }
    // The lock is free for other threads and for this one.
    std::thread([this] { queue.push(5); }).join();
    std::thread([this] { EXPECT_TRUE(pop()); }).join();
    EXPECT_FALSE(pop());
}

// ---- threads ----

TEST_F(SignalQueueTest, noPushIsLostOrDoubledBetweenPopsOfAnEmptyQueue) {
    constexpr int PUSHERS = 3;
    constexpr int PUSHES = 20000;
    std::atomic<int> calls{0};
    queue.sign_on(
        5, [](int, void* count) { ++*static_cast<std::atomic<int>*>(count); }, &calls);
    std::atomic<int> running{PUSHERS};
    // Two others pop, as several dispatchers may: mostly they find no message and repair the count.
    runInThreads(PUSHERS + 2, [&](int thread) {
        if (thread < PUSHERS) {
            for (int n = 0; n < PUSHES; ++n) {
                queue.push(5);
            }
            --running;
        }
        while (thread >= PUSHERS && running > 0) {
            pop();
        }
    });
    popAll(queue);
    EXPECT_EQ(PUSHERS * PUSHES, calls);
}

TEST_F(SignalQueueTest, signingOnAndOffDuringPushesAndPopsKeepsCallbackAndDataTogether) {
    struct Client {
        int signal;
        std::atomic<int> wrong{0};
    };
    Client clients[2]{{5, {}}, {6, {}}};
    auto const callback = [](int signal, void* data) {
        auto& client = *static_cast<Client*>(data);
        client.wrong += signal == client.signal ? 0 : 1;
    };
    std::atomic<bool> done{false};
    runInThreads(3, [&](int thread) {
        for (int i = 0; thread == 0 && i < 5000; ++i) {
            for (Client& client : clients) {
                queue.sign_on(client.signal, callback, &client);
            }
            for (Client& client : clients) {
                queue.sign_off(client.signal);
            }
        }
        done = done || thread == 0;
        while (!done) {
            if (thread == 1) {
                queue.push(5);
                queue.push(6);
            } else {
                pop();
            }
        }
    });
    EXPECT_EQ(0, clients[0].wrong);
    EXPECT_EQ(0, clients[1].wrong);
}

// ---- with its own notifier and a dispatcher ----

TEST(SignalQueueDispatcherTest, eachPushBecomesACallOnTheThreadOfTheDispatcher) {
    CallLog log;
    Notifier notifier;
    SignalQueue queue(notifier);
    Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    queue.sign_on(SIGUSR1, CallLog::record, &log);
    std::thread loop([&] { dispatcher.run(); });
    for (size_t i = 1; i <= 100 && !HasFailure(); ++i) {
        queue.push(SIGUSR1);
        EXPECT_TRUE(log.waitFor(i));
    }
    EXPECT_EQ(100u, log.getCount());
    EXPECT_NE(getThreadId(), log.getCalls()[0].thread);
    dispatcher.stop();
    loop.join();
}

TEST(SignalQueueDispatcherTest, aLowerSignalOvertakesTheRestOfAHigherOne) {
    Notifier notifier;
    SignalQueue queue(notifier);
    Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    Signals calls;
    Callback callback{[&](int signal) {
        calls.push_back(signal);
        if (calls.size() == 1) {
            queue.push(2);
        }
        if (calls.size() == 4) {
            dispatcher.stop();
        }
    }};
    queue.sign_on(2, Callback::run, &callback);
    queue.sign_on(10, Callback::run, &callback);
    for (int i = 0; i < 3; ++i) {
        queue.push(10);
    }
    dispatcher.run();
    EXPECT_EQ((Signals{10, 2, 10, 10}), calls);
}

TEST(
    SignalQueueDispatcherTest,
    aPushOfASignalThatIsNotSignedOnWakesTheDispatcherAndAFullPipeDoesNotFailAPush) {
    Notifier notifier;
    SignalQueue queue(notifier);
    queue.push(5);
    notifier.wait(); // Returns.
    EXPECT_EQ(nullptr, queue.pop_nonblock());
    queue.sign_on(5, ignore, nullptr);
    int const size = fcntl(s_pipe[1], F_SETPIPE_SZ, 4096);
    ASSERT_GE(size, 4096);
    int const pushes = size + 100;
    for (int i = 0; i < pushes; ++i) {
        queue.push(5);
    }
    EXPECT_EQ(size, countBytes());
    int messages = 0;
    while (vesk::Message* const message = queue.pop_nonblock()) {
        ++messages;
        message->dismiss();
    }
    EXPECT_EQ(pushes, messages);
}

constexpr char const* NOT_CREATED =
    "ASSERT framework/src/vesk/SignalQueueImpl-posix SelfPipe: result==0: couldn't create self-pipe";

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
    g_failing_syscall = SYS_write;
    EXPECT_EQ(-1, failOnce(inject_syscall, EIO, [&] { return self_pipe.write(data, 1); }));
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

TEST(SelfPipeTest, worksByItsFormerNames) {
    SelfPipe self_pipe;
    char byte = 'a';
    EXPECT_EQ(1, writeByFormerName(&self_pipe, &byte, 1));
    fd_set set;
    FD_ZERO(&set);
    EXPECT_FALSE(isSetByFormerName(&self_pipe, &set));
    FD_SET(self_pipe.getReadEnd(), &set);
    EXPECT_TRUE(isSetByFormerName(&self_pipe, &set));
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

VESK_TEST_BY(expectInChild, SelfPipeTest, creationWithoutAFreeDescriptorIsAnAssertion) {
    rlimit limit{};
    EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = 4; // At most one more is free.
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EventRecorder const events;
    SelfPipe const self_pipe;
    EXPECT_EQ(NOT_CREATED, events.getText());
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
struct HighNumber : NamedRow {
    int read_end;
    char const* events_of_set;
};

constexpr char const* NOT_IN_SET = "ASSERT framework/src/vesk/SignalQueueImpl-posix set: read_end<FD_SETSIZE";
HighNumber const HIGH_NUMBERS[] = {
    {"lastOfASet", FD_SETSIZE - 1, ""},
    {"firstBeyond", FD_SETSIZE, NOT_IN_SET},
    {"beyond", 1500, NOT_IN_SET}};
VESK_TEST_TABLE(
    SelfPipeHighNumberTest, isWaitedForAndASetChangesNoMemoryBeyondItsEnd, testing::Test, HIGH_NUMBERS) {
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

VESK_TEST_BY(expectInChild, SignalNotifierTest, returnsFromAnInterruptedWaitWithAnEmptyPipe) {
    ActionGuard const handled(SIGUSR1, [](int) {});
    Notifier notifier;
    Sleeper waiter([&] { notifier.wait(); });
    waiter.awaitSleep();
    waiter.kill(SIGUSR1);
    waiter.join();
    notifier.signal();
    notifier.wait();
    EXPECT_EQ(0, countBytes());
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
    g_failing_syscall = SYS_write;
    failOnce(inject_syscall, EAGAIN, [&] { return notifier.signal(), 0; });
    EXPECT_EQ(0, countBytes());
}

TEST(SignalNotifierTest, writeThatFailsEndsTheProcess) {
    for (int const error : {EBADF, EPIPE, EINTR, EIO, EINVAL, ENOSPC}) {
        std::string const text = std::to_string(error) + " (" + strerror(error) + ")\n";
        auto const signal = [error] {
            Notifier notifier;
            g_failing_syscall = SYS_write;
            Fault const fault(inject_syscall, error);
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

TEST(SignalNotifierTest, withoutAPipeWaitsForASignal) {
    expectInChild([] {
        ActionGuard const handled(
            SIGUSR1, [](int) {}, SA_RESTART);
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

// ---- the classes ----

TEST(SignalQueueClassTest, haveTheirBasesAndSlots) {
    using namespace vesk;
    static_assert(!std::is_polymorphic_v<SignalQueueBase>);
    static_assert(std::is_base_of_v<vesk::Message, SignalQueueBase::Message>);
    static_assert(std::is_base_of_v<SignalQueueBase, SignalQueuePosixBase>);
    static_assert(std::is_convertible_v<SignalQueuePosixBase*, vesk::Message::Source*>);
    static_assert(std::is_base_of_v<SignalQueuePosixBase, SignalQueueImpl>);
    static_assert(std::is_base_of_v<SignalQueueImpl, SignalQueue>);
    static_assert(std::is_base_of_v<Dispatcher::Notifier, SignalQueueImpl::NotifierImpl>);
    static_assert(std::is_base_of_v<SignalQueueImpl::NotifierImpl, SignalQueue::Notifier>);
    static_assert(std::has_virtual_destructor_v<SignalQueue>);
    static_assert(!std::is_copy_constructible_v<SignalQueue>);
    static_assert(!std::is_copy_constructible_v<SignalQueue::Notifier>);
    EXPECT_EQ(2, getSlot(&SignalQueue::pop_nonblock));
    EXPECT_EQ(2, getSlot(&SignalQueue::Notifier::wait));
    EXPECT_EQ(3, getSlot(&SignalQueue::Notifier::signal));
}

TEST_F(SignalQueueTest, aPopOfAnEmptyQueueTakesTheCountBelowZeroForAMoment) {
    using Words = std::array<int32_t, sizeof(SignalQueue) / sizeof(int32_t)>;
    sign_on(5);
    Words before;
    memcpy(before.data(), static_cast<void const*>(&queue), sizeof before);
    queue.push(5);
    Words after;
    memcpy(after.data(), static_cast<void const*>(&queue), sizeof after);
    auto const changed = std::mismatch(after.begin(), after.end(), before.begin()).first;
    ASSERT_NE(after.end(), changed) << "the count is a part of the object";
    int32_t const* const count = reinterpret_cast<int32_t const*>(&queue) + (changed - after.begin());
    EXPECT_EQ(1, *count);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(i == 0, pop());
        EXPECT_EQ(0, *count);
    }

    std::atomic<bool> seen{false};
    std::thread popper([&] {
        while (!seen) {
            EXPECT_FALSE(pop());
        }
    });
    EXPECT_TRUE(eventually([count] { return __atomic_load_n(count, __ATOMIC_SEQ_CST) == -1; }));
    seen = true;
    popper.join();
    EXPECT_EQ(0, *count);
}

} // namespace
