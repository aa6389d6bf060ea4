#include "support/AllocationCounter.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include "SignalSupport.h"

#include <vesk/SignalQueue.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <ostream>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

support::Injected inject_pthread_mutex_unlock("pthread_mutex_unlock");
extern "C" VESK_UNWATCHED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    int error = 0;
    bool const fails = inject_pthread_mutex_unlock.fails(error);
    if (fails && error == EPERM) {
        return error;
    }
    // Other failures are told of a lock that is free all the same, so that it can be destroyed.
    int const result =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(inject_pthread_mutex_unlock.getReal())(mutex);
    return fails ? error : result;
}

namespace {
// The pipe that was made last.
int s_pipe[2] = {-1, -1};
} // namespace

support::Injected inject_pipe("pipe");
extern "C" VESK_UNWATCHED int pipe(int* ends) {
    using Function = int (*)(int*);
    auto const real = reinterpret_cast<Function>(inject_pipe.getReal());
    if (!support::isOfLibrary(__builtin_return_address(0))) {
        return real(ends);
    }
    int const result = real(ends);
    s_pipe[0] = ends[0];
    s_pipe[1] = ends[1];
    return result;
}

namespace {

using support::AllocationCounter;
using support::CallLog;
using support::EventRecorder;
using support::Fault;
using support::getSlot;
using support::New;
using support::NewFault;
using support::waitUntil;
using vesk::Dispatcher;
using vesk::SignalQueue;
using Handler = std::GlobalErrorHandler;

/// Counts its signals, for a queue that no dispatcher serves.
class CountingNotifier : public Dispatcher::Notifier {
public:
    void wait() override { FAIL() << "nobody waits here"; }
    void signal() override { ++signals; }

    std::atomic<int> signals{0};
};

class SignalQueueTest : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_FALSE(std::ErrorStorage::isError(true));
        while (pop()) {}
    }

    bool sign_on(int signal) { return queue.sign_on(signal, CallLog::record, &log); }

    /// Pops and carries out the next message. False if there is none.
    bool pop() {
        vesk::Message* const message = queue.pop_nonblock();
        if (message == nullptr) {
            return false;
        }
        message->invoke();
        message->dismiss();
        return true;
    }

    /// The signals of all messages there are.
    std::vector<int> popAll() {
        size_t const before = log.getCount();
        while (pop()) {}
        std::vector<int> signals = log.getSignals();
        signals.erase(signals.begin(), signals.begin() + static_cast<ptrdiff_t>(before));
        return signals;
    }

    CallLog log;
    CountingNotifier notifier;
    SignalQueue queue{notifier};
};

using Signals = std::vector<int>;

TEST_F(SignalQueueTest, ThreePushesGiveThreeMessagesAndThenNone) {
    EXPECT_FALSE(sign_on(5));
    queue.push(5);
    queue.push(5);
    queue.push(5);
    EXPECT_TRUE(pop());
    EXPECT_TRUE(pop());
    EXPECT_TRUE(pop());
    EXPECT_FALSE(pop());
    EXPECT_EQ((Signals{5, 5, 5}), log.getSignals());
    // The count is back at 0, not below: the next push gives a message again.
    queue.push(5);
    EXPECT_TRUE(pop());
    EXPECT_FALSE(pop());
}

TEST_F(SignalQueueTest, ManyEmptyPopsLeaveTheCountAtZero) {
    sign_on(5);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(pop());
    }
    queue.push(5);
    EXPECT_EQ((Signals{5}), popAll());
}

TEST_F(SignalQueueTest, TheLowerSignalComesFirstWhateverTheOrderOfArrival) {
    sign_on(10);
    sign_on(2);
    queue.push(10);
    queue.push(2);
    EXPECT_EQ((Signals{2, 10}), popAll());
    queue.push(2);
    queue.push(10);
    EXPECT_EQ((Signals{2, 10}), popAll());
    queue.push(10);
    queue.push(10);
    queue.push(2);
    queue.push(2);
    EXPECT_EQ((Signals{2, 2, 10, 10}), popAll());
}

