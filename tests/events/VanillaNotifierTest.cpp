#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/VtableSlot.h"

#include <vesk/Dispatcher.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {
// What the condition waits with, and whether it was held when the condition was signalled.
std::atomic<pthread_mutex_t*> s_waiters_mutex{nullptr};
std::atomic<int> s_signals_with_mutex{0};
std::atomic<int> s_signals_without_mutex{0};
} // namespace

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

support::Injected inject_pthread_cond_wait("pthread_cond_wait");
extern "C" VESK_UNWATCHED int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    int error = 0;
    if (inject_pthread_cond_wait.fails(error)) {
        return error;
    }
    s_waiters_mutex = mutex;
    using Function = int (*)(pthread_cond_t*, pthread_mutex_t*);
    return reinterpret_cast<Function>(inject_pthread_cond_wait.getReal())(condition, mutex);
}

support::Injected inject_pthread_cond_signal("pthread_cond_signal");
extern "C" VESK_UNWATCHED int pthread_cond_signal(pthread_cond_t* condition) {
    int error = 0;
    if (inject_pthread_cond_signal.fails(error)) {
        return error;
    }
    if (pthread_mutex_t* const mutex = s_waiters_mutex) {
        if (pthread_mutex_trylock(mutex) == EBUSY) {
            ++s_signals_with_mutex;
        } else {
            ++s_signals_without_mutex;
            pthread_mutex_unlock(mutex);
        }
    }
    return reinterpret_cast<int (*)(pthread_cond_t*)>(inject_pthread_cond_signal.getReal())(condition);
}

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::rowText;
using support::runInChild;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using Notifier = vesk::Dispatcher::Notifier;
using VanillaNotifier = vesk::Dispatcher::VanillaNotifier;

void waitUntilAsleep(Fault const& waits, int calls) {
    while (waits.getCalls() < calls) {
        std::this_thread::yield();
    }
}

/// Lets a thread wait and wakes it, which binds the condition: until then a signal does not reach the system.
void sleepOnce(VanillaNotifier& notifier) {
    Fault const waits(inject_pthread_cond_wait, 0, 1, 1, Fault::Threads::ALL);
    std::thread waiter([&notifier] { notifier.wait(); });
    waitUntilAsleep(waits, 1);
    notifier.signal();
    waiter.join();
}

TEST(VanillaNotifier, fiveSignalsAreOneWakeUpAndTheSecondWaitBlocks) {
    VanillaNotifier notifier;
    for (int i = 0; i < 5; ++i) {
        notifier.signal();
    }
    Fault const waits(inject_pthread_cond_wait, 0, 1, 1, Fault::Threads::ALL);
    std::atomic<int> returned{0};
    std::thread waiter([&] {
        notifier.wait();
        ++returned;
        notifier.wait();
        ++returned;
    });
    waitUntilAsleep(waits, 1);
    EXPECT_EQ(1, returned) << "only the second wait sleeps";
    notifier.signal();
    waiter.join();
    EXPECT_EQ(2, returned);
}

TEST(VanillaNotifier, aSignalBeforeTheWaitIsNotLost) {
    VanillaNotifier notifier;
    notifier.signal();
    Fault const waits(inject_pthread_cond_wait, 0);
    notifier.wait();
    EXPECT_EQ(0, waits.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(VanillaNotifier, aNewOneIsNotSignalled) {
    VanillaNotifier notifier;
    Fault const waits(inject_pthread_cond_wait, 0, 1, 1, Fault::Threads::ALL);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        notifier.wait();
        returned = true;
    });
    waitUntilAsleep(waits, 1);
    EXPECT_FALSE(returned);
    notifier.signal();
    waiter.join();
}

TEST(VanillaNotifier, ofTwoWaitersOneGetsTheSignal) {
    VanillaNotifier notifier;
    Fault const waits(inject_pthread_cond_wait, 0, 1, 1, Fault::Threads::ALL);
    std::atomic<int> returned{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            notifier.wait();
            ++returned;
        });
    }
    waitUntilAsleep(waits, 2);
    notifier.signal();
    while (returned == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(1, returned);
    notifier.signal();
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(2, returned);
}

TEST(VanillaNotifier, conditionIsSignalledWithTheMutexHeld) {
    s_waiters_mutex = nullptr;
    s_signals_with_mutex = 0;
    s_signals_without_mutex = 0;
    VanillaNotifier notifier;
    sleepOnce(notifier);
    notifier.signal();
    EXPECT_EQ(2, s_signals_with_mutex);
    EXPECT_EQ(0, s_signals_without_mutex);
    s_waiters_mutex = nullptr;
}

TEST(VanillaNotifier, twoThreadsPlayPingPong) {
    constexpr int ROUNDS = 2000;
    VanillaNotifier ping;
    VanillaNotifier pong;
    int ball = 0; // Not atomic: each side touches it only when it has the turn.
    std::thread partner([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            ping.wait();
            ++ball;
            pong.signal();
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        ping.signal();
        pong.wait();
        EXPECT_EQ(i + 1, ball);
    }
    partner.join();
}

TEST(VanillaNotifier, signalsOfManyThreadsLoseNoWakeUp) {
    constexpr int THREADS = 3;
    constexpr int ROUNDS = 2000;
    VanillaNotifier notifier;
    std::atomic<int> posted{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                ++posted;
                notifier.signal();
            }
        });
    }
    // A lost wake-up would leave this asleep for ever: the last signal comes after the last count.
    while (posted < THREADS * ROUNDS) {
        notifier.wait();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * ROUNDS, posted);
}

