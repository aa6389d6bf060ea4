#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"
#include "support/UnlockFault.h"

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/ShmCondition.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/ConditionImpl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <limits>
#include <optional>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<int> g_clock{-1};

clockid_t note(clockid_t clock) {
    g_clock = clock;
    return clock;
}

} // namespace

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_condattr_setclock, (pthread_condattr_t * a, clockid_t clock), (a, note(clock)))
VESK_INJECT_RESULT(pthread_cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))
VESK_INJECT_RESULT(pthread_cond_destroy, (pthread_cond_t * c), (c))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::Injected;
using support::rowText;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::AbsTimeT;
using vesk::Condition;
using vesk::Mutex;
using vesk::MutexLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

constexpr char const* OTHER_MUTEX = "Using Condition with different Mutexes";

AbsTimeT inMs(long long ms) {
    return AbsTimeT((TimePoint::now() + Duration(ms)).getCount());
}

/// What `SysError` rows show for a raw result.
std::string resultText(int id, int result) {
    return rowText(SysError, id, std::to_string(result));
}

TEST(Condition, rowsHaveTheirTexts) {
    char const* const texts[] = {
        "Creating condition variable failed",
        "Waiting on condition variable failed",
        "Signaling condition variable failed",
    };
    int id = 0;
    for (char const* text : texts) {
        ASSERT_NE(nullptr, Condition::Error.getRow(id));
        EXPECT_STREQ(text, Condition::Error.getRow(id)->format);
        EXPECT_EQ(0, Condition::Error.getRow(id)->nargs);
        ++id;
    }
    EXPECT_EQ(nullptr, Condition::Error.getRow(id));
    EXPECT_TRUE(Condition::Error.isA(SysError));
    EXPECT_EQ(&Condition::Error, &vesk::ShmCondition::Error);
}

// ---- unbound ----

TEST(Condition, oneThatWasNeverWaitedOnIsSignalledAndDestroyedWithoutAnEffect) {
    Fault const made(inject_pthread_cond_init, 0);
    Fault const signalled(inject_pthread_cond_signal, EINVAL, 1, Fault::FOREVER);
    Fault const destroyed(inject_pthread_cond_destroy, 0);
    {
        Condition condition;
        EXPECT_FALSE(condition.signal());
        EXPECT_FALSE(condition.signal());
    }
    EXPECT_EQ(0, made.getCalls());
    EXPECT_EQ(0, signalled.getCalls());
    EXPECT_EQ(0, destroyed.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(Condition, signalBeforeTheFirstWaitIsNotKept) {
    Mutex mutex;
    Condition condition;
    EXPECT_FALSE(condition.signal());
    MutexLock const lock(mutex);
    EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
}

TEST(Condition, firstWaitMakesItOnceOnTheMonotonicClock) {
    g_clock = -1;
    Fault const made(inject_pthread_cond_init, 0);
    Fault const destroyed(inject_pthread_cond_destroy, 0);
    {
        Mutex mutex;
        Condition condition;
        EXPECT_EQ(0, made.getCalls());
        MutexLock const lock(mutex);
        EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
        EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
        EXPECT_EQ(1, made.getCalls());
        EXPECT_EQ(CLOCK_MONOTONIC, g_clock);
    }
    EXPECT_EQ(1, destroyed.getCalls());
}

TEST(Condition, oneThatCannotBeMadeEndsTheProcess) {
    for (Injected* const function : {&inject_pthread_condattr_setclock, &inject_pthread_cond_init}) {
        support::ChildEnd const end = support::runInChild([function] {
            Mutex mutex;
            Condition condition;
            MutexLock const lock(mutex);
            Fault const fault(*function, EINVAL);
            condition.waitTimeout(mutex, inMs(-1));
        });
        EXPECT_EQ(SIGABRT, end.signal);
        EXPECT_NE(
            std::string::npos, end.errors.find("error creating condition (errno = " + std::to_string(EINVAL)))
            << end.errors;
    }
}

// ---- waiting ----

TEST(Condition, handsOverInBothDirections) {
    constexpr int ROUNDS = 2000;
    Mutex mutex;
    Condition to_partner;
    Condition to_test;
    int turn = 0; // Even: the test's; not atomic, guarded by the mutex.
    std::thread partner([&] {
        for (int round = 0; round < ROUNDS; ++round) {
            MutexLock const lock(mutex);
            while (turn % 2 == 0) {
                ASSERT_FALSE(to_partner.wait(mutex));
            }
            ++turn;
            EXPECT_FALSE(to_test.signal());
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        MutexLock const lock(mutex);
        ++turn;
        EXPECT_FALSE(to_partner.signal());
        while (turn % 2 != 0) {
            ASSERT_EQ(0, to_test.waitTimeout(mutex, inMs(60000)));
        }
    }
    partner.join();
    EXPECT_EQ(2 * ROUNDS, turn);
    EXPECT_TRUE(chainIs({}));
}

TEST(Condition, eachSignalLetsAWaiterThrough) {
    constexpr int WAITERS = 4;
    Mutex mutex;
    Condition condition;
    int tokens = 0;
    int served = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < WAITERS; ++i) {
        waiters.emplace_back([&] {
            MutexLock const lock(mutex);
            while (tokens == 0) {
                ASSERT_FALSE(condition.wait(mutex));
            }
            --tokens;
            ++served;
        });
    }
    for (int i = 0; i < WAITERS; ++i) {
        {
            MutexLock const lock(mutex);
            ++tokens;
        }
        EXPECT_FALSE(condition.signal()) << "the caller need not hold the mutex";
    }
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(WAITERS, served);
}

TEST(Condition, waiterHoldsTheMutexAgainWhenItReturns) {
    Mutex mutex;
    Condition condition;
    ASSERT_FALSE(mutex.lock());
    EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(1)));
    EXPECT_FALSE(mutex.unlock()) << "the lock checks its owner";
}

TEST(Condition, waiterOccupiesNeitherTheMutexNorTheCondition) {
    Mutex mutex;
    Condition condition;
    bool ready = false;
    std::atomic<pid_t> waiting{0};
    std::thread waiter([&] {
        MutexLock const lock(mutex);
        waiting = gettid();
        while (!ready) {
            ASSERT_FALSE(condition.wait(mutex));
        }
    });
    while (waiting == 0) {
        std::this_thread::yield();
    }
    {
        MutexLock const lock(mutex);
        EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1))) << "a second one may wait";
        ready = true;
    }
    EXPECT_FALSE(condition.signal());
    waiter.join();
}