TEST_F(SignalQueueTest, ASignOffForgetsWhatIsPendingAndANewSignOnStartsFromZero) {
    sign_on(7);
    queue.push(7);
    queue.push(7);
    queue.sign_off(7);
    EXPECT_FALSE(pop());
    sign_on(7);
    EXPECT_FALSE(pop());
    queue.push(7);
    EXPECT_EQ((Signals{7}), popAll());
}

TEST_F(SignalQueueTest, WhatWasPushedBeforeASignOnIsForgotten) {
    queue.push(7);
    queue.push(7);
    sign_on(7);
    EXPECT_FALSE(pop());
    queue.sign_off(7);
    queue.push(7);
    sign_on(7);
    EXPECT_FALSE(pop());
}

TEST_F(SignalQueueTest, ASignOffLeavesOtherSignalsAlone) {
    sign_on(7);
    sign_on(8);
    queue.push(8);
    queue.push(7);
    queue.sign_off(7);
    EXPECT_EQ((Signals{8}), popAll());
}

TEST_F(SignalQueueTest, ASignalThatIsSignedOnAgainCallsTheNewCallbackWithItsData) {
    CallLog other;
    sign_on(7);
    queue.sign_off(7);
    queue.sign_on(7, CallLog::record, &other);
    queue.push(7);
    EXPECT_TRUE(pop());
    EXPECT_EQ(0u, log.getCount());
    EXPECT_EQ((Signals{7}), other.getSignals());
}

TEST_F(SignalQueueTest, EverySignalFrom0To64IsAccepted) {
    EventRecorder const events;
    Signals expected;
    for (int signal = 64; signal >= 0; --signal) {
        EXPECT_FALSE(sign_on(signal));
        queue.push(signal);
        expected.insert(expected.begin(), signal);
    }
    EXPECT_EQ(expected, popAll());
    for (int signal = 0; signal <= 64; ++signal) {
        queue.sign_off(signal);
    }
    EXPECT_EQ("", events.getText());
    EXPECT_EQ(65, vesk::TARN_NSIGNALS);
}

TEST_F(SignalQueueTest, EachPushSignalsTheNotifierOnceAlsoForASignalThatIsNotSignedOn) {
    sign_on(3);
    queue.push(3);
    EXPECT_EQ(1, notifier.signals);
    queue.push(4);
    EXPECT_EQ(2, notifier.signals);
    EXPECT_TRUE(pop());
    EXPECT_FALSE(pop());
    EXPECT_EQ(2, notifier.signals);
}

TEST_F(SignalQueueTest, ThePopOfAnOccurrenceLeavesTheRestOfTheTableAlone) {
    for (int const signal : {1, 30, 64}) {
        sign_on(signal);
        queue.push(signal);
        queue.push(signal);
    }
    EXPECT_TRUE(pop());
    EXPECT_EQ((Signals{1, 30, 30, 64, 64}), popAll());
}

TEST_F(SignalQueueTest, AMessageThatWasPoppedOutlivesTheSignOff) {
    sign_on(9);
    queue.push(9);
    vesk::Message* const message = queue.pop_nonblock();
    ASSERT_NE(nullptr, message);
    queue.sign_off(9);
    message->invoke();
    message->dismiss();
    EXPECT_EQ((Signals{9}), log.getSignals());
}

TEST_F(SignalQueueTest, AMessageCallsItsCallbackWithSignalAndData) {
    SignalQueue::Message message(12, CallLog::record, &log);
    message.invoke();
    vesk::Message& base = message;
    base.get_handled_by(nullptr);
    EXPECT_EQ(0, base.abort());
    EXPECT_EQ((Signals{12}), log.getSignals());
}

TEST_F(SignalQueueTest, APushAllocatesNothingAndTakesNoLock) {
    sign_on(5);
    Fault const locks(inject_pthread_mutex_lock, 0);
    AllocationCounter const allocations;
    NewFault const news(New::NOTHROW_SINGLE, 1, 0);
    for (int i = 0; i < 100; ++i) {
        queue.push(5);
    }
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_EQ(0, allocations.getCount());
    EXPECT_EQ(0, news.getCalls());
}

