#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/RWLock.h>
#include <vesk/RWLockOps.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <thread>

namespace {

/// What the system is told by this thread.
thread_local int t_shared = -1;
thread_local bool t_has_attributes = false;
thread_local timespec t_deadline{};
thread_local timespec t_now{}; // What the wall clock shows, unless it is 0.

int note(int shared) {
    t_shared = shared;
    return shared;
}
pthread_rwlockattr_t const* note(pthread_rwlockattr_t const* attributes) {
    t_has_attributes = attributes != nullptr;
    return attributes;
}
timespec const* note(timespec const* deadline) {
    t_deadline = *deadline;
    return deadline;
}

} // namespace

VESK_INJECT_RESULT(pthread_rwlockattr_init, (pthread_rwlockattr_t * a), (a))
VESK_INJECT_RESULT(pthread_rwlockattr_setpshared, (pthread_rwlockattr_t * a, int shared), (a, note(shared)))
VESK_INJECT_RESULT(pthread_rwlockattr_destroy, (pthread_rwlockattr_t * a), (a))
VESK_INJECT_RESULT(pthread_rwlock_init, (pthread_rwlock_t * l, pthread_rwlockattr_t const* a), (l, note(a)))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_tryrdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_trywrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_timedrdlock, (pthread_rwlock_t * l, timespec const* t), (l, note(t)))
VESK_INJECT_RESULT(pthread_rwlock_timedwrlock, (pthread_rwlock_t * l, timespec const* t), (l, note(t)))

support::Injected inject_clock_gettime("clock_gettime");
extern "C" VESK_UNWATCHED int clock_gettime(clockid_t clock, timespec* time) {
    int error = 0;
    if (inject_clock_gettime.fails(error)) {
        errno = error;
        return -1;
    }
    if (clock == CLOCK_REALTIME && t_now.tv_sec != 0) {
        *time = t_now;
        return 0;
    }
    return reinterpret_cast<int (*)(clockid_t, timespec*)>(inject_clock_gettime.getReal())(clock, time);
}

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::systemText;
using vesk::RWLock;
using vesk::RWLockOps;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

constexpr bool READ = false;
constexpr bool WRITE = true;

bool isFilledWith(pthread_rwlock_t const& lock, unsigned char byte) {
    pthread_rwlock_t filled;
    memset(&filled, byte, sizeof filled);
    return memcmp(&lock, &filled, sizeof filled) == 0;
}

signed char lockWithin(pthread_rwlock_t& lock, bool for_write, unsigned int timeout_ms) {
    return RWLockOps::lock(&lock, for_write, &timeout_ms);
}

/// A raw lock, free at the end of the test.
class RWLockOpsTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(RWLockOps::init(&m_lock, false)); }
    void TearDown() override { EXPECT_FALSE(RWLockOps::destroy(&m_lock)); }

    pthread_rwlock_t m_lock;
};

// ---- init ----

struct InitRow {
    char const* call;
    Injected* function;
    int error;
    int id;
    int text; // the error number that the text tells
};

void PrintTo(InitRow const& row, std::ostream* out) {
    *out << row.call << " errno " << row.error;
}

class RWLockOpsInitRows : public testing::TestWithParam<InitRow> {};

TEST_P(RWLockOpsInitRows, reportsAndLeavesTheMemoryAlone) {
    InitRow const& row = GetParam();
    pthread_rwlock_t lock;
    memset(&lock, 0xFF, sizeof lock);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const destroyed(inject_pthread_rwlockattr_destroy, 0);
        Fault const fault(*row.function, row.error);
        EXPECT_TRUE(RWLockOps::init(&lock, true));
        EXPECT_EQ(row.function == &inject_pthread_rwlockattr_init ? 0 : 1, destroyed.getCalls());
    }
    EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, systemText(row.text))}}));
    EXPECT_TRUE(isFilledWith(lock, 0xFF));
    EXPECT_FALSE(RWLockOps::destroy(&lock));
}

INSTANTIATE_TEST_SUITE_P(
    All, RWLockOpsInitRows,
    testing::Values(
        InitRow{"attr_init", &inject_pthread_rwlockattr_init, ENOMEM, 1, ENOMEM},
        InitRow{"attr_init", &inject_pthread_rwlockattr_init, EAGAIN, 19, EAGAIN},
        InitRow{"attr_init", &inject_pthread_rwlockattr_init, EPERM, 19, EPERM},
        InitRow{"setpshared", &inject_pthread_rwlockattr_setpshared, EINVAL, 19, EINVAL},
        InitRow{"setpshared", &inject_pthread_rwlockattr_setpshared, ENOMEM, 19, ENOMEM},
        InitRow{"init", &inject_pthread_rwlock_init, EPERM, 7, 0},
        InitRow{"init", &inject_pthread_rwlock_init, EAGAIN, 0, 0},
        InitRow{"init", &inject_pthread_rwlock_init, ENOMEM, 1, 0},
        InitRow{"init", &inject_pthread_rwlock_init, EBUSY, 10, 0},
        InitRow{"init", &inject_pthread_rwlock_init, EINVAL, 10, 0},
        InitRow{"init", &inject_pthread_rwlock_init, ENOTSUP, 19, 0}));