// ---- deadlines ----

TEST(Condition, deadlineInThePastTimesOutAtOnce) {
    Mutex mutex;
    Condition condition;
    MutexLock const lock(mutex);
    auto const start = TimePoint::now();
    for (long long const past :
         {start.getCount() - 1, start.getCount() - 86400000, 1LL, 0LL, -1LL,
          std::numeric_limits<long long>::min()}) {
        EXPECT_EQ(1, condition.waitTimeout(mutex, AbsTimeT(past))) << past;
    }
    EXPECT_LT((TimePoint::now() - start).getCount(), 30000);
    EXPECT_TRUE(chainIs({})) << "a timeout is not reported";
}

TEST(Condition, deadlineIsWaitedForOnTheMonotonicClock) {
    Mutex mutex;
    Condition condition;
    MutexLock const lock(mutex);
    AbsTimeT const deadline = inMs(30);
    signed char result = 0;
    do {
        result = condition.waitTimeout(mutex, deadline);
    } while (result == 0);
    EXPECT_EQ(1, result);
    EXPECT_GE(TimePoint::now().getCount(), deadline.value);
    EXPECT_TRUE(chainIs({}));
}

TEST(Condition, clearedFlagOfTheDeadlineIsNotLookedAt) {
    Mutex mutex;
    Condition condition;
    MutexLock const lock(mutex);
    AbsTimeT deadline = inMs(-1);
    deadline.good = 0;
    EXPECT_EQ(1, condition.waitTimeout(mutex, deadline));
}

TEST(Condition, latestDeadlinesWaitForTheSignal) {
    for (long long const late :
         {TimePoint::MAX.getCount(), TimePoint::MAX.getCount() - 1, TimePoint::now().getCount() + 60000}) {
        Mutex mutex;
        Condition condition;
        bool ready = false;
        std::atomic<pid_t> waiting{0};
        std::thread waiter([&] {
            MutexLock const lock(mutex);
            waiting = gettid();
            while (!ready) {
                ASSERT_EQ(0, condition.waitTimeout(mutex, AbsTimeT(late)));
            }
        });
        while (waiting == 0) {
            std::this_thread::yield();
        }
        support::waitUntilAsleep(getpid(), waiting);
        {
            MutexLock const lock(mutex);
            ready = true;
            EXPECT_FALSE(condition.signal());
        }
        waiter.join();
    }
}