TEST_F(SignalQueueTest, SigningOnAndOffAllocatesNothingAndAPopOneMessage) {
    AllocationCounter const allocations;
    NewFault const news(New::NOTHROW_SINGLE, 1, 0);
    queue.sign_on(
        5, [](int, void*) {}, nullptr);
    EXPECT_EQ(nullptr, queue.pop_nonblock());
    queue.push(5);
    queue.sign_off(5);
    EXPECT_EQ(0, allocations.getCount());
    EXPECT_EQ(0, news.getCalls());
    queue.sign_on(
        5, [](int, void*) {}, nullptr);
    queue.push(5);
    EXPECT_TRUE(pop());
    EXPECT_EQ(1, news.getCalls());
    EXPECT_EQ((std::vector<size_t>{sizeof(SignalQueue::Message)}), news.getSizes());
}

TEST_F(SignalQueueTest, WithoutMemoryOneOccurrenceIsLostSilentlyAndTheOthersStay) {
    EventRecorder const events;
    sign_on(5);
    sign_on(6);
    queue.push(6);
    queue.push(5);
    queue.push(5);
    {
        NewFault const no_memory(New::NOTHROW_SINGLE);
        EXPECT_EQ(nullptr, queue.pop_nonblock());
        EXPECT_EQ(1, no_memory.getCalls());
    }
    EXPECT_EQ((Signals{5, 6}), popAll());
    EXPECT_EQ("", events.getText());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

// ---- broken preconditions ----

struct BadNumber {
    int signal;
    char const* condition;
};
void PrintTo(BadNumber const& row, std::ostream* out) {
    *out << row.signal;
}

class SignalQueueNumberTest : public SignalQueueTest, public testing::WithParamInterface<BadNumber> {};

TEST_P(SignalQueueNumberTest, OfNoSignalIsAnAssertionAndTouchesNothing) {
    sign_on(0);
    sign_on(64);
    queue.push(64);
    std::string const start = "ASSERT framework/src/vesk/SignalQueuePosixBase ";
    std::string const end = std::string(": ") + GetParam().condition;
    {
        EventRecorder const events;
        EXPECT_TRUE(sign_on(GetParam().signal));
        EXPECT_EQ(start + "sign_on" + end, events.getText());
    }
    {
        EventRecorder const events;
        queue.sign_off(GetParam().signal);
        EXPECT_EQ(start + "sign_off" + end, events.getText());
    }
    {
        EventRecorder const events;
        queue.push(GetParam().signal);
        EXPECT_EQ(start + "push" + end, events.getText());
    }
    EXPECT_EQ(1, notifier.signals);
    EXPECT_EQ((Signals{64}), popAll());
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalQueueNumberTest,
    testing::Values(
        BadNumber{-1, "signal>=0"}, BadNumber{INT_MIN, "signal>=0"}, BadNumber{65, "signal<TARN_NSIGNALS"},
        BadNumber{INT_MAX, "signal<TARN_NSIGNALS"}),
    [](auto const& row) { return "row" + std::to_string(row.index); });

TEST_F(SignalQueueTest, SigningOnTwiceIsAnAssertionAndLeavesTheFirstOne) {
    sign_on(5);
    queue.push(5);
    CallLog other;
    EventRecorder const events;
    EXPECT_TRUE(queue.sign_on(5, CallLog::record, &other));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/SignalQueuePosixBase sign_on: signals[signal].callback==NULL",
        events.getText());
    EXPECT_EQ((Signals{5}), popAll());
    EXPECT_EQ(0u, other.getCount());
}

TEST_F(SignalQueueTest, SigningOffWhatIsNotSignedOnIsAnAssertion) {
    EventRecorder const events;
    queue.sign_off(5);
    EXPECT_EQ(
        "ASSERT framework/src/vesk/SignalQueuePosixBase sign_off: signals[signal].callback!=NULL",
        events.getText());
    sign_on(5);
    queue.push(5);
    EXPECT_EQ((Signals{5}), popAll());
}

/// A hook that throws, after a look at the locks. A queue's lock is all that is taken and given back meanwhile.
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