TEST(RWLockOpsInit, privateLockThatCannotBeMadeReportsTheTextOfNumberZero) {
    pthread_rwlock_t lock;
    memset(&lock, 0xFF, sizeof lock);
    {
        Fault const fault(inject_pthread_rwlock_init, EAGAIN);
        EXPECT_TRUE(RWLockOps::init(&lock, false));
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::RESOURCES_EXHAUSTED,
          rowText(SysErrorId::RESOURCES_EXHAUSTED, "Success (errno = 0)")}}));
}

TEST(RWLockOpsInit, privateLockHasNoAttributes) {
    pthread_rwlock_t lock;
    t_has_attributes = true;
    Fault const made(inject_pthread_rwlockattr_init, 0);
    Fault const destroyed(inject_pthread_rwlockattr_destroy, 0);
    ASSERT_FALSE(RWLockOps::init(&lock, false));
    EXPECT_FALSE(t_has_attributes);
    EXPECT_EQ(0, made.getCalls());
    EXPECT_EQ(0, destroyed.getCalls());
    EXPECT_FALSE(RWLockOps::destroy(&lock));
}

TEST(RWLockOpsInit, sharedLockIsMadeForProcesses) {
    pthread_rwlock_t lock;
    t_shared = -1;
    t_has_attributes = false;
    Fault const destroyed(inject_pthread_rwlockattr_destroy, 0);
    ASSERT_FALSE(RWLockOps::init(&lock, true));
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, t_shared);
    EXPECT_TRUE(t_has_attributes);
    EXPECT_EQ(1, destroyed.getCalls());
    EXPECT_FALSE(RWLockOps::destroy(&lock));
}

TEST(RWLockOpsInit, attributesThatCannotBeDestroyedAreOnlyAWarning) {
    pthread_rwlock_t lock;
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_rwlockattr_destroy, EBUSY);
        EXPECT_FALSE(RWLockOps::init(&lock, true));
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/RWLockOps init: error destroying temp. attr.", recorder.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(0, RWLockOps::lock(&lock, WRITE, nullptr));
    EXPECT_EQ(0, pthread_rwlock_unlock(&lock));
    EXPECT_FALSE(RWLockOps::destroy(&lock));
}

TEST(RWLockOpsInit, attributesThatCannotBeDestroyedDoNotHideAFailure) {
    pthread_rwlock_t lock;
    memset(&lock, 0xFF, sizeof lock);
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_rwlockattr_destroy, EBUSY);
        Fault const init_fault(inject_pthread_rwlock_init, ENOMEM);
        EXPECT_TRUE(RWLockOps::init(&lock, true));
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/RWLockOps init: error destroying temp. attr.", recorder.getText());
    EXPECT_TRUE(chainIs({{SysErrorId::OUT_OF_MEMORY, rowText(SysErrorId::OUT_OF_MEMORY, systemText(0))}}));
}

// ---- destroy ----

TEST(RWLockOpsDestroy, leavesALockThatWasNeverMadeAloneWithoutASystemCall) {
    pthread_rwlock_t lock;
    memset(&lock, 0xFF, sizeof lock);
    Fault const fault(inject_pthread_rwlock_destroy, EINVAL);
    EXPECT_FALSE(RWLockOps::destroy(&lock));
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(RWLockOpsDestroy, oneOtherByteMakesItALock) {
    pthread_rwlock_t lock;
    for (size_t const at : {size_t{0}, sizeof lock / 2, sizeof lock - 1}) {
        memset(&lock, 0xFF, sizeof lock);
        reinterpret_cast<unsigned char*>(&lock)[at] = 0xFE;
        Fault const fault(inject_pthread_rwlock_destroy, EINVAL);
        EXPECT_TRUE(RWLockOps::destroy(&lock));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs(
            {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EINVAL))}}));
    }
}

struct IdRow {
    int error;
    int id;
};