// ---- The system fails ----

struct WaitRow {
    int error;
    char const* argument;
};

void PrintTo(WaitRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class VanillaNotifierWaitRows : public testing::TestWithParam<WaitRow> {};

TEST_P(VanillaNotifierWaitRows, aFailingWaitIsReportedAndTheWaitingGoesOn) {
    VanillaNotifier notifier;
    Fault const waits(inject_pthread_cond_wait, GetParam().error, 1, 2, Fault::Threads::ALL);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        notifier.wait();
        returned = true;
        EXPECT_TRUE(chainIs(
            {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, GetParam().argument)}}));
    });
    waitUntilAsleep(waits, 3);
    EXPECT_FALSE(returned);
    notifier.signal();
    waiter.join();
    EXPECT_TRUE(returned);
}

INSTANTIATE_TEST_SUITE_P(
    All, VanillaNotifierWaitRows,
    testing::Values(WaitRow{EINVAL, "-1"}, WaitRow{EPERM, "-1"}, WaitRow{EAGAIN, "11"}));

struct SignalRow {
    int error;
    int id;
    char const* argument;
};

void PrintTo(SignalRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class VanillaNotifierSignalRows : public testing::TestWithParam<SignalRow> {};

TEST_P(VanillaNotifierSignalRows, aFailingSignalIsReportedAndTheNextWaitTakesIt) {
    SignalRow const& row = GetParam();
    VanillaNotifier notifier;
    sleepOnce(notifier);
    {
        Fault const fault(inject_pthread_cond_signal, row.error);
        notifier.signal();
    }
    EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, row.argument)}}));
    Fault const waits(inject_pthread_cond_wait, 0);
    notifier.wait();
    EXPECT_EQ(0, waits.getCalls());
}

TEST_P(VanillaNotifierSignalRows, aWaiterThatAFailingSignalDidNotReachIsWokenByTheNext) {
    SignalRow const& row = GetParam();
    VanillaNotifier notifier;
    Fault const waits(inject_pthread_cond_wait, 0, 1, 1, Fault::Threads::ALL);
    std::thread waiter([&notifier] { notifier.wait(); });
    waitUntilAsleep(waits, 1);
    {
        Fault const fault(inject_pthread_cond_signal, row.error, 1, 2);
        notifier.signal();
        notifier.signal();
        EXPECT_EQ(2, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, row.argument)}}));
    notifier.signal();
    waiter.join();
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, VanillaNotifierSignalRows,
    testing::Values(SignalRow{EINVAL, 10, "-1"}, SignalRow{EAGAIN, 19, "11"}));

TEST(VanillaNotifierLock, waitWithoutItIsFatal) {
    EventRecorder const recorder;
    VanillaNotifier notifier;
    notifier.signal();
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        notifier.wait();
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/Dispatcher wait: error locking\n"
        "ABORT framework/src/vesk/Dispatcher wait: error unlocking",
        recorder.getText());
}

TEST(VanillaNotifierLock, waitThatCannotUnlockIsFatal) {
    EventRecorder const recorder;
    VanillaNotifier notifier;
    notifier.signal();
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        notifier.wait();
    }
    EXPECT_EQ("ABORT framework/src/vesk/Dispatcher wait: error unlocking", recorder.getText());
    notifier.signal(); // Frees the lock.
}

TEST(VanillaNotifierLock, signalWithoutItIsFatal) {
    EventRecorder const recorder;
    VanillaNotifier notifier;
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        notifier.signal();
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/Dispatcher signal: error locking\n"
        "ABORT framework/src/vesk/Dispatcher signal: error unlocking",
        recorder.getText());
    notifier.wait();
}

TEST(VanillaNotifierLock, signalThatCannotUnlockIsFatal) {
    EventRecorder const recorder;
    VanillaNotifier notifier;
    {
        // The first unlock is that of the condition's own lock.
        Fault const fault(inject_pthread_mutex_unlock, EPERM, 2);
        notifier.signal();
    }
    EXPECT_EQ("ABORT framework/src/vesk/Dispatcher signal: error unlocking", recorder.getText());
    notifier.wait(); // Frees the lock.
}

TEST(VanillaNotifierLock, fatalMeansThatTheProcessEnds) {
    support::ChildEnd const end = runInChild([] {
        VanillaNotifier notifier;
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        notifier.signal();
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error locking")) << end.errors;
}

TEST(VanillaNotifierClass, waitAndSignalFollowTheDestructors) {
    EXPECT_EQ(2, support::getSlot(&Notifier::wait));
    EXPECT_EQ(3, support::getSlot(&Notifier::signal));
    EXPECT_TRUE(std::is_abstract_v<Notifier>);
    EXPECT_TRUE((std::is_base_of_v<Notifier, VanillaNotifier>));
}

TEST(VanillaNotifierClass, canBeDeletedAsANotifier) {
    Notifier* const notifier = new VanillaNotifier;
    notifier->signal();
    notifier->wait();
    delete notifier;
    EXPECT_TRUE(chainIs({}));
}

} // namespace
