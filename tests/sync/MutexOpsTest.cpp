#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/Mutex.h>
#include <vesk/MutexOps.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <limits>
#include <pthread.h>
#include <thread>

VESK_INJECT_RESULT(pthread_mutexattr_init, (pthread_mutexattr_t * a), (a))
VESK_INJECT_RESULT(pthread_mutexattr_settype, (pthread_mutexattr_t * a, int type), (a, type))
VESK_INJECT_RESULT(pthread_mutexattr_setprotocol, (pthread_mutexattr_t * a, int protocol), (a, protocol))
VESK_INJECT_RESULT(pthread_mutexattr_setpshared, (pthread_mutexattr_t * a, int shared), (a, shared))
VESK_INJECT_RESULT(pthread_mutexattr_destroy, (pthread_mutexattr_t * a), (a))
VESK_INJECT_RESULT(pthread_mutex_init, (pthread_mutex_t * m, pthread_mutexattr_t const* a), (m, a))
VESK_INJECT_RESULT(pthread_mutex_destroy, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_timedlock, (pthread_mutex_t * m, timespec const* t), (m, t))
VESK_INJECT_ERRNO(int, -1, clock_gettime, (clockid_t clock, timespec* t), (clock, t))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::systemText;
using vesk::Mutex;
using vesk::MutexOps;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

bool isFilledWith(pthread_mutex_t const& mutex, unsigned char byte) {
    pthread_mutex_t filled;
    memset(&filled, byte, sizeof filled);
    return memcmp(&mutex, &filled, sizeof filled) == 0;
}

/// A raw lock of the kind that the shared classes use.
class MutexOpsTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(MutexOps::init(&m_mutex, false, false, false)); }
    void TearDown() override { EXPECT_FALSE(MutexOps::destroy(&m_mutex)); }

    pthread_mutex_t m_mutex;
};

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

class MutexOpsInitRows : public testing::TestWithParam<InitRow> {};

TEST_P(MutexOpsInitRows, reportsAndPoisonsTheMemory) {
    InitRow const& row = GetParam();
    pthread_mutex_t mutex;
    memset(&mutex, 0, sizeof mutex);
    Fault const destroyed(inject_pthread_mutexattr_destroy, 0);
    Fault const fault(*row.function, row.error);
    EXPECT_TRUE(MutexOps::init(&mutex, true, true, true));
    EXPECT_EQ(row.error, errno);
    EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, systemText(row.error))}}));
    EXPECT_TRUE(isFilledWith(mutex, 0xEB));
    EXPECT_EQ(row.function == &inject_pthread_mutexattr_init ? 0 : 1, destroyed.getCalls());
    EXPECT_FALSE(MutexOps::destroy(&mutex));
}

INSTANTIATE_TEST_SUITE_P(
    All, MutexOpsInitRows,
    testing::Values(
        InitRow{"attr_init", &inject_pthread_mutexattr_init, ENOMEM, 1},
        InitRow{"attr_init", &inject_pthread_mutexattr_init, EAGAIN, 19},
        InitRow{"settype", &inject_pthread_mutexattr_settype, EINVAL, 19},
        InitRow{"settype", &inject_pthread_mutexattr_settype, ENOMEM, 19},
        InitRow{"setprotocol", &inject_pthread_mutexattr_setprotocol, ENOTSUP, 19},
        InitRow{"setpshared", &inject_pthread_mutexattr_setpshared, EINVAL, 19},
        InitRow{"init", &inject_pthread_mutex_init, ENOMEM, 1},
        InitRow{"init", &inject_pthread_mutex_init, ENOTSUP, 6},
        InitRow{"init", &inject_pthread_mutex_init, EAGAIN, 0},
        InitRow{"init", &inject_pthread_mutex_init, EINVAL, 10},
        InitRow{"init", &inject_pthread_mutex_init, EPERM, 10}));

TEST(MutexOpsInit, asksTheSystemOnlyForWhatIsWanted) {
    pthread_mutex_t mutex;
    Fault const protocol(inject_pthread_mutexattr_setprotocol, 0);
    Fault const shared(inject_pthread_mutexattr_setpshared, 0);
    ASSERT_FALSE(MutexOps::init(&mutex, false, false, false));
    EXPECT_EQ(0, protocol.getCalls());
    EXPECT_EQ(0, shared.getCalls());
    EXPECT_FALSE(MutexOps::destroy(&mutex));
    ASSERT_FALSE(MutexOps::init(&mutex, false, true, true));
    EXPECT_EQ(1, protocol.getCalls());
    EXPECT_EQ(1, shared.getCalls());
    EXPECT_FALSE(MutexOps::destroy(&mutex));
}

