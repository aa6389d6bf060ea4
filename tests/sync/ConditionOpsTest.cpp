#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/Condition.h>
#include <vesk/ConditionOps.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <string>

namespace {

std::atomic<int> g_clock{-1};
std::atomic<int> g_shared{-1};

clockid_t noteClock(clockid_t clock) {
    g_clock = clock;
    return clock;
}
int noteShared(int shared) {
    g_shared = shared;
    return shared;
}

} // namespace

VESK_INJECT_RESULT(pthread_condattr_init, (pthread_condattr_t * a), (a))
VESK_INJECT_RESULT(
    pthread_condattr_setclock, (pthread_condattr_t * a, clockid_t clock), (a, noteClock(clock)))
VESK_INJECT_RESULT(pthread_condattr_setpshared, (pthread_condattr_t * a, int shared), (a, noteShared(shared)))
VESK_INJECT_RESULT(pthread_condattr_destroy, (pthread_condattr_t * a), (a))
VESK_INJECT_RESULT(pthread_cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::systemText;
using vesk::Condition;
using vesk::ConditionOps;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

bool isFilledWith(pthread_cond_t const& condition, unsigned char byte) {
    pthread_cond_t filled;
    memset(&filled, byte, sizeof filled);
    return memcmp(&condition, &filled, sizeof filled) == 0;
}

// ---- init ----

struct InitRow {
    char const* call;
    Injected* function;
    int error;
    int id;
};

void PrintTo(InitRow const& row, std::ostream* out) {
    *out << row.call << " errno " << row.error;
}

class ConditionOpsInitRows : public testing::TestWithParam<InitRow> {};

TEST_P(ConditionOpsInitRows, reportsAndPoisonsTheMemory) {
    InitRow const& row = GetParam();
    pthread_cond_t condition;
    memset(&condition, 0, sizeof condition);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const destroyed(inject_pthread_condattr_destroy, 0);
    Fault const fault(*row.function, row.error);
    EXPECT_TRUE(ConditionOps::init(&condition, true));
    EXPECT_TRUE(chainIs(
        {{SysError, row.id, rowText(SysError, row.id, systemText(row.error))},
         {Condition::Error, Condition::ErrorId::CREATE_FAILED, "Creating condition variable failed"}}));
    EXPECT_TRUE(isFilledWith(condition, 0xEB));
    EXPECT_EQ(row.function == &inject_pthread_condattr_init ? 0 : 1, destroyed.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionOpsInitRows,
    testing::Values(
        InitRow{"attr_init", &inject_pthread_condattr_init, EAGAIN, 0},
        InitRow{"attr_init", &inject_pthread_condattr_init, ENOMEM, 1},
        InitRow{"attr_init", &inject_pthread_condattr_init, EPERM, 19},
        InitRow{"setclock", &inject_pthread_condattr_setclock, EINVAL, 10},
        InitRow{"setclock", &inject_pthread_condattr_setclock, ENOTSUP, 19},
        InitRow{"setpshared", &inject_pthread_condattr_setpshared, EINVAL, 10},
        InitRow{"setpshared", &inject_pthread_condattr_setpshared, EPERM, 19},
        InitRow{"init", &inject_pthread_cond_init, EAGAIN, 0},
        InitRow{"init", &inject_pthread_cond_init, ENOMEM, 1},
        InitRow{"init", &inject_pthread_cond_init, EBUSY, 10},
        InitRow{"init", &inject_pthread_cond_init, EINVAL, 10},
        InitRow{"init", &inject_pthread_cond_init, EPERM, 19}));

TEST(ConditionOpsInit, failedStepKeepsTheLaterOnesFromRunning) {
    pthread_cond_t condition;
    Fault const fault(inject_pthread_condattr_setclock, EINVAL);
    Fault const shared(inject_pthread_condattr_setpshared, 0);
    Fault const made(inject_pthread_cond_init, 0);
    EXPECT_TRUE(ConditionOps::init(&condition, true));
    EXPECT_EQ(0, shared.getCalls());
    EXPECT_EQ(0, made.getCalls());
    EXPECT_TRUE(
        chainIs({{SysErrorId::SPOILED_INTEGRITY}, {Condition::Error, Condition::ErrorId::CREATE_FAILED}}));
}

TEST(ConditionOpsInit, isOnTheMonotonicClock) {
    for (bool const process_shared : {false, true}) {
        pthread_cond_t condition;
        g_clock = -1;
        ASSERT_FALSE(ConditionOps::init(&condition, process_shared));
        EXPECT_EQ(CLOCK_MONOTONIC, g_clock);
        // The wall clock is decades ahead of the monotonic one: on it this deadline has long passed.
        timespec deadline{};
        ASSERT_EQ(0, clock_gettime(CLOCK_MONOTONIC, &deadline));
        timespec const start = deadline;
        deadline.tv_nsec += 20000000;
        if (deadline.tv_nsec > 999999999) {
            deadline.tv_nsec -= 1000000000;
            ++deadline.tv_sec;
        }
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        ASSERT_EQ(0, pthread_mutex_lock(&mutex));
        int error = 0;
        do {
            error = pthread_cond_timedwait(&condition, &mutex, &deadline);
        } while (error == 0);
        EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
        EXPECT_EQ(ETIMEDOUT, error);
        timespec end{};
        ASSERT_EQ(0, clock_gettime(CLOCK_MONOTONIC, &end));
        EXPECT_GE((end.tv_sec - start.tv_sec) * 1000LL + (end.tv_nsec - start.tv_nsec) / 1000000, 19)
            << "not before the deadline";
        EXPECT_EQ(0, pthread_cond_destroy(&condition));
    }
}

TEST(ConditionOpsInit, isSharedOnlyIfWanted) {
    pthread_cond_t condition;
    Fault const shared(inject_pthread_condattr_setpshared, 0);
    ASSERT_FALSE(ConditionOps::init(&condition, false));
    EXPECT_EQ(0, shared.getCalls());
    EXPECT_EQ(0, pthread_cond_destroy(&condition));
    g_shared = -1;
    ASSERT_FALSE(ConditionOps::init(&condition, true));
    EXPECT_EQ(1, shared.getCalls());
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, g_shared);
    EXPECT_EQ(0, pthread_cond_destroy(&condition));
}

TEST(ConditionOpsInit, attributesThatCannotBeDestroyedAreOnlyAWarning) {
    pthread_cond_t condition;
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_condattr_destroy, EBUSY);
        EXPECT_FALSE(ConditionOps::init(&condition, true));
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/ConditionOps init: destroying condition attributes failed, res = " +
            std::to_string(EBUSY),
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(0, pthread_cond_signal(&condition));
    EXPECT_EQ(0, pthread_cond_destroy(&condition));
}

