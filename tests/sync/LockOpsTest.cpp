#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/FailOnce.h"
#include "sync/LockCalls.h"
#include "sync/LockSupport.h"

#include <vesk/Condition.h>
#include <vesk/ConditionOps.h>
#include <vesk/MutexOps.h>
#include <vesk/RWLockOps.h>
#include <vesk/SpinLockOps.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <chrono>
#include <deque>
#include <limits>

VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * m), (m))

namespace {

using namespace support;
using namespace vesk;
using tarnbase::Duration;
using tarnbase::TimePoint;

constexpr bool READ = false;
constexpr bool WRITE = true;

RWLock::ErrorId failedId(bool for_write) {
    return for_write ? RWLock::ErrorId::WRITE_LOCK_FAILED : RWLock::ErrorId::READ_LOCK_FAILED;
}

signed char lockWithin(pthread_rwlock_t& lock, bool for_write, unsigned int timeout_ms) {
    return RWLockOps::lock(&lock, for_write, &timeout_ms);
}

// ---- the kinds of raw locks ----

union Memory {
    pthread_mutex_t mutex;
    pthread_rwlock_t rwlock;
    pthread_cond_t condition;
};

struct Kind {
    char const* name;
    size_t size;
    Injected* init_attributes;
    Injected* share;
    Injected* destroy_attributes;
    Injected* create;
    Injected* destruction;
    SysErrorId::Id destruction_einval; ///< The report of a destruction that fails with `EINVAL`.
    int mark;                          ///< Each byte of the memory behind a creation that failed.
    char const* warning;
    bool (*init)(Memory&, bool shared);
    bool (*destroy)(Memory&);
    int (*use)(Memory&);