// ---- two mutexes ----

TEST(Condition, otherMutexIsRefusedAndTheFirstBindingStays) {
    Mutex first;
    Mutex second;
    Condition condition;
    bool ready = false;
    std::atomic<bool> bound{false};
    std::thread waiter([&] {
        MutexLock const lock(first);
        condition.waitTimeout(first, inMs(-1));
        bound = true;
        while (!ready) {
            ASSERT_FALSE(condition.wait(first));
        }
    });
    while (!bound) {
        std::this_thread::yield();
    }
    ASSERT_FALSE(second.lock());
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(condition.wait(second));
    EXPECT_TRUE(
        chainIs({{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, OTHER_MUTEX)}}));
    EXPECT_EQ(-1, condition.waitTimeout(second, inMs(60000)));
    EXPECT_TRUE(
        chainIs({{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, OTHER_MUTEX)}}));
    EXPECT_FALSE(second.unlock()) << "the caller holds its mutex still";
    {
        MutexLock const lock(first);
        EXPECT_EQ(1, condition.waitTimeout(first, inMs(-1))) << "the first mutex works on";
        ready = true;
    }
    EXPECT_FALSE(condition.signal());
    waiter.join();
    EXPECT_TRUE(chainIs({}));
}

TEST(Condition, refusedMutexWorksWithAnotherCondition) {
    Mutex first;
    Mutex second;
    Condition condition;
    Condition other;
    {
        MutexLock const lock(first);
        EXPECT_EQ(1, condition.waitTimeout(first, inMs(-1)));
    }
    MutexLock const lock(second);
    EXPECT_EQ(-1, condition.waitTimeout(second, inMs(-1)));
    EXPECT_TRUE(
        chainIs({{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, OTHER_MUTEX)}}));
    EXPECT_EQ(1, other.waitTimeout(second, inMs(-1)));
}

// ---- failures of the system ----

TEST(Condition, waitWithoutTheMutexFails) {
    Mutex mutex;
    Condition condition;
    EXPECT_TRUE(condition.wait(mutex));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, resultText(10, threadsafe::ConditionBase::ERROR_INCONSISTENCY)}}));
    EXPECT_EQ(-1, condition.waitTimeout(mutex, inMs(60000)));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, resultText(10, threadsafe::ConditionBase::ERROR_INCONSISTENCY)}}));
    MutexLock const lock(mutex);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1))) << "it is bound all the same";
}

struct WaitRow {
    int error;
    int argument;
};

