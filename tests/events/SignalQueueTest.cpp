#include "SignalSupport.h"
#include "support/AllocationCounter.h"
#include "support/NewFault.h"
#include "support/RunInThreads.h"
#include "support/VtableSlot.h"

#include <array>
#include <climits>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <sys/ioctl.h>
#include <type_traits>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;
using vesk::Dispatcher;
using vesk::SignalQueue;
using Handler = std::GlobalErrorHandler;
using Signals = std::vector<int>;

void ignore(int, void*) {}

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

class SignalQueueScenario : public SignalQueueTest, public testing::WithParamInterface<Scenario> {};

TEST_P(SignalQueueScenario, givesTheExpectedMessages) {
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

INSTANTIATE_TEST_SUITE_P(
    All, SignalQueueScenario,
    testing::ValuesIn(std::vector<Scenario>{
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
         {"on 1 30 64", "push 1 30 64 1 30 64", "pop1 1", "pop 1 30 30 64 64"}}}),
    [](auto const& row) { return row.param.name; });

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
class SignalQueueNumberTest : public SignalQueueTest, public testing::WithParamInterface<BadNumber> {};

TEST_P(SignalQueueNumberTest, outOfRangeIsAnAssertionWithoutEffect) {
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

INSTANTIATE_TEST_SUITE_P(
    All, SignalQueueNumberTest,
    testing::Values(
        BadNumber{"minus1", -1, "signal>=0"}, BadNumber{"lowest", INT_MIN, "signal>=0"},
        BadNumber{"first", 65, "signal<TARN_NSIGNALS"},
        BadNumber{"highest", INT_MAX, "signal<TARN_NSIGNALS"}),
    [](auto const& row) { return row.param.name; });

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
    SignalQueue::Notifier notifier;
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
    SignalQueue::Notifier notifier;
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
    SignalQueue::Notifier notifier;
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
    int bytes = 0;
    EXPECT_EQ(0, ioctl(s_pipe[0], FIONREAD, &bytes));
    EXPECT_EQ(size, bytes);
    int messages = 0;
    while (vesk::Message* const message = queue.pop_nonblock()) {
        ++messages;
        message->dismiss();
    }
    EXPECT_EQ(pushes, messages);
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