TEST_F(SignalQueueTest, AnAssertionAboutARowIsRaisedWithTheLockAndReleasesItWhenItUnwinds) {
    sign_on(5);
    {
        ThrowingHook const hook;
        EXPECT_THROW(sign_on(5), std::runtime_error);
        EXPECT_EQ(1, hook.locked);
    }
    {
        ThrowingHook const hook;
        EXPECT_THROW(queue.sign_off(6), std::runtime_error);
        EXPECT_EQ(1, hook.locked);
    }
    {
        ThrowingHook const hook;
        EXPECT_THROW(sign_on(65), std::runtime_error);
        EXPECT_EQ(0, hook.locked);
    }
    // Another thread gets the lock, and so does this one: it would notice if it still held it.
    EventRecorder const events;
    std::thread([this] { queue.push(5); }).join();
    std::thread([this] { EXPECT_TRUE(pop()); }).join();
    EXPECT_FALSE(pop());
    EXPECT_EQ("", events.getText());
}

struct LockFailure {
    char const* function;
    void (*call)(SignalQueue&);
};
void PrintTo(LockFailure const& row, std::ostream* out) {
    *out << row.function;
}

class SignalQueueLockTest : public SignalQueueTest, public testing::WithParamInterface<LockFailure> {};

TEST_P(SignalQueueLockTest, ThatCannotBeHadIsAnAbort) {
    queue.sign_on(
        5, [](int, void*) {}, nullptr);
    std::string const where =
        std::string("ABORT framework/src/vesk/SignalQueuePosixBase ") + GetParam().function;
    EventRecorder const events;
    Fault const lock(inject_pthread_mutex_lock, EINVAL);
    // What was not locked cannot be unlocked either. The first unlocking is that of the recorder.
    Fault const unlock(inject_pthread_mutex_unlock, EPERM, 2);
    GetParam().call(queue);
    EXPECT_EQ(where + ": error locking\n" + where + ": error unlocking", events.getText());
}

TEST_P(SignalQueueLockTest, ThatCannotBeUnlockedIsAnAbort) {
    EventRecorder const events;
    SignalQueue other(notifier);
    other.sign_on(
        5, [](int, void*) {}, nullptr);
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        GetParam().call(other);
    }
    EXPECT_EQ(
        std::string("ABORT framework/src/vesk/SignalQueuePosixBase ") + GetParam().function +
            ": error unlocking",
        events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalQueueLockTest,
    testing::Values(
        LockFailure{
            "sign_on",
            [](SignalQueue& queue) {
                queue.sign_on(
                    6, [](int, void*) {}, nullptr);
            }},
        LockFailure{"sign_off", [](SignalQueue& queue) { queue.sign_off(5); }},
        LockFailure{"pop_nonblock", [](SignalQueue& queue) { EXPECT_EQ(nullptr, queue.pop_nonblock()); }}),
    [](auto const& row) { return std::string(row.param.function); });

// ---- threads ----

TEST_F(SignalQueueTest, NoPushIsLostOrDoubledBetweenPopsOfAnEmptyQueue) {
    constexpr int PUSHERS = 3;
    constexpr int PUSHES = 20000;
    std::atomic<int> calls{0};
    queue.sign_on(
        5, [](int, void* count) { ++*static_cast<std::atomic<int>*>(count); }, &calls);
    std::atomic<int> running{PUSHERS};
    std::vector<std::thread> threads;
    for (int i = 0; i < PUSHERS; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < PUSHES; ++n) {
                queue.push(5);
            }
            --running;
        });
    }
    // Two at once, as several dispatchers could: mostly they find nothing and repair the count.
    threads.emplace_back([&] {
        while (running > 0) {
            pop();
        }
    });
    while (running > 0) {
        pop();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    while (pop()) {}
    EXPECT_EQ(PUSHERS * PUSHES, calls);
}

TEST_F(SignalQueueTest, SigningOnAndOffBesidesPushesAndPopsKeepsCallbackAndDataTogether) {
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
    std::thread pusher([&] {
        while (!done) {
            queue.push(5);
            queue.push(6);
        }
    });
    std::thread popper([&] {
        while (!done) {
            pop();
        }
    });
    for (int i = 0; i < 5000; ++i) {
        for (Client& client : clients) {
            queue.sign_on(client.signal, callback, &client);
        }
        for (Client& client : clients) {
            queue.sign_off(client.signal);
        }
    }
    done = true;
    pusher.join();
    popper.join();
    EXPECT_EQ(0, clients[0].wrong);
    EXPECT_EQ(0, clients[1].wrong);
}

// ---- with its own notifier and a dispatcher ----

