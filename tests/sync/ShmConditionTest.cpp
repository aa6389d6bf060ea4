#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/Condition.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <limits>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <vector>

namespace {

std::atomic<int> g_clock{-1};
std::atomic<int> g_shared{-1};

int note(std::atomic<int>& to, int value) {
    to = value;
    return value;
}

} // namespace

VESK_INJECT_RESULT(
    pthread_condattr_setclock, (pthread_condattr_t * a, clockid_t clock), (a, note(g_clock, clock)))
VESK_INJECT_RESULT(
    pthread_condattr_setpshared, (pthread_condattr_t * a, int shared), (a, note(g_shared, shared)))
VESK_INJECT_RESULT(pthread_cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))
VESK_INJECT_RESULT(pthread_cond_destroy, (pthread_cond_t * c), (c))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))

namespace {

using support::chainIs;
using support::ExpectedReport;
using support::Fault;
using support::Process;
using support::rowText;
using support::SharedObject;
using support::systemText;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::AbsTimeT;
using vesk::ShmCondition;
using vesk::ShmMutex;
using vesk::ShmMutexLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

AbsTimeT inMs(long long ms) {
    return AbsTimeT((TimePoint::now() + Duration(ms)).getCount());
}

/// What the processes of a test share.
struct Shared {
    ShmMutex mutex;
    ShmCondition to_child;
    ShmCondition to_test;
    std::atomic<bool> ready{false};
    std::atomic<bool> go{false};
    volatile int turn = 0; // Even: the test's; not atomic, guarded by the mutex.
};

void await(std::atomic<bool> const& flag) {
    while (!flag) {
        sched_yield();
    }
}

/// A child that takes its turns.
void takeTurns(Shared& shared, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        ShmMutexLock const lock(shared.mutex);
        while (shared.turn % 2 == 0) {
            ASSERT_FALSE(shared.to_child.wait(shared.mutex));
        }
        shared.turn = shared.turn + 1;
        EXPECT_FALSE(shared.to_test.signal());
    }
}

/// The test's turns.
void giveTurns(Shared& shared, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        ShmMutexLock const lock(shared.mutex);
        shared.turn = shared.turn + 1;
        EXPECT_FALSE(shared.to_child.signal());
        while (shared.turn % 2 != 0) {
            ASSERT_EQ(0, shared.to_test.waitTimeout(shared.mutex, inMs(60000)));
        }
    }
}

// ---- creation ----

TEST(ShmCondition, familyIsThatOfCondition) {
    EXPECT_EQ(&vesk::Condition::Error, &ShmCondition::Error);
}

TEST(ShmCondition, isMadeForProcessesOnTheMonotonicClock) {
    g_clock = g_shared = -1;
    ShmCondition const condition;
    EXPECT_TRUE(condition.isValid());
    EXPECT_EQ(CLOCK_MONOTONIC, g_clock);
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, g_shared);
    EXPECT_TRUE(chainIs({}));
}

TEST(ShmCondition, oneThatCannotBeMadeIsInvalidAndNotDestroyed) {
    struct {
        support::Injected* function;
        int error;
        int id;
    } const rows[] = {
        {&inject_pthread_condattr_setclock, EINVAL, 10},
        {&inject_pthread_condattr_setpshared, ENOTSUP, 19},
        {&inject_pthread_cond_init, ENOMEM, 1},
    };
    for (auto const& row : rows) {
        Fault const destroyed(inject_pthread_cond_destroy, 0);
        {
            Fault const fault(*row.function, row.error);
            ShmCondition const condition;
            EXPECT_FALSE(condition.isValid());
        }
        EXPECT_TRUE(chainIs(
            {{SysError, row.id, rowText(SysError, row.id, systemText(row.error))},
             {ShmCondition::Error, ShmCondition::ErrorId::CREATE_FAILED,
              "Creating condition variable failed"}}));
        EXPECT_EQ(0, destroyed.getCalls());
    }
}