void PrintTo(WaitRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ConditionWaitRows : public testing::TestWithParam<WaitRow> {};

TEST_P(ConditionWaitRows, reportTheResultAsItIs) {
    WaitRow const& row = GetParam();
    Mutex mutex;
    Condition condition;
    MutexLock const lock(mutex);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_pthread_cond_wait, row.error);
        EXPECT_TRUE(condition.wait(mutex));
    }
    EXPECT_TRUE(chainIs({{SysErrorId::SPOILED_INTEGRITY, resultText(10, row.argument)}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionWaitRows,
    testing::Values(
        WaitRow{EINVAL, -1}, WaitRow{EPERM, -1}, WaitRow{ENOTRECOVERABLE, ENOTRECOVERABLE},
        WaitRow{EAGAIN, EAGAIN},
        // Without a deadline a timeout is as wrong as anything else.
        WaitRow{ETIMEDOUT, 1}));

class ConditionTimedWaitRows : public testing::TestWithParam<WaitRow> {};

TEST_P(ConditionTimedWaitRows, reportTheResultAsItIs) {
    WaitRow const& row = GetParam();
    Mutex mutex;
    Condition condition;
    MutexLock const lock(mutex);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_pthread_cond_timedwait, row.error);
        EXPECT_EQ(-1, condition.waitTimeout(mutex, inMs(60000)));
    }
    EXPECT_TRUE(chainIs({{SysErrorId::SPOILED_INTEGRITY, resultText(10, row.argument)}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionTimedWaitRows,
    testing::Values(
        WaitRow{EINVAL, -1}, WaitRow{EPERM, -1}, WaitRow{ENOTRECOVERABLE, ENOTRECOVERABLE},
        WaitRow{EAGAIN, EAGAIN}));

struct SignalRow {
    int error;
    int id;
    int argument;
};

void PrintTo(SignalRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ConditionSignalRows : public testing::TestWithParam<SignalRow> {};

TEST_P(ConditionSignalRows, reportTheResultAsItIs) {
    SignalRow const& row = GetParam();
    Mutex mutex;
    Condition condition;
    {
        MutexLock const lock(mutex);
        EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
    }
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_pthread_cond_signal, row.error);
        EXPECT_TRUE(condition.signal());
    }
    EXPECT_TRUE(chainIs({{SysError, row.id, resultText(row.id, row.argument)}}));
    EXPECT_FALSE(condition.signal()) << "the internal lock is free again";
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionSignalRows,
    testing::Values(
        SignalRow{EINVAL, 10, -1}, SignalRow{EPERM, 10, -1}, SignalRow{EAGAIN, 19, EAGAIN},
        SignalRow{ENOTRECOVERABLE, 19, ENOTRECOVERABLE}));

// ---- failures of the internal lock ----

std::string aborts(std::string const& function, bool unlocking_too) {
    std::string const place = "ABORT framework/src/vesk/posix/Condition " + function + ": ";
    return unlocking_too ? place + "error locking\n" + place + "error unlocking" : place + "error unlocking";
}

/// The events of an operation whose first call of `function` fails, with the abort turned off. The recorder's own lock
/// comes after it, so it is not met.
template <typename Operation>
std::string eventsWithout(Injected& function, Operation&& operation) {
    EventRecorder recorder;
    Fault const fault(function, EINVAL);
    operation();
    return recorder.getText();
}

// An operation that goes on without the lock has nothing to unlock.
TEST(ConditionInternalLock, failedLockAbortsInTheNameOfTheOperation) {
    Injected& lock = inject_pthread_mutex_lock;
    Mutex mutex;
    std::optional<Condition> condition(std::in_place);
    ASSERT_FALSE(mutex.lock());
    EXPECT_EQ(aborts("waitTimeout", true), eventsWithout(lock, [&] {
                  EXPECT_EQ(1, condition->waitTimeout(mutex, inMs(-1)));
              }));
    EXPECT_EQ(aborts("wait", true), eventsWithout(lock, [&] {
                  Fault const fault(inject_pthread_cond_wait, ENOTRECOVERABLE);
                  EXPECT_TRUE(condition->wait(mutex));
              }));
    EXPECT_EQ(aborts("signal", true), eventsWithout(lock, [&] { EXPECT_FALSE(condition->signal()); }));
    EXPECT_EQ(aborts("~Condition", true), eventsWithout(lock, [&] { condition.reset(); }));
    EXPECT_FALSE(mutex.unlock());
    std::ErrorStorage::ack();
}

TEST(ConditionInternalLock, failedUnlockAbortsInTheNameOfTheOperation) {
    Injected& unlock = inject_pthread_mutex_unlock;
    Mutex mutex;
    std::optional<Condition> condition(std::in_place);
    ASSERT_FALSE(mutex.lock());
    EXPECT_EQ(aborts("signal", false), eventsWithout(unlock, [&] { EXPECT_FALSE(condition->signal()); }));
    EXPECT_EQ(aborts("waitTimeout", false), eventsWithout(unlock, [&] {
                  EXPECT_EQ(1, condition->waitTimeout(mutex, inMs(-1)));
              }));
    EXPECT_EQ(aborts("wait", false), eventsWithout(unlock, [&] {
                  Fault const fault(inject_pthread_cond_wait, ENOTRECOVERABLE);
                  EXPECT_TRUE(condition->wait(mutex));
              }));
    EXPECT_EQ(aborts("~Condition", false), eventsWithout(unlock, [&] { condition.reset(); }));
    EXPECT_FALSE(mutex.unlock());
    std::ErrorStorage::ack();
}

TEST(ConditionInternalLock, failureEndsTheProcess) {
    struct {
        Injected* function;
        char const* text;
    } const rows[] = {
        {&inject_pthread_mutex_lock, "error locking"},
        {&inject_pthread_mutex_unlock, "error unlocking"},
    };
    for (auto const& row : rows) {
        support::ChildEnd const end = support::runInChild([&row] {
            Condition condition;
            Fault const fault(*row.function, EINVAL);
            condition.signal();
        });
        EXPECT_EQ(SIGABRT, end.signal);
        EXPECT_NE(std::string::npos, end.errors.find(row.text)) << end.errors;
        EXPECT_NE(std::string::npos, end.errors.find("signal")) << end.errors;
    }
}

} // namespace