TEST(MutexOpsInit, attributesThatCannotBeDestroyedAreOnlyAWarning) {
    pthread_mutex_t mutex;
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_mutexattr_destroy, EBUSY);
        EXPECT_FALSE(MutexOps::init(&mutex, false, false, false));
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/MutexOps ~AttrCleaner: destroying mutex attributes failed, res = " +
            std::to_string(EBUSY),
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(0, pthread_mutex_lock(&mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
    EXPECT_FALSE(MutexOps::destroy(&mutex));
}

TEST(MutexOpsInit, recursiveLockIsFreeAfterAsManyUnlocks) {
    pthread_mutex_t mutex;
    ASSERT_FALSE(MutexOps::init(&mutex, true, false, false));
    EXPECT_EQ(0, pthread_mutex_lock(&mutex));
    EXPECT_EQ(0, pthread_mutex_trylock(&mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
    EXPECT_FALSE(MutexOps::destroy(&mutex));
}

// ---- destroy ----

TEST(MutexOpsDestroy, leavesAPoisonedLockAloneWithoutASystemCall) {
    pthread_mutex_t mutex;
    memset(&mutex, 0xEB, sizeof mutex);
    Fault const fault(inject_pthread_mutex_destroy, EINVAL);
    EXPECT_FALSE(MutexOps::destroy(&mutex));
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(MutexOpsDestroy, oneOtherByteMakesItALock) {
    pthread_mutex_t mutex;
    memset(&mutex, 0xEB, sizeof mutex);
    reinterpret_cast<unsigned char*>(&mutex)[sizeof mutex - 1] = 0;
    Fault const fault(inject_pthread_mutex_destroy, EINVAL);
    EXPECT_TRUE(MutexOps::destroy(&mutex));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EINVAL))}}));
}

TEST(MutexOpsDestroy, heldLockIsUnclassified) {
    pthread_mutex_t mutex;
    ASSERT_FALSE(MutexOps::init(&mutex, false, false, false));
    {
        Fault const fault(inject_pthread_mutex_destroy, EBUSY);
        EXPECT_TRUE(MutexOps::destroy(&mutex));
    }
    EXPECT_EQ(EBUSY, errno);
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EBUSY))}}));
    EXPECT_FALSE(MutexOps::destroy(&mutex));
}

// ---- tryLockTimeout ----

TEST_F(MutexOpsTest, zeroTimeoutGetsAFreeLockAndNotAHeldOne) {
    EXPECT_EQ(0, MutexOps::tryLockTimeout(&m_mutex, 0));
    std::thread([this] {
        EXPECT_EQ(1, MutexOps::tryLockTimeout(&m_mutex, 0));
        EXPECT_TRUE(chainIs({}));
    }).join();
    EXPECT_EQ(0, pthread_mutex_unlock(&m_mutex));
}

TEST_F(MutexOpsTest, negativeTimeoutGetsAFreeLockAndNotAHeldOne) {
    EXPECT_EQ(0, MutexOps::tryLockTimeout(&m_mutex, -1));
    std::thread([this] {
        EXPECT_EQ(1, MutexOps::tryLockTimeout(&m_mutex, -2500));
        EXPECT_EQ(1, MutexOps::tryLockTimeout(&m_mutex, std::numeric_limits<long long>::min()));
        EXPECT_TRUE(chainIs({}));
    }).join();
    EXPECT_EQ(0, pthread_mutex_unlock(&m_mutex));
}

TEST_F(MutexOpsTest, hugeTimeoutWaitsForTheLock) {
    ASSERT_EQ(0, pthread_mutex_lock(&m_mutex));
    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
        waiting = true;
        EXPECT_EQ(0, MutexOps::tryLockTimeout(&m_mutex, std::numeric_limits<long long>::max()));
        EXPECT_EQ(0, pthread_mutex_unlock(&m_mutex));
    });
    while (!waiting) {
        std::this_thread::yield();
    }
    EXPECT_EQ(0, pthread_mutex_unlock(&m_mutex));
    waiter.join();
}