void PrintTo(IdRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class RWLockOpsDestroyRows : public RWLockOpsTest, public testing::WithParamInterface<IdRow> {};

TEST_P(RWLockOpsDestroyRows, reports) {
    IdRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    bool failed = false;
    {
        Fault const fault(inject_pthread_rwlock_destroy, row.error);
        failed = RWLockOps::destroy(&m_lock);
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, systemText(row.error))}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, RWLockOpsDestroyRows,
    testing::Values(IdRow{EBUSY, 10}, IdRow{EINVAL, 10}, IdRow{EPERM, 19}, IdRow{ENOMEM, 19}));

// ---- lock: the calls ----

struct Form {
    char const* name;
    bool for_write;
    bool has_timeout;
    unsigned int timeout_ms;
    Injected* function;
};

void PrintTo(Form const& form, std::ostream* out) {
    *out << form.name;
}

constexpr unsigned int LONG = 60000;

Form const FORMS[] = {
    {"rdlock", READ, false, 0, &inject_pthread_rwlock_rdlock},
    {"wrlock", WRITE, false, 0, &inject_pthread_rwlock_wrlock},
    {"tryrdlock", READ, true, 0, &inject_pthread_rwlock_tryrdlock},
    {"trywrlock", WRITE, true, 0, &inject_pthread_rwlock_trywrlock},
    {"timedrdlock", READ, true, LONG, &inject_pthread_rwlock_timedrdlock},
    {"timedwrlock", WRITE, true, LONG, &inject_pthread_rwlock_timedwrlock},
};

class RWLockOpsForms : public RWLockOpsTest, public testing::WithParamInterface<Form> {
protected:
    signed char take() {
        Form const& form = GetParam();
        return RWLockOps::lock(&m_lock, form.for_write, form.has_timeout ? &form.timeout_ms : nullptr);
    }
};

TEST_P(RWLockOpsForms, makesItsOneCallAndTakesTheLock) {
    int calls = 0;
    {
        Fault const rd(inject_pthread_rwlock_rdlock, 0);
        Fault const wr(inject_pthread_rwlock_wrlock, 0);
        Fault const try_rd(inject_pthread_rwlock_tryrdlock, 0);
        Fault const try_wr(inject_pthread_rwlock_trywrlock, 0);
        Fault const timed_rd(inject_pthread_rwlock_timedrdlock, 0);
        Fault const timed_wr(inject_pthread_rwlock_timedwrlock, 0);
        EXPECT_EQ(0, take());
        for (Fault const* fault : {&rd, &wr, &try_rd, &try_wr, &timed_rd, &timed_wr}) {
            calls += fault->getCalls();
        }
    }
    EXPECT_EQ(1, calls);
    // Readers are let in beside a reader, and beside a writer nobody is.
    std::thread([this] {
        if (GetParam().for_write) {
            EXPECT_EQ(1, lockWithin(m_lock, READ, 0));
        } else {
            EXPECT_EQ(0, lockWithin(m_lock, READ, 0));
            EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
        }
        EXPECT_EQ(1, lockWithin(m_lock, WRITE, 0));
        EXPECT_TRUE(chainIs({}));
    }).join();
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
}

TEST_P(RWLockOpsForms, classifiesWhatItsOwnCallGives) {
    Form const& form = GetParam();
    struct {
        int error;
        int result;
        int id;
    } const rows[] = {
        {EBUSY, 1, -1},
        {ETIMEDOUT, 1, -1},
        {EDEADLK, -1, 1},
        {EAGAIN, -1, 2},
        {EINVAL, -1, form.for_write ? 4 : 3},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.error);
        signed char result = 0;
        {
            Fault const fault(*form.function, row.error);
            result = take();
            EXPECT_EQ(1, fault.getCalls());
        }
        EXPECT_EQ(row.result, result);
        if (row.id < 0) {
            EXPECT_TRUE(chainIs({}));
        } else {
            EXPECT_TRUE(
                chainIs({{RWLock::Error, row.id, rowText(RWLock::Error, row.id, systemText(row.error))}}));
        }
    }
    EXPECT_EQ(0, lockWithin(m_lock, WRITE, 0)) << "nothing of this took the lock";
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
}

INSTANTIATE_TEST_SUITE_P(All, RWLockOpsForms, testing::ValuesIn(FORMS));

// ---- lock: the deadline ----

struct DeadlineRow {
    long now_seconds;
    long now_nanoseconds;
    unsigned int timeout_ms;
    long seconds;
    long nanoseconds;
};

void PrintTo(DeadlineRow const& row, std::ostream* out) {
    *out << row.now_seconds << "." << row.now_nanoseconds << " + " << row.timeout_ms << " ms";
}

class RWLockOpsDeadlines : public RWLockOpsTest, public testing::WithParamInterface<DeadlineRow> {};