TEST(ShmCondition, oneThatCannotBeDestroyedLeavesItsReport) {
    struct {
        int error;
        int id;
    } const rows[] = {{EBUSY, 10}, {EINVAL, 10}, {EPERM, 19}};
    for (auto const& row : rows) {
        Fault const fault(inject_pthread_cond_destroy, row.error);
        { ShmCondition const condition; }
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, systemText(row.error))}}));
    }
}

TEST(ShmCondition, signalWithoutAWaiterDoesNothing) {
    ShmCondition condition;
    EXPECT_FALSE(condition.signal());
    EXPECT_TRUE(chainIs({}));
}

// ---- failures ----

struct Row {
    char const* name;
    support::Injected* function;
    int (*operation)(ShmCondition&, ShmMutex&);
    int error;
    int sys_id;
    int id;
    char const* text;
    int result;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << row.name << " errno " << row.error;
}

int wait(ShmCondition& condition, ShmMutex& mutex) {
    return condition.wait(mutex) ? 1 : 0;
}
int timedWait(ShmCondition& condition, ShmMutex& mutex) {
    return condition.waitTimeout(mutex, inMs(60000));
}
int signal(ShmCondition& condition, ShmMutex&) {
    return condition.signal() ? 1 : 0;
}

class ShmConditionRows : public testing::TestWithParam<Row> {};

TEST_P(ShmConditionRows, reportsInTwoSteps) {
    Row const& row = GetParam();
    ShmMutex mutex;
    ShmCondition condition;
    ShmMutexLock const lock(mutex);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    int result = 0;
    {
        Fault const fault(*row.function, row.error);
        result = row.operation(condition, mutex);
    }
    EXPECT_EQ(row.result, result);
    EXPECT_TRUE(chainIs(
        {{SysError, row.sys_id, rowText(SysError, row.sys_id, systemText(row.error))},
         {ShmCondition::Error, row.id, row.text}}));
}

constexpr char const* WAITING = "Waiting on condition variable failed";
constexpr char const* SIGNALING = "Signaling condition variable failed";

INSTANTIATE_TEST_SUITE_P(
    All, ShmConditionRows,
    testing::Values(
        Row{"wait", &inject_pthread_cond_wait, wait, EINVAL, 10, 1, WAITING, 1},
        Row{"wait", &inject_pthread_cond_wait, wait, EPERM, 10, 1, WAITING, 1},
        Row{"wait", &inject_pthread_cond_wait, wait, ENOTRECOVERABLE, 19, 1, WAITING, 1},
        Row{"timedwait", &inject_pthread_cond_timedwait, timedWait, EINVAL, 10, 1, WAITING, -1},
        Row{"timedwait", &inject_pthread_cond_timedwait, timedWait, EPERM, 10, 1, WAITING, -1},
        Row{"timedwait", &inject_pthread_cond_timedwait, timedWait, ENOTRECOVERABLE, 19, 1, WAITING, -1},
        Row{"signal", &inject_pthread_cond_signal, signal, EINVAL, 10, 2, SIGNALING, 1},
        Row{"signal", &inject_pthread_cond_signal, signal, EPERM, 19, 2, SIGNALING, 1}));

TEST(ShmCondition, waitWithoutTheMutexFailsIfTheMutexKnowsItsOwner) {
    ShmMutex mutex(true);
    ShmCondition condition;
    EXPECT_TRUE(condition.wait(mutex));
    std::vector<ExpectedReport> const expected = {
        {SysError, SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EPERM))},
        {ShmCondition::Error, ShmCondition::ErrorId::WAIT_FAILED, WAITING}};
    EXPECT_TRUE(chainIs(expected));
    EXPECT_EQ(-1, condition.waitTimeout(mutex, inMs(60000)));
    EXPECT_TRUE(chainIs(expected));
}

// ---- deadlines ----