TEST_F(MutexOpsTest, timeoutIsWaitedForToTheEnd) {
    ASSERT_EQ(0, pthread_mutex_lock(&m_mutex));
    std::thread([this] {
        auto const start = std::chrono::steady_clock::now();
        EXPECT_EQ(1, MutexOps::tryLockTimeout(&m_mutex, 30));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
    }).join();
    EXPECT_EQ(0, pthread_mutex_unlock(&m_mutex));
}

TEST_F(MutexOpsTest, clockThatCannotBeReadReportsWhatTheCallReturned) {
    {
        Fault const fault(inject_clock_gettime, EINVAL);
        EXPECT_EQ(-1, MutexOps::tryLockTimeout(&m_mutex, 10));
    }
    EXPECT_TRUE(
        chainIs({{Mutex::ErrorId::LOCK_FAILED, rowText(Mutex::ErrorId::LOCK_FAILED, systemText(-1))}}));
}

struct TimedRow {
    int error;
    signed char result;
    int id;
};

class MutexOpsTimedRows : public MutexOpsTest, public testing::WithParamInterface<TimedRow> {};

TEST_P(MutexOpsTimedRows, reports) {
    TimedRow const& row = GetParam();
    signed char result = 0;
    {
        Fault const fault(inject_pthread_mutex_timedlock, row.error);
        result = MutexOps::tryLockTimeout(&m_mutex, 10);
    }
    EXPECT_EQ(row.result, result);
    EXPECT_EQ(row.error, errno);
    if (row.result == 1) {
        EXPECT_TRUE(chainIs({}));
    } else {
        EXPECT_TRUE(chainIs({{Mutex::Error, row.id, rowText(Mutex::Error, row.id, systemText(row.error))}}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, MutexOpsTimedRows,
    testing::Values(
        TimedRow{EBUSY, 1, 0}, TimedRow{ETIMEDOUT, 1, 0}, TimedRow{EAGAIN, -1, 3}, TimedRow{EINVAL, -1, 3},
        TimedRow{EDEADLK, -1, 3}, TimedRow{EPERM, -1, 1}, TimedRow{ENOTRECOVERABLE, -1, 1}));

// ---- classification ----

struct HandlerRow {
    char const* name;
    int (*handler)(int);
    int error;
    int result;
    int id; // -1: no report
};

void PrintTo(HandlerRow const& row, std::ostream* out) {
    *out << row.name << " errno " << row.error;
}

int lockError(int error) {
    return MutexOps::handleLockError(error) ? 1 : 0;
}
int unlockError(int error) {
    return MutexOps::handleUnlockError(error) ? 1 : 0;
}
int tryLockError(int error) {
    return MutexOps::handleTryLockError(error);
}

class MutexOpsHandlerRows : public testing::TestWithParam<HandlerRow> {};

TEST_P(MutexOpsHandlerRows, classifies) {
    HandlerRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_EQ(row.result, row.handler(row.error));
    EXPECT_EQ(row.error, errno);
    if (row.id < 0) {
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}})) << "no report leaves what was pending";
    } else {
        EXPECT_TRUE(chainIs({{Mutex::Error, row.id, rowText(Mutex::Error, row.id, systemText(row.error))}}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, MutexOpsHandlerRows,
    testing::Values(
        HandlerRow{"lock", lockError, EPERM, 1, 3}, HandlerRow{"lock", lockError, EBUSY, 1, 3},
        HandlerRow{"lock", lockError, EINVAL, 1, 3}, HandlerRow{"lock", lockError, EDEADLK, 1, 3},
        HandlerRow{"lock", lockError, EAGAIN, 1, 1}, HandlerRow{"lock", lockError, ENOMEM, 1, 1},
        HandlerRow{"unlock", unlockError, EPERM, 1, 3}, HandlerRow{"unlock", unlockError, EINVAL, 1, 3},
        HandlerRow{"unlock", unlockError, EBUSY, 1, 2}, HandlerRow{"unlock", unlockError, EAGAIN, 1, 2},
        HandlerRow{"trylock", tryLockError, EBUSY, 1, -1}, HandlerRow{"trylock", tryLockError, EPERM, -1, 3},
        HandlerRow{"trylock", tryLockError, EINVAL, -1, 3},
        HandlerRow{"trylock", tryLockError, EDEADLK, -1, 3},
        HandlerRow{"trylock", tryLockError, EAGAIN, -1, 1}));

} // namespace