TEST_P(RWLockOpsDeadlines, areTheWallClockPlusTheTimeout) {
    DeadlineRow const& row = GetParam();
    for (bool const for_write : {READ, WRITE}) {
        t_now.tv_sec = row.now_seconds;
        t_now.tv_nsec = row.now_nanoseconds;
        EXPECT_EQ(0, lockWithin(m_lock, for_write, row.timeout_ms));
        t_now = timespec{};
        EXPECT_EQ(row.seconds, t_deadline.tv_sec);
        EXPECT_EQ(row.nanoseconds, t_deadline.tv_nsec);
        EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, RWLockOpsDeadlines,
    testing::Values(
        DeadlineRow{1000, 0, 1, 1000, 1000000}, DeadlineRow{1000, 5, 2500, 1002, 500000005},
        DeadlineRow{1000, 998999999, 1, 1000, 999999999}, DeadlineRow{1000, 999000000, 1, 1001, 0},
        DeadlineRow{1000, 999999999, 999, 1001, 998999999},
        DeadlineRow{1000, 999999999, 1000, 1001, 999999999},
        DeadlineRow{1000, 0, 4294967295U, 4295967, 295000000}));

TEST_F(RWLockOpsTest, clockThatCannotBeReadIsAFailureOfReadingOrWriting) {
    for (bool const for_write : {READ, WRITE}) {
        signed char result = 0;
        {
            Fault const fault(inject_clock_gettime, EINVAL);
            result = lockWithin(m_lock, for_write, 10);
        }
        int const id = for_write ? 4 : 3;
        EXPECT_EQ(-1, result);
        EXPECT_TRUE(chainIs({{RWLock::Error, id, rowText(RWLock::Error, id, systemText(EINVAL))}}));
    }
}

TEST_F(RWLockOpsTest, onlyTheTimedFormsReadTheClock) {
    Fault const fault(inject_clock_gettime, EINVAL, 1, Fault::FOREVER);
    EXPECT_EQ(0, RWLockOps::lock(&m_lock, READ, nullptr));
    EXPECT_EQ(0, lockWithin(m_lock, READ, 0));
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
}

// ---- classification ----

struct HandlerRow {
    bool for_write;
    int error;
    int result;
    int id; // -1: no report
    char const* text;
};

void PrintTo(HandlerRow const& row, std::ostream* out) {
    *out << (row.for_write ? "write" : "read") << " errno " << row.error;
}

class RWLockOpsLockHandlerRows : public testing::TestWithParam<HandlerRow> {};

TEST_P(RWLockOpsLockHandlerRows, classifies) {
    HandlerRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_EQ(row.result, RWLockOps::handleLockError(row.error, row.for_write));
    if (row.id < 0) {
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}})) << "no report leaves what was pending";
    } else {
        EXPECT_TRUE(chainIs({{RWLock::Error, row.id, row.text + systemText(row.error)}}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, RWLockOpsLockHandlerRows,
    testing::Values(
        HandlerRow{READ, EBUSY, 1, -1, ""}, HandlerRow{WRITE, EBUSY, 1, -1, ""},
        HandlerRow{READ, ETIMEDOUT, 1, -1, ""}, HandlerRow{WRITE, ETIMEDOUT, 1, -1, ""},
        HandlerRow{READ, EDEADLK, -1, 1, "Deadlock has been detected: "},
        HandlerRow{WRITE, EDEADLK, -1, 1, "Deadlock has been detected: "},
        HandlerRow{READ, EAGAIN, -1, 2, "Maximum lock count has been reached: "},
        HandlerRow{WRITE, EAGAIN, -1, 2, "Maximum lock count has been reached: "},
        HandlerRow{READ, EINVAL, -1, 3, "Locking for read failed: "},
        HandlerRow{WRITE, EINVAL, -1, 4, "Locking for write failed: "},
        HandlerRow{READ, EPERM, -1, 3, "Locking for read failed: "},
        HandlerRow{WRITE, EPERM, -1, 4, "Locking for write failed: "}));

TEST(RWLockOpsUnlockHandler, unlockingWhatIsNotHeldIsDeniedFirst) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(RWLockOps::handleUnlockError(EPERM));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
         {RWLock::Error, RWLock::ErrorId::UNLOCK_FAILED, "Unlocking failed: " + systemText(EPERM)}}));
}

TEST(RWLockOpsUnlockHandler, anyOtherFailureStandsAlone) {
    for (int const error : {EINVAL, EDEADLK, EAGAIN}) {
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        EXPECT_TRUE(RWLockOps::handleUnlockError(error));
        EXPECT_TRUE(chainIs({{RWLock::ErrorId::UNLOCK_FAILED, "Unlocking failed: " + systemText(error)}}));
    }
}

} // namespace