TEST(ConditionOpsInit, attributesThatCannotBeDestroyedDoNotHideAFailure) {
    pthread_cond_t condition;
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_condattr_destroy, EINVAL);
        Fault const init_fault(inject_pthread_cond_init, ENOMEM);
        EXPECT_TRUE(ConditionOps::init(&condition, false));
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/ConditionOps init: destroying condition attributes failed, res = " +
            std::to_string(EINVAL),
        recorder.getText());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::OUT_OF_MEMORY, rowText(SysErrorId::OUT_OF_MEMORY, systemText(ENOMEM))},
         {Condition::Error, Condition::ErrorId::CREATE_FAILED, "Creating condition variable failed"}}));
}

// ---- classification ----

int initError(int error) {
    return ConditionOps::handleInitError(error) ? 1 : 0;
}
int destroyError(int error) {
    return ConditionOps::handleDestroyError(error) ? 1 : 0;
}
int waitError(int error) {
    return ConditionOps::handleWaitError(error);
}
int signalError(int error) {
    return ConditionOps::handleSignalError(error) ? 1 : 0;
}

struct HandlerRow {
    char const* name;
    int (*handler)(int);
    int error;
    int sys_id;       // -1: no report
    int condition_id; // -1: no report on top
    int result;
};

void PrintTo(HandlerRow const& row, std::ostream* out) {
    *out << row.name << " errno " << row.error;
}

class ConditionOpsHandlerRows : public testing::TestWithParam<HandlerRow> {};

TEST_P(ConditionOpsHandlerRows, classifies) {
    HandlerRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    errno = ENOEXEC;
    EXPECT_EQ(row.result, row.handler(row.error));
    EXPECT_EQ(ENOEXEC, errno) << "the number is the argument's alone";
    std::vector<ExpectedReport> expected;
    if (row.sys_id < 0) {
        expected.emplace_back(SysError, SysErrorId::NO_SUCH_PROCESS); // No report leaves what was pending.
    } else {
        expected.emplace_back(SysError, row.sys_id, rowText(SysError, row.sys_id, systemText(row.error)));
    }
    char const* const texts[] = {
        "Creating condition variable failed", "Waiting on condition variable failed",
        "Signaling condition variable failed"};
    if (row.condition_id >= 0) {
        expected.emplace_back(Condition::Error, row.condition_id, texts[row.condition_id]);
    }
    EXPECT_TRUE(chainIs(expected));
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionOpsHandlerRows,
    testing::Values(
        HandlerRow{"init", initError, EAGAIN, 0, 0, 1}, HandlerRow{"init", initError, ENOMEM, 1, 0, 1},
        HandlerRow{"init", initError, EBUSY, 10, 0, 1}, HandlerRow{"init", initError, EINVAL, 10, 0, 1},
        HandlerRow{"init", initError, EPERM, 19, 0, 1}, HandlerRow{"init", initError, ENOTSUP, 19, 0, 1},
        HandlerRow{"destroy", destroyError, EBUSY, 10, -1, 1},
        HandlerRow{"destroy", destroyError, EINVAL, 10, -1, 1},
        HandlerRow{"destroy", destroyError, EPERM, 19, -1, 1},
        HandlerRow{"wait", waitError, ETIMEDOUT, -1, -1, 1}, HandlerRow{"wait", waitError, EINVAL, 10, 1, -1},
        HandlerRow{"wait", waitError, EPERM, 10, 1, -1},
        HandlerRow{"wait", waitError, ENOTRECOVERABLE, 19, 1, -1},
        HandlerRow{"wait", waitError, EBUSY, 19, 1, -1}, HandlerRow{"signal", signalError, EINVAL, 10, 2, 1},
        HandlerRow{"signal", signalError, EPERM, 19, 2, 1},
        HandlerRow{"signal", signalError, EBUSY, 19, 2, 1}));

} // namespace