/// A thread that runs a dispatcher over one queue.
class Loop {
public:
    Loop() : m_thread([this] { m_dispatcher.run(); }) {}
    ~Loop() {
        m_dispatcher.stop();
        m_thread.join();
    }
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;

    SignalQueue& getQueue() { return m_queue; }

private:
    struct SourcedDispatcher : Dispatcher {
        SourcedDispatcher(Notifier& loop_notifier, SignalQueue& queue) : Dispatcher(loop_notifier) {
            add_source(queue);
        }
    };

    SignalQueue::Notifier m_notifier;
    SignalQueue m_queue{m_notifier};
    SourcedDispatcher m_dispatcher{m_notifier, m_queue};
    std::thread m_thread;
};

TEST(SignalQueueDispatcherTest, EachPushBecomesACallOnTheDispatchersThread) {
    CallLog log;
    Loop loop;
    loop.getQueue().sign_on(SIGUSR1, CallLog::record, &log);
    for (size_t i = 1; i <= 100; ++i) {
        loop.getQueue().push(SIGUSR1);
        ASSERT_TRUE(log.waitFor(i));
    }
    EXPECT_EQ(100u, log.getCount());
    EXPECT_NE(support::getThreadId(), log.getCalls()[0].thread);
}

TEST(SignalQueueDispatcherTest, ALowerSignalOvertakesTheRestOfAHigherOne) {
    SignalQueue::Notifier notifier;
    SignalQueue queue(notifier);
    Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    struct Client {
        SignalQueue& queue;
        Dispatcher& dispatcher;
        Signals calls;
    } client{queue, dispatcher, {}};
    auto const callback = [](int signal, void* data) {
        auto& self = *static_cast<Client*>(data);
        self.calls.push_back(signal);
        if (self.calls.size() == 1) {
            self.queue.push(2);
        }
        if (self.calls.size() == 4) {
            self.dispatcher.stop();
        }
    };
    queue.sign_on(2, callback, &client);
    queue.sign_on(10, callback, &client);
    for (int i = 0; i < 3; ++i) {
        queue.push(10);
    }
    dispatcher.run();
    EXPECT_EQ((Signals{10, 2, 10, 10}), client.calls);
}

TEST(SignalQueueDispatcherTest, APushThatNobodySignedOnForWakesTheDispatcherWhichFindsNothing) {
    SignalQueue::Notifier notifier;
    SignalQueue queue(notifier);
    queue.push(5);
    notifier.wait(); // Returns.
    EXPECT_EQ(nullptr, queue.pop_nonblock());
}

TEST(SignalQueueDispatcherTest, AFullPipeDoesNotFailAPush) {
    CallLog log;
    SignalQueue::Notifier notifier;
    SignalQueue queue(notifier);
    queue.sign_on(
        5, [](int, void*) {}, nullptr);
    int const size = fcntl(s_pipe[1], F_SETPIPE_SZ, 4096);
    ASSERT_GE(size, 4096);
    EventRecorder const events;
    int const pushes = size + 100;
    for (int i = 0; i < pushes; ++i) {
        queue.push(5);
    }
    int bytes = 0;
    EXPECT_EQ(0, ioctl(s_pipe[0], FIONREAD, &bytes));
    EXPECT_EQ(size, bytes);
    int messages = 0;
    while (vesk::Message* const message = queue.pop_nonblock()) {
        ++messages;
        message->dismiss();
    }
    EXPECT_EQ(pushes, messages);
    EXPECT_EQ("", events.getText());
}

// ---- the classes ----

TEST(SignalQueueClassTest, HaveTheirBasesAndSlots) {
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

TEST_F(SignalQueueTest, APopOfAnEmptyQueueTakesTheCountBelowZeroForAMoment) {
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
    EXPECT_TRUE(pop());
    EXPECT_EQ(0, *count);

    std::atomic<bool> seen{false};
    std::thread popper([&] {
        while (!seen) {
            EXPECT_FALSE(pop());
        }
    });
    EXPECT_TRUE(waitUntil([count] { return __atomic_load_n(count, __ATOMIC_SEQ_CST) == -1; }));
    seen = true;
    popper.join();
    EXPECT_EQ(0, *count);
}

} // namespace