TEST(ShmCondition, deadlineInThePastTimesOutAtOnce) {
    ShmMutex mutex;
    ShmCondition condition;
    ShmMutexLock const lock(mutex);
    auto const start = TimePoint::now();
    for (long long const past : {start.getCount() - 1, 0LL, -1LL, std::numeric_limits<long long>::min()}) {
        EXPECT_EQ(1, condition.waitTimeout(mutex, AbsTimeT(past))) << past;
    }
    AbsTimeT cleared = inMs(-1);
    cleared.good = 0;
    EXPECT_EQ(1, condition.waitTimeout(mutex, cleared)) << "the flag is not looked at";
    EXPECT_LT((TimePoint::now() - start).getCount(), 30000);
    EXPECT_TRUE(chainIs({})) << "a timeout is not reported";
}

TEST(ShmCondition, deadlineIsWaitedForOnTheMonotonicClock) {
    ShmMutex mutex;
    ShmCondition condition;
    ShmMutexLock const lock(mutex);
    AbsTimeT const deadline = inMs(30);
    signed char result = 0;
    do {
        result = condition.waitTimeout(mutex, deadline);
    } while (result == 0);
    EXPECT_EQ(1, result);
    EXPECT_GE(TimePoint::now().getCount(), deadline.value);
}

// ---- between processes ----

TEST(ShmCondition, handsOverInBothDirections) {
    constexpr int ROUNDS = 2000;
    SharedObject<Shared> const shared;
    Process child([&shared] { takeTurns(*shared, ROUNDS); });
    giveTurns(*shared, ROUNDS);
    EXPECT_EQ(0, child.join());
    EXPECT_EQ(2 * ROUNDS, shared->turn);
    EXPECT_TRUE(chainIs({}));
}

TEST(ShmCondition, latestDeadlinesWaitForTheSignalOfAnotherProcess) {
    for (long long const late :
         {TimePoint::MAX.getCount(), TimePoint::MAX.getCount() - 1, TimePoint::now().getCount() + 60000}) {
        SharedObject<Shared> const shared;
        Process waiter([&shared, late] {
            ShmMutexLock const lock(shared->mutex);
            shared->ready = true;
            while (shared->turn == 0) {
                ASSERT_EQ(0, shared->to_child.waitTimeout(shared->mutex, AbsTimeT(late)));
            }
        });
        await(shared->ready);
        support::waitUntilAsleep(waiter.getId(), waiter.getId());
        {
            ShmMutexLock const lock(shared->mutex);
            shared->turn = 1;
            EXPECT_FALSE(shared->to_child.signal());
        }
        EXPECT_EQ(0, waiter.join());
    }
}

TEST(ShmCondition, waiterGivesUpAtItsDeadlineThoughAnotherProcessHoldsTheMutexForAWhile) {
    SharedObject<Shared> const shared;
    Process waiter([&shared] {
        ShmMutexLock const lock(shared->mutex);
        shared->ready = true;
        AbsTimeT const deadline = inMs(20);
        signed char result = 0;
        do {
            result = shared->to_child.waitTimeout(shared->mutex, deadline);
        } while (result == 0);
        EXPECT_EQ(1, result);
        EXPECT_TRUE(shared->go) << "it has the mutex again when it returns";
    });
    await(shared->ready);
    {
        ShmMutexLock const lock(shared->mutex);
        long long const end = inMs(40).value;
        while (TimePoint::now().getCount() < end) {
            sched_yield();
        }
        shared->go = true;
    }
    EXPECT_EQ(0, waiter.join());
}

TEST(ShmCondition, outlivesAProcessThatDiesWithoutWaiting) {
    constexpr int ROUNDS = 10;
    SharedObject<Shared> const shared;
    Process first([&shared] {
        takeTurns(*shared, ROUNDS);
        shared->ready = true;
        await(shared->go);
    });
    giveTurns(*shared, ROUNDS);
    await(shared->ready);
    first.kill();
    Process second([&shared] { takeTurns(*shared, ROUNDS); });
    giveTurns(*shared, ROUNDS);
    EXPECT_EQ(0, second.join());
    EXPECT_EQ(4 * ROUNDS, shared->turn);
}

} // namespace