    void fill(Memory& memory, int byte) const { memset(&memory, byte, size); }
    std::vector<ExpectedReport> getReports(Injected const* function, SysErrorId::Id id, int error) const;
};

template <typename... Args>
Kind makeKind(Args... args) {
    return {args...};
}

Kind const MUTEX = makeKind(
    "mutex", sizeof(pthread_mutex_t), &inject_pthread_mutexattr_init, &inject_pthread_mutexattr_setpshared,
    &inject_pthread_mutexattr_destroy, &inject_pthread_mutex_init, &inject_pthread_mutex_destroy,
    SysErrorId::UNCLASSIFIED, 0xEB, "MutexOps ~AttrCleaner: destroying mutex attributes failed, res = 22",
    [](Memory& memory, bool shared) { return MutexOps::init(&memory.mutex, shared, shared, shared, shared); },
    [](Memory& memory) { return MutexOps::destroy(&memory.mutex); },
    [](Memory& memory) { return pthread_mutex_lock(&memory.mutex) + pthread_mutex_unlock(&memory.mutex); });
Kind const RWLOCK = makeKind(
    "rwlock", sizeof(pthread_rwlock_t), &inject_pthread_rwlockattr_init,
    &inject_pthread_rwlockattr_setpshared, &inject_pthread_rwlockattr_destroy, &inject_pthread_rwlock_init,
    &inject_pthread_rwlock_destroy, SysErrorId::SPOILED_INTEGRITY, 0xFF,
    "RWLockOps init: error destroying temp. attr.",
    [](Memory& memory, bool shared) { return RWLockOps::init(&memory.rwlock, shared); },
    [](Memory& memory) { return RWLockOps::destroy(&memory.rwlock); },
    [](Memory& memory) {
        return RWLockOps::lock(&memory.rwlock, WRITE, nullptr) + pthread_rwlock_unlock(&memory.rwlock);
    });
Kind const CONDITION = makeKind(
    "condition", sizeof(pthread_cond_t), &inject_pthread_condattr_init, &inject_pthread_condattr_setpshared,
    &inject_pthread_condattr_destroy, &inject_pthread_cond_init, nullptr, SysErrorId::SPOILED_INTEGRITY, 0xEB,
    "ConditionOps init: destroying condition attributes failed, res = 22",
    [](Memory& memory, bool shared) { return ConditionOps::init(&memory.condition, shared); },
    [](Memory& memory) { return pthread_cond_destroy(&memory.condition) != 0; },
    [](Memory& memory) { return pthread_cond_signal(&memory.condition); });

/// Returns the reports of a creation that fails. That of a read-write lock shows the text of number 0.
std::vector<ExpectedReport> Kind::getReports(Injected const* function, SysErrorId::Id id, int error) const {
    int const shown = function == &inject_pthread_rwlock_init ? 0 : error;
    std::vector<ExpectedReport> reports = {{id, rowText(id, systemText(shown))}};
    if (this == &CONDITION) {
        reports.emplace_back(Condition::ErrorId::CREATE_FAILED, "Creating condition variable failed");
    }
    return reports;
}

// ---- init ----

struct InitRow {
    char const* name;
    Kind const* kind;
    Injected* function;
    std::vector<int> errors;
    SysErrorId::Id id;
    int error = 0;
};

auto const INIT_ROWS = eachErrno<InitRow>({
    {"mutexattr_init", &MUTEX, &inject_pthread_mutexattr_init, {ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {"mutexattr_init", &MUTEX, &inject_pthread_mutexattr_init, {EAGAIN}, SysErrorId::UNCLASSIFIED},
    {"settype", &MUTEX, &inject_pthread_mutexattr_settype, {EINVAL, ENOMEM}, SysErrorId::UNCLASSIFIED},
    {"setprotocol", &MUTEX, &inject_pthread_mutexattr_setprotocol, {ENOTSUP}, SysErrorId::UNCLASSIFIED},
    {"setrobust", &MUTEX, &inject_pthread_mutexattr_setrobust, {EINVAL}, SysErrorId::UNCLASSIFIED},
    {"mutexattr_setpshared", &MUTEX, MUTEX.share, {EINVAL}, SysErrorId::UNCLASSIFIED},
    {"mutex_init", &MUTEX, &inject_pthread_mutex_init, {ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {"mutex_init", &MUTEX, &inject_pthread_mutex_init, {ENOTSUP}, SysErrorId::NOT_IMPLEMENTED},
    {"mutex_init", &MUTEX, &inject_pthread_mutex_init, {EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {"mutex_init", &MUTEX, &inject_pthread_mutex_init, {EINVAL, EPERM}, SysErrorId::SPOILED_INTEGRITY},
    {"rwlockattr_init", &RWLOCK, &inject_pthread_rwlockattr_init, {ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {"rwlockattr_init", &RWLOCK, RWLOCK.init_attributes, {EAGAIN, EPERM}, SysErrorId::UNCLASSIFIED},
    {"rwlockattr_setpshared", &RWLOCK, RWLOCK.share, {EINVAL, ENOMEM}, SysErrorId::UNCLASSIFIED},
    {"rwlock_init", &RWLOCK, &inject_pthread_rwlock_init, {EPERM}, SysErrorId::PERMISSION_DENIED},
    {"rwlock_init", &RWLOCK, &inject_pthread_rwlock_init, {EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {"rwlock_init", &RWLOCK, &inject_pthread_rwlock_init, {ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {"rwlock_init", &RWLOCK, RWLOCK.create, {EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {"rwlock_init", &RWLOCK, &inject_pthread_rwlock_init, {ENOTSUP}, SysErrorId::UNCLASSIFIED},
    {"condattr_init", &CONDITION, CONDITION.init_attributes, {EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {"condattr_init", &CONDITION, CONDITION.init_attributes, {ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {"condattr_init", &CONDITION, CONDITION.init_attributes, {EPERM}, SysErrorId::UNCLASSIFIED},
    {"setclock", &CONDITION, &inject_pthread_condattr_setclock, {EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {"setclock", &CONDITION, &inject_pthread_condattr_setclock, {ENOTSUP}, SysErrorId::UNCLASSIFIED},
    {"condattr_setpshared", &CONDITION, CONDITION.share, {EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {"condattr_setpshared", &CONDITION, CONDITION.share, {EPERM}, SysErrorId::UNCLASSIFIED},
    {"cond_init", &CONDITION, &inject_pthread_cond_init, {EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {"cond_init", &CONDITION, &inject_pthread_cond_init, {ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {"cond_init", &CONDITION, CONDITION.create, {EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {"cond_init", &CONDITION, &inject_pthread_cond_init, {EPERM}, SysErrorId::UNCLASSIFIED},
});

VESK_TEST_TABLE(LockOpsInitRows, reportAndMarkTheMemory, testing::Test, INIT_ROWS) {
    InitRow const& row = GetParam();
    Memory memory;
    row.kind->fill(memory, 0xFF);
    leaveOlderReport();
    Fault const destroyed(*row.kind->destroy_attributes, 0);
    Fault const fault(*row.function, row.error);
    EXPECT_TRUE(row.kind->init(memory, true));
    EXPECT_TRUE(row.kind != &MUTEX || errno == row.error) << errno;
    EXPECT_TRUE(chainIs(row.kind->getReports(row.function, row.id, row.error)));
    Memory marked;
    row.kind->fill(marked, row.kind->mark);
    EXPECT_EQ(0, memcmp(&marked, &memory, row.kind->size));
    EXPECT_EQ(row.function == row.kind->init_attributes ? 0 : 1, destroyed.getCalls());
    if (row.kind != &CONDITION) {
        EXPECT_FALSE(row.kind->destroy(memory));
    }
}

struct KindName {
    std::string operator()(testing::TestParamInfo<Kind const*> const& info) const { return info.param->name; }
};

class LockOpsInit : public testing::TestWithParam<Kind const*> {
protected:
    Kind const& m_kind = *GetParam();
    Memory m_memory;
};

TEST_P(LockOpsInit, isSharedOnlyIfWanted) {
    Fault const shared(*m_kind.share, 0);
    ASSERT_FALSE(m_kind.init(m_memory, false));
    EXPECT_EQ(0, shared.getCalls());
    EXPECT_FALSE(m_kind.destroy(m_memory));
    t_shared = -1;
    Fault const destroyed(*m_kind.destroy_attributes, 0);
    ASSERT_FALSE(m_kind.init(m_memory, true));
    EXPECT_EQ(1, shared.getCalls());
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, t_shared);
    EXPECT_EQ(1, destroyed.getCalls());
    EXPECT_FALSE(m_kind.destroy(m_memory));
}

TEST_P(LockOpsInit, attributesThatCannotBeDestroyedAreOnlyAWarning) {
    std::string const warning = std::string("WARNING framework/src/vesk/posix/") + m_kind.warning;
    for (int const error : {0, ENOMEM}) {
        EventRecorder recorder;
        {
            Fault const fault(*m_kind.destroy_attributes, EINVAL);
            Fault const init_fault(*m_kind.create, error);
            EXPECT_EQ(error != 0, m_kind.init(m_memory, true)) << "the warning does not hide a failure";
        }
        EXPECT_EQ(warning, recorder.getText());
        if (error == 0) {
            EXPECT_TRUE(chainIs({}));
            EXPECT_EQ(0, m_kind.use(m_memory));
            EXPECT_FALSE(m_kind.destroy(m_memory));
        } else {
            EXPECT_TRUE(chainIs(m_kind.getReports(m_kind.create, SysErrorId::OUT_OF_MEMORY, error)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, LockOpsInit, testing::Values(&MUTEX, &RWLOCK, &CONDITION), KindName());

TEST(RWLockOpsInit, privateLockThatCannotBeMadeReportsTheTextOfNumberZero) {
    pthread_rwlock_t lock;
    EXPECT_TRUE(
        failOnce(inject_pthread_rwlock_init, EAGAIN, [&lock] { return RWLockOps::init(&lock, false); }));
    SysErrorId::Id const id = SysErrorId::RESOURCES_EXHAUSTED;
    EXPECT_TRUE(chainIs({{id, rowText(id, "Success (errno = 0)")}}));
}

TEST(RWLockOpsInit, onlyASharedLockHasAttributes) {
    pthread_rwlock_t lock;
    Fault const made(inject_pthread_rwlockattr_init, 0);
    Fault const destroyed(inject_pthread_rwlockattr_destroy, 0);
    for (int const shared : {0, 1}) {
        t_has_attributes = shared == 0;
        ASSERT_FALSE(RWLockOps::init(&lock, shared == 1));
        EXPECT_EQ(shared == 1, t_has_attributes);
        EXPECT_EQ(shared, made.getCalls());
        EXPECT_EQ(shared, destroyed.getCalls());
        EXPECT_FALSE(RWLockOps::destroy(&lock));
    }
}

TEST(ConditionOpsInit, failedStepKeepsTheLaterOnesFromRunning) {
    pthread_cond_t condition;
    Fault const fault(inject_pthread_condattr_setclock, EINVAL);
    Fault const shared(inject_pthread_condattr_setpshared, 0);
    Fault const made(inject_pthread_cond_init, 0);
    EXPECT_TRUE(ConditionOps::init(&condition, true));
    EXPECT_EQ(0, shared.getCalls() + made.getCalls());
    EXPECT_TRUE(chainIs({SysErrorId::SPOILED_INTEGRITY, Condition::ErrorId::CREATE_FAILED}));
}

TEST(ConditionOpsInit, isOnTheMonotonicClock) {
    for (bool const process_shared : {false, true}) {
        pthread_cond_t condition;
        t_clock = -1;
        ASSERT_FALSE(ConditionOps::init(&condition, process_shared));
        EXPECT_EQ(CLOCK_MONOTONIC, t_clock);
        // The wall clock is decades ahead of the monotonic one: on it this deadline has long passed.
        auto const deadline = TimePoint::now() + Duration(20);
        timespec const time = deadline.toTimespec();
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        ASSERT_EQ(0, pthread_mutex_lock(&mutex));
        int error = 0;
        do {
            error = pthread_cond_timedwait(&condition, &mutex, &time);
        } while (error == 0);
        EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
        EXPECT_EQ(ETIMEDOUT, error);
        EXPECT_GE(TimePoint::now().getCount(), deadline.getCount());
        EXPECT_EQ(0, pthread_cond_destroy(&condition));
    }
}

// ---- destroy ----

class LockOpsDestroy : public LockOpsInit {};

INSTANTIATE_TEST_SUITE_P(All, LockOpsDestroy, testing::Values(&MUTEX, &RWLOCK), KindName());

TEST_P(LockOpsDestroy, leavesALockThatWasNeverMadeAloneWithoutASystemCall) {
    m_kind.fill(m_memory, m_kind.mark);
    Fault const fault(*m_kind.destruction, EINVAL);
    EXPECT_FALSE(m_kind.destroy(m_memory));
    EXPECT_EQ(0, fault.getCalls());
}

TEST_P(LockOpsDestroy, oneOtherByteMakesItALock) {
    for (size_t const at : {size_t{0}, m_kind.size / 2, m_kind.size - 1}) {
        m_kind.fill(m_memory, m_kind.mark);
        reinterpret_cast<unsigned char*>(&m_memory)[at] ^= 1;
        EXPECT_TRUE(failOnce(*m_kind.destruction, EINVAL, [this] { return m_kind.destroy(m_memory); }));
        EXPECT_TRUE(causeIs(m_kind.destruction_einval, EINVAL));
    }
}

// ---- what the operations make of an error number ----

struct Row {
    char const* name;
    int (*operation)(int error);
    std::vector<int> errors;
    int result;
    std::vector<ExpectedReport> reports; ///< The root cause first. Without one, the pending chain stays.
    int error = 0;
};

int failMutexDestroy(int error) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    return failOnce(inject_pthread_mutex_destroy, error, [&] { return MutexOps::destroy(&mutex); });
}
int failMutexTimedLock(int error) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    return failOnce(
        inject_pthread_mutex_timedlock, error, [&] { return MutexOps::tryLockTimeout(&mutex, 10); });
}
int failMutexRecovery(int error) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    return failOnce(inject_pthread_mutex_consistent, error, [&] { return MutexOps::recover(&mutex); });
}
int failRWLockDestroy(int error) {
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    return failOnce(inject_pthread_rwlock_destroy, error, [&] { return RWLockOps::destroy(&lock); });
}
template <bool FOR_WRITE>
int failRWLock(int error) {
    return RWLockOps::handleLockError(error, FOR_WRITE);
}
/// Checks that an operation sets errno to its error number.
template <auto OPERATION>
int setsErrno(int error) {
    int const result = OPERATION(error);
    EXPECT_EQ(error, errno);
    return result;
}
/// Checks that an operation leaves errno as it is.
template <auto OPERATION>
int keepsErrno(int error) {
    errno = ENOEXEC;
    int const result = OPERATION(error);
    EXPECT_EQ(ENOEXEC, errno);
    return result;
}
int unlockRWLock(int error) {
    return RWLockOps::handleUnlockError(error);
}

constexpr auto MUTEX_DESTROY = setsErrno<failMutexDestroy>;
constexpr auto MUTEX_TIMED = setsErrno<failMutexTimedLock>;
constexpr auto MUTEX_RECOVERY = setsErrno<failMutexRecovery>;
constexpr auto MUTEX_LOCK = setsErrno<MutexOps::handleLockError>;
constexpr auto MUTEX_UNLOCK = setsErrno<MutexOps::handleUnlockError>;
constexpr auto MUTEX_TRY = setsErrno<MutexOps::handleTryLockError>;
constexpr auto SPIN_INIT = setsErrno<SpinLockOps::handleInitError>;
constexpr auto SPIN_DESTROY = setsErrno<SpinLockOps::handleDestroyError>;
constexpr auto SPIN_LOCK = setsErrno<SpinLockOps::handleLockError>;
constexpr auto SPIN_TRY = setsErrno<SpinLockOps::handleTryLockError>;
constexpr auto SPIN_UNLOCK = setsErrno<SpinLockOps::handleUnlockError>;
constexpr auto COND_INIT = keepsErrno<ConditionOps::handleInitError>;
constexpr auto COND_DESTROY = keepsErrno<ConditionOps::handleDestroyError>;
constexpr auto COND_WAIT = keepsErrno<ConditionOps::handleWaitError>;
constexpr auto COND_SIGNAL = keepsErrno<ConditionOps::handleSignalError>;

constexpr auto NOT_CREATED = Condition::ErrorId::CREATE_FAILED;
constexpr auto NOT_WAITED = Condition::ErrorId::WAIT_FAILED;
constexpr auto NOT_SIGNALED = Condition::ErrorId::SIGNAL_FAILED;

/// Checks the result and the reports of a row.
void check(Row const& row) {
    leaveOlderReport();
    EXPECT_EQ(row.result, row.operation(row.error));
    EXPECT_TRUE(row.reports.empty() ? onlyOlderIsPending() : chainIs(withErrno(row.reports, row.error)));
}

auto const ROWS = eachErrno<Row>({
    {"Mutex_destroy", MUTEX_DESTROY, {EBUSY, EINVAL}, 1, {SysErrorId::UNCLASSIFIED}},
    {"Mutex_timedlock", MUTEX_TIMED, {EBUSY, ETIMEDOUT}, 1, {}},
    {"Mutex_timedlock", MUTEX_TIMED, {EAGAIN, EINVAL, EDEADLK}, -1, {Mutex::ErrorId::INCONSISTENT}},
    {"Mutex_timedlock", MUTEX_TIMED, {EPERM, ENOTRECOVERABLE}, -1, {Mutex::ErrorId::LOCK_FAILED}},
    {"Mutex_timedlock", MUTEX_TIMED, {EOWNERDEAD}, -1, {Mutex::ErrorId::OWNER_DIED}},
    {"Mutex_consistent", MUTEX_RECOVERY, {EINVAL}, 1, {Mutex::ErrorId::INCONSISTENT}},
    {"Mutex_consistent", MUTEX_RECOVERY, {EPERM}, 1, {Mutex::ErrorId::LOCK_FAILED}},
    {"Mutex_lock", MUTEX_LOCK, {EOWNERDEAD}, 1, {Mutex::ErrorId::OWNER_DIED}},
    {"Mutex_lock", MUTEX_LOCK, {EPERM, EBUSY, EINVAL, EDEADLK}, 1, {Mutex::ErrorId::INCONSISTENT}},
    {"Mutex_lock", MUTEX_LOCK, {EAGAIN, ENOMEM}, 1, {Mutex::ErrorId::LOCK_FAILED}},
    {"Mutex_unlock", MUTEX_UNLOCK, {EPERM, EINVAL}, 1, {Mutex::ErrorId::INCONSISTENT}},
    {"Mutex_unlock", MUTEX_UNLOCK, {EBUSY, EAGAIN}, 1, {Mutex::ErrorId::UNLOCK_FAILED}},
    {"Mutex_trylock", MUTEX_TRY, {EBUSY}, 1, {}},
    {"Mutex_trylock", MUTEX_TRY, {EOWNERDEAD}, -1, {Mutex::ErrorId::OWNER_DIED}},
    {"Mutex_trylock", MUTEX_TRY, {EPERM, EINVAL, EDEADLK}, -1, {Mutex::ErrorId::INCONSISTENT}},
    {"Mutex_trylock", MUTEX_TRY, {EAGAIN}, -1, {Mutex::ErrorId::LOCK_FAILED}},
    // A lock that fails reports the row of unlocking, and the reverse.
    {"SpinLock_init", SPIN_INIT, {ENOMEM, EAGAIN}, 1, {SpinLock::ErrorId::CREATE_FAILED}},
    {"SpinLock_destroy", SPIN_DESTROY, {EBUSY, EINVAL}, 1, {SysErrorId::SPOILED_INTEGRITY}},
    {"SpinLock_destroy", SPIN_DESTROY, {EPERM}, 1, {SysErrorId::UNCLASSIFIED}},
    {"SpinLock_lock", SPIN_LOCK, {EPERM}, 1, {SpinLock::ErrorId::INCONSISTENT}},
    {"SpinLock_lock", SPIN_LOCK, {EDEADLK, EBUSY, EINVAL}, 1, {SpinLock::ErrorId::UNLOCK_FAILED}},
    {"SpinLock_trylock", SPIN_TRY, {EBUSY}, 1, {}},
    {"SpinLock_trylock", SPIN_TRY, {EDEADLK}, -1, {SpinLock::ErrorId::INCONSISTENT}},
    {"SpinLock_trylock", SPIN_TRY, {EPERM, EINVAL}, -1, {SpinLock::ErrorId::LOCK_FAILED}},
    {"SpinLock_unlock", SPIN_UNLOCK, {EDEADLK}, 1, {SpinLock::ErrorId::INCONSISTENT}},
    {"SpinLock_unlock", SPIN_UNLOCK, {EPERM, EINVAL}, 1, {SpinLock::ErrorId::LOCK_FAILED}},
    {"RWLock_destroy", failRWLockDestroy, {EBUSY, EINVAL}, 1, {SysErrorId::SPOILED_INTEGRITY}},
    {"RWLock_destroy", failRWLockDestroy, {EPERM, ENOMEM}, 1, {SysErrorId::UNCLASSIFIED}},
    {"RWLock_read", failRWLock<READ>, {EBUSY, ETIMEDOUT}, 1, {}},
    {"RWLock_read", failRWLock<READ>, {EDEADLK}, -1, {RWLock::ErrorId::DEADLOCK}},
    {"RWLock_read", failRWLock<READ>, {EAGAIN}, -1, {RWLock::ErrorId::TOO_MANY_LOCKS}},
    {"RWLock_read", failRWLock<READ>, {EINVAL, EPERM}, -1, {RWLock::ErrorId::READ_LOCK_FAILED}},
    {"RWLock_write", failRWLock<WRITE>, {EBUSY, ETIMEDOUT}, 1, {}},
    {"RWLock_write", failRWLock<WRITE>, {EDEADLK}, -1, {RWLock::ErrorId::DEADLOCK}},
    {"RWLock_write", failRWLock<WRITE>, {EAGAIN}, -1, {RWLock::ErrorId::TOO_MANY_LOCKS}},
    {"RWLock_write", failRWLock<WRITE>, {EINVAL, EPERM}, -1, {RWLock::ErrorId::WRITE_LOCK_FAILED}},
    {"RWLock_unlock",
     unlockRWLock,
     {EPERM},
     1,
     {SysErrorId::PERMISSION_DENIED, RWLock::ErrorId::UNLOCK_FAILED}},
    {"RWLock_unlock", unlockRWLock, {EINVAL, EDEADLK, EAGAIN}, 1, {RWLock::ErrorId::UNLOCK_FAILED}},
    {"Condition_init", COND_INIT, {EAGAIN}, 1, {SysErrorId::RESOURCES_EXHAUSTED, NOT_CREATED}},
    {"Condition_init", COND_INIT, {ENOMEM}, 1, {SysErrorId::OUT_OF_MEMORY, NOT_CREATED}},
    {"Condition_init", COND_INIT, {EBUSY, EINVAL}, 1, {SysErrorId::SPOILED_INTEGRITY, NOT_CREATED}},
    {"Condition_init", COND_INIT, {EPERM, ENOTSUP}, 1, {SysErrorId::UNCLASSIFIED, NOT_CREATED}},
    {"Condition_destroy", COND_DESTROY, {EBUSY, EINVAL}, 1, {SysErrorId::SPOILED_INTEGRITY}},
    {"Condition_destroy", COND_DESTROY, {EPERM}, 1, {SysErrorId::UNCLASSIFIED}},
    {"Condition_wait", COND_WAIT, {ETIMEDOUT}, 1, {}},
    {"Condition_wait", COND_WAIT, {EOWNERDEAD}, -1, {Mutex::ErrorId::OWNER_DIED}},
    {"Condition_wait", COND_WAIT, {EINVAL, EPERM}, -1, {SysErrorId::SPOILED_INTEGRITY, NOT_WAITED}},
    {"Condition_wait", COND_WAIT, {ENOTRECOVERABLE, EBUSY}, -1, {SysErrorId::UNCLASSIFIED, NOT_WAITED}},
    {"Condition_signal", COND_SIGNAL, {EINVAL}, 1, {SysErrorId::SPOILED_INTEGRITY, NOT_SIGNALED}},
    {"Condition_signal", COND_SIGNAL, {EPERM, EBUSY}, 1, {SysErrorId::UNCLASSIFIED, NOT_SIGNALED}},
});

VESK_TEST_TABLE(LockOpsRows, areClassifiedAndSetErrnoForMutexesAndSpinLocksOnly, testing::Test, ROWS) {
    check(GetParam());
}

// ---- what the locks make of a system call that fails ----

/// Returns the result of an operation with a system call that fails. The lock is held before and after it.
template <typename Lock, auto OPERATION, Injected* FUNCTION>
int fail(int error) {
    Lock const lock;
    EXPECT_FALSE(lockForWrite(lock));
    leaveOlderReport();
    int const result = failOnce(*FUNCTION, error, [&lock] { return std::invoke(OPERATION, lock); });
    if constexpr (!std::is_same_v<Lock, Mutex>) {
        std::thread([&lock] {
            EXPECT_EQ(1, tryForWrite(lock)) << "a failure does not release the lock";
        }).join();
        EXPECT_FALSE(lock.unlock());
        EXPECT_EQ(0, tryForWrite(lock)) << "a failure does not take the lock";
    }
    EXPECT_FALSE(lock.unlock());
    return result;
}
signed char tryFor1000Ms(ShmMutex const& mutex) {
    return mutex.tryLockTimeout(1000);
}

constexpr auto LOCK = fail<Mutex, &Mutex::lock, &inject_pthread_mutex_lock>;
constexpr auto UNLOCK = fail<Mutex, &Mutex::unlock, &inject_pthread_mutex_unlock>;
constexpr auto SHM_LOCK = fail<ShmMutex, &ShmMutex::lock, &inject_pthread_mutex_lock>;
constexpr auto SHM_TRY = fail<ShmMutex, &ShmMutex::tryLock, &inject_pthread_mutex_trylock>;
constexpr auto SHM_TIMED = fail<ShmMutex, tryFor1000Ms, &inject_pthread_mutex_timedlock>;
constexpr auto SHM_UNLOCK = fail<ShmMutex, &ShmMutex::unlock, &inject_pthread_mutex_unlock>;
constexpr auto READ_LOCK = fail<RWLock, &RWLock::lockForRead, &inject_pthread_rwlock_rdlock>;
constexpr auto WRITE_LOCK = fail<RWLock, &RWLock::lockForWrite, &inject_pthread_rwlock_wrlock>;
constexpr auto RW_UNLOCK = fail<RWLock, &RWLock::unlock, &inject_pthread_rwlock_unlock>;
constexpr auto SHM_RW_UNLOCK = fail<ShmRWLock, &ShmRWLock::unlock, &inject_pthread_rwlock_unlock>;
constexpr auto INCONSISTENT = Mutex::ErrorId::INCONSISTENT;
std::vector<ExpectedReport> const NOT_PERMITTED = {SysErrorId::PERMISSION_DENIED, RWLock::UNLOCK_FAILED};

auto const LOCK_ROWS = eachErrno<Row>({
    {"Mutex_lock", LOCK, {EDEADLK, EINVAL, EPERM}, 1, {INCONSISTENT}},
    {"Mutex_lock", LOCK, {EAGAIN, ENOTRECOVERABLE}, 1, {Mutex::ErrorId::LOCK_FAILED}},
    {"Mutex_unlock", UNLOCK, {EPERM, EINVAL, EDEADLK}, 1, {INCONSISTENT}},
    {"Mutex_unlock", UNLOCK, {EAGAIN}, 1, {Mutex::ErrorId::UNLOCK_FAILED}},
    {"ShmMutex_lock", SHM_LOCK, {EPERM, EBUSY, EINVAL, EDEADLK}, 1, {INCONSISTENT}},
    {"ShmMutex_lock", SHM_LOCK, {EAGAIN}, 1, {Mutex::ErrorId::LOCK_FAILED}},
    {"ShmMutex_trylock", SHM_TRY, {EBUSY}, 1, {}},
    {"ShmMutex_trylock", SHM_TRY, {EPERM, EINVAL, EDEADLK}, -1, {INCONSISTENT}},
    {"ShmMutex_trylock", SHM_TRY, {EAGAIN}, -1, {Mutex::ErrorId::LOCK_FAILED}},
    {"ShmMutex_timedlock", SHM_TIMED, {ETIMEDOUT}, 1, {}},
    {"ShmMutex_timedlock", SHM_TIMED, {EDEADLK}, -1, {INCONSISTENT}},
    {"ShmMutex_timedlock", SHM_TIMED, {EPERM}, -1, {Mutex::ErrorId::LOCK_FAILED}},
    {"ShmMutex_unlock", SHM_UNLOCK, {EPERM, EINVAL}, 1, {INCONSISTENT}},
    {"ShmMutex_unlock", SHM_UNLOCK, {EBUSY}, 1, {Mutex::ErrorId::UNLOCK_FAILED}},
    {"RWLock_rdlock", READ_LOCK, {EAGAIN}, 1, {RWLock::TOO_MANY_LOCKS}},
    {"RWLock_wrlock", WRITE_LOCK, {EINVAL}, 1, {RWLock::WRITE_LOCK_FAILED}},
    {"RWLock_unlock", RW_UNLOCK, {EPERM}, 1, NOT_PERMITTED},
    {"RWLock_unlock", RW_UNLOCK, {EINVAL}, 1, {RWLock::UNLOCK_FAILED}},
    {"ShmRWLock_unlock", SHM_RW_UNLOCK, {EPERM}, 1, NOT_PERMITTED},
});

VESK_TEST_TABLE(LockRows, reportAndLeaveTheLockAsItIs, testing::Test, LOCK_ROWS) {
    check(GetParam());
}

template <typename Lock>
std::vector<Row> spinLockRows() {
    constexpr auto lock = fail<Lock, &Lock::lock, &inject_pthread_spin_lock>;
    constexpr auto try_lock = fail<Lock, &Lock::tryLock, &inject_pthread_spin_trylock>;
    constexpr auto unlock = fail<Lock, &Lock::unlock, &inject_pthread_spin_unlock>;
    return eachErrno<Row>({
        {"lock", lock, {EPERM}, 1, {SpinLock::ErrorId::INCONSISTENT}},
        {"lock", lock, {EDEADLK}, 1, {SpinLock::ErrorId::UNLOCK_FAILED}},
        {"trylock", try_lock, {EDEADLK}, -1, {SpinLock::ErrorId::INCONSISTENT}},
        {"trylock", try_lock, {EPERM}, -1, {SpinLock::ErrorId::LOCK_FAILED}},
        {"trylock", try_lock, {EBUSY}, 1, {}},
        {"unlock", unlock, {EDEADLK}, 1, {SpinLock::ErrorId::INCONSISTENT}},
        {"unlock", unlock, {EPERM}, 1, {SpinLock::ErrorId::LOCK_FAILED}},
    });
}

INSTANTIATE_TEST_SUITE_P(SpinLock, LockRows, testing::ValuesIn(spinLockRows<SpinLock>()), ErrnoName());
INSTANTIATE_TEST_SUITE_P(ShmSpinLock, LockRows, testing::ValuesIn(spinLockRows<ShmSpinLock>()), ErrnoName());

// ---- timed locks of mutexes ----

/// A raw mutex of the form that the shared classes use.
class MutexOpsTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(MutexOps::init(&m_mutex, false, false, false)); }
    void TearDown() override { EXPECT_FALSE(MutexOps::destroy(&m_mutex)); }

    pthread_mutex_t m_mutex;
};

TEST_F(MutexOpsTest, timeoutInThePastLocksAFreeMutexAndNotAHeldOne) {
    for (long long const ms : {0LL, -1LL, -2500LL, std::numeric_limits<long long>::min()}) {
        SCOPED_TRACE(ms);
        EXPECT_EQ(0, MutexOps::tryLockTimeout(&m_mutex, ms));
        std::thread([this, ms] {
            EXPECT_TRUE(MutexOps::tryLockTimeout(&m_mutex, ms) == 1 && chainIs({}));
        }).join();
        EXPECT_EQ(0, pthread_mutex_unlock(&m_mutex));
    }
}

TEST_F(MutexOpsTest, timeoutIsWaitedForToTheEndOrUntilTheMutexIsFree) {
    ASSERT_EQ(0, pthread_mutex_lock(&m_mutex));
    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
        auto const start = std::chrono::steady_clock::now();
        EXPECT_EQ(1, MutexOps::tryLockTimeout(&m_mutex, 30));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
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

TEST_F(MutexOpsTest, clockThatCannotBeReadReportsWhatTheCallReturned) {
    EXPECT_EQ(-1, failOnce(inject_clock_gettime, EINVAL, [this] {
        return MutexOps::tryLockTimeout(&m_mutex, 10);
    }));
    EXPECT_TRUE(causeIs(Mutex::ErrorId::LOCK_FAILED, -1));
}

// ---- locks of read-write locks ----

class RWLockOpsTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(RWLockOps::init(&m_lock, false)); }
    void TearDown() override { EXPECT_FALSE(RWLockOps::destroy(&m_lock)); }

    pthread_rwlock_t m_lock;
};

struct Form {
    char const* name;
    bool for_write;
    bool has_timeout;
    unsigned int timeout_ms;
    Injected* function;
};

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
    {
        std::deque<Fault> counts;
        for (Form const& form : FORMS) {
            counts.emplace_back(*form.function, 0);
        }
        EXPECT_EQ(0, take());
        for (size_t i = 0; i < counts.size(); ++i) {
            EXPECT_EQ(FORMS[i].function == GetParam().function ? 1 : 0, counts[i].getCalls());
        }
    }
    // A reader excludes writers, a writer excludes all others.
    std::thread([this] {
        EXPECT_EQ(GetParam().for_write ? 1 : 0, lockWithin(m_lock, READ, 0));
        EXPECT_EQ(1, lockWithin(m_lock, WRITE, 0));
        EXPECT_TRUE(chainIs({}));
        if (!GetParam().for_write) {
            EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
        }
    }).join();
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
}

TEST_P(RWLockOpsForms, classifiesTheErrorOfItsOwnCall) {
    for (int const error : {EBUSY, ETIMEDOUT, EDEADLK, EAGAIN, EINVAL}) {
        bool const is_busy = error == EBUSY || error == ETIMEDOUT;
        auto const id = error == EDEADLK ? RWLock::ErrorId::DEADLOCK
            : error == EAGAIN            ? RWLock::ErrorId::TOO_MANY_LOCKS
                                         : failedId(GetParam().for_write);
        EXPECT_EQ(is_busy ? 1 : -1, failOnce(*GetParam().function, error, [this] { return take(); }))
            << error;
        EXPECT_TRUE(is_busy ? chainIs({}) : causeIs(id, error));
    }
    EXPECT_EQ(0, lockWithin(m_lock, WRITE, 0)) << "a failure does not take the lock";
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
}

INSTANTIATE_TEST_SUITE_P(All, RWLockOpsForms, testing::ValuesIn(FORMS), RowName());

TEST_F(RWLockOpsTest, deadlineIsTheWallClockPlusTheTimeout) {
    struct {
        timespec now;
        unsigned int timeout_ms;
        timespec deadline;
    } const rows[] = {
        {{1000, 0}, 1, {1000, 1000000}},
        {{1000, 5}, 2500, {1002, 500000005}},
        {{1000, 998999999}, 1, {1000, 999999999}},
        {{1000, 999000000}, 1, {1001, 0}},
        {{1000, 999999999}, 999, {1001, 998999999}},
        {{1000, 999999999}, 1000, {1001, 999999999}},
        {{1000, 0}, 4294967295U, {4295967, 295000000}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.timeout_ms);
        for (bool const for_write : {READ, WRITE}) {
            FakeClock const clock(row.now.tv_sec, row.now.tv_nsec);
            EXPECT_EQ(0, lockWithin(m_lock, for_write, row.timeout_ms));
            EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
            EXPECT_EQ(row.deadline.tv_sec, t_deadline.tv_sec);
            EXPECT_EQ(row.deadline.tv_nsec, t_deadline.tv_nsec);
            EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
        }
    }
}

TEST_F(RWLockOpsTest, clockThatCannotBeReadIsAFailureOfATimedFormOnly) {
    Fault const fault(inject_clock_gettime, EINVAL, 1, Fault::FOREVER);
    for (bool const for_write : {READ, WRITE}) {
        EXPECT_EQ(-1, lockWithin(m_lock, for_write, 10));
        EXPECT_TRUE(causeIs(failedId(for_write), EINVAL));
    }
    EXPECT_EQ(2, fault.getCalls());
    EXPECT_EQ(0, RWLockOps::lock(&m_lock, READ, nullptr));
    EXPECT_EQ(0, lockWithin(m_lock, READ, 0));
    EXPECT_EQ(2, fault.getCalls());
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
    EXPECT_EQ(0, pthread_rwlock_unlock(&m_lock));
}

} // namespace
