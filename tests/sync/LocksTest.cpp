#include "support/Aborts.h"
#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "support/FailOnce.h"
#include "support/Sleeper.h"
#include "sync/LockCalls.h"
#include "sync/LockSupport.h"
#include "threads/SchedSupport.h"

#include <chrono>

VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * m), (m))

namespace {

using namespace support;
using namespace vesk;

constexpr auto INCONSISTENT = Mutex::ErrorId::INCONSISTENT;

// ---- the families ----

TEST(LockFamilies, rowsHaveTheirTexts) {
    expectRows(
        Mutex::Error,
        {"Mutex creation failed: %s", "Mutex lock failed: %s", "Mutex unlock failed: %s",
         "Mutex inconsistency detected: %s", "Mutex owner ended while holding it: %s"},
        1);
    expectRows(
        RWLock::Error,
        {"Failed to create rwlock: %s", "Deadlock has been detected: %s",
         "Maximum lock count has been reached: %s", "Locking for read failed: %s",
         "Locking for write failed: %s", "Unlocking failed: %s"},
        1);
    expectRows(
        SpinLock::Error,
        {"SpinLock creation failed: %s", "SpinLock lock failed: %s", "SpinLock unlock failed: %s",
         "SpinLock inconsistency detected: %s"},
        1);
}

TEST(ShmMutex, familyIsThatOfMutex) {
    EXPECT_EQ(&Mutex::Error, &ShmMutex::Error);
    EXPECT_EQ(&RWLock::Error, &ShmRWLock::Error);
    EXPECT_EQ(&SpinLock::Error, &ShmSpinLock::Error);
}

// ---- every lock ----

template <typename Lock>
class Locks : public testing::Test {};

using AllLocks = testing::Types<Mutex, ShmMutex, RWLock, ShmRWLock, SpinLock, ShmSpinLock>;
TYPED_TEST_SUITE(Locks, AllLocks, TypeName);

TYPED_TEST(Locks, areBusyForATryWhileTheyAreHeld) {
    TypeParam const lock;
    for (int round = 0; round < 2; ++round) {
        ASSERT_FALSE(lockForWrite(lock));
        if constexpr (!std::is_same_v<TypeParam, Mutex>) {
            std::thread([&lock] { EXPECT_TRUE(tryForWrite(lock) == 1 && chainIs({})); }).join();
            EXPECT_FALSE(lock.unlock());
            EXPECT_EQ(0, tryForWrite(lock));
        }
        EXPECT_FALSE(lock.unlock());
    }
}

TYPED_TEST(Locks, excludeThreads) {
    constexpr int ROUNDS = 20000;
    Contended<TypeParam> contended;
    runInThreads(IS_SPIN_LOCK<TypeParam> ? 2 : 4, [&contended](int i) {
        i < 2 ? contended.write(ROUNDS) : contended.read(ROUNDS);
    });
    EXPECT_EQ(2 * ROUNDS, contended.first);
    EXPECT_EQ(2 * ROUNDS, contended.second);
}

// ---- creation and destruction ----

struct CreatedLock {
    char const* name;
    bool (*create)(); ///< Creates and destroys a lock. Returns whether it was valid.
    Injected* init;
    Injected* destroy;
    int shared;
    char const* warning; ///< Of a destruction that fails; null if its report stays pending.

    ExpectedReport getFailure(int error) const {
        if (init == &inject_pthread_spin_init) {
            auto const id = SpinLock::ErrorId::CREATE_FAILED;
            return {id, rowText(id, systemText(error))};
        }
        auto const id = error == EAGAIN ? SysErrorId::RESOURCES_EXHAUSTED : SysErrorId::OUT_OF_MEMORY;
        return {id, rowText(id, systemText(init == &inject_pthread_rwlock_init ? 0 : error))};
    }
};

template <typename Lock>
bool create() {
    return Lock().isValid();
}

constexpr char const* RWLOCK_WARNING = "RWLock ~RWLock: Error destroying RWLock!";
constexpr char const* SPIN_LOCK_WARNING = "SpinLock ~SpinLock: Error destroying SpinLock!";

CreatedLock const CREATED_LOCKS[] = {
    {"ShmMutex", create<ShmMutex>, &inject_pthread_mutex_init, &inject_pthread_mutex_destroy,
     PTHREAD_PROCESS_SHARED, nullptr},
    {"RWLock", create<RWLock>, &inject_pthread_rwlock_init, &inject_pthread_rwlock_destroy,
     PTHREAD_PROCESS_PRIVATE, RWLOCK_WARNING},
    {"ShmRWLock", create<ShmRWLock>, &inject_pthread_rwlock_init, &inject_pthread_rwlock_destroy,
     PTHREAD_PROCESS_SHARED, RWLOCK_WARNING},
    {"SpinLock", create<SpinLock>, &inject_pthread_spin_init, &inject_pthread_spin_destroy,
     PTHREAD_PROCESS_PRIVATE, SPIN_LOCK_WARNING},
    {"ShmSpinLock", create<ShmSpinLock>, &inject_pthread_spin_init, &inject_pthread_spin_destroy,
     PTHREAD_PROCESS_SHARED, SPIN_LOCK_WARNING},
};

class CreatedLocks : public testing::TestWithParam<CreatedLock> {};

TEST_P(CreatedLocks, areForOneProcessOrForSeveralAndKeepWhatIsPending) {
    t_shared = PTHREAD_PROCESS_PRIVATE;
    t_has_attributes = false;
    leaveOlderReport();
    EXPECT_TRUE(GetParam().create());
    EXPECT_TRUE(onlyOlderIsPending());
    EXPECT_EQ(GetParam().shared, t_shared);
    EXPECT_EQ(GetParam().create == create<ShmRWLock>, t_has_attributes);
}

TEST_P(CreatedLocks, areInvalidAndNotDestroyedIfCreationFails) {
    for (int const error : {EAGAIN, ENOMEM}) {
        Fault const destroyed(*GetParam().destroy, 0);
        EXPECT_FALSE(failOnce(*GetParam().init, error, GetParam().create));
        EXPECT_TRUE(chainIs({GetParam().getFailure(error)}));
        EXPECT_EQ(0, destroyed.getCalls());
    }
}

TEST_P(CreatedLocks, warnAndLeaveNothingPendingIfDestructionFailsExceptShmMutex) {
    for (int const error : {EBUSY, EINVAL}) {
        EventRecorder recorder;
        EXPECT_TRUE(failOnce(*GetParam().destroy, error, GetParam().create));
        bool const warns = GetParam().warning != nullptr;
        std::string const place = "WARNING framework/include/vesk/posix/";
        EXPECT_EQ(warns ? place + GetParam().warning : "", recorder.getText());
        EXPECT_TRUE(warns ? chainIs({}) : causeIs(SysErrorId::UNCLASSIFIED, error));
    }
}

INSTANTIATE_TEST_SUITE_P(All, CreatedLocks, testing::ValuesIn(CREATED_LOCKS), RowName());

TEST(ShmRWLock, isInvalidIfItsAttributesCannotBeShared) {
    Fault const destroyed(inject_pthread_rwlock_destroy, 0);
    EXPECT_FALSE(failOnce(inject_pthread_rwlockattr_setpshared, EINVAL, create<ShmRWLock>));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EINVAL));
    EXPECT_EQ(0, destroyed.getCalls());
}

TEST(ShmMutex, hasTheTypeAndTheProtocolOfItsFormAndIsPlainByDefault) {
    t_type = t_protocol = -1;
    ShmMutex const plain;
    EXPECT_EQ(PTHREAD_MUTEX_DEFAULT, t_type);
    EXPECT_EQ(-1, t_protocol);
    for (bool const recursive : {false, true}) {
        for (bool const inherit : {false, true}) {
            t_type = t_protocol = t_shared = -1;
            ShmMutex const mutex(recursive, inherit);
            EXPECT_TRUE(mutex.isValid());
            EXPECT_EQ(recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT, t_type);
            EXPECT_EQ(inherit ? PTHREAD_PRIO_INHERIT : -1, t_protocol);
            EXPECT_EQ(PTHREAD_PROCESS_SHARED, t_shared);
            EXPECT_FALSE(mutex.lock());
            EXPECT_FALSE(mutex.unlock());
        }
    }
}

// ---- mutexes ----

TEST(Mutex, lockingTwiceAndUnlockingAFreeOneAreInconsistencies) {
    Mutex mutex;
    ASSERT_FALSE(mutex.lock());
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(causeIs(INCONSISTENT, EDEADLK));
    EXPECT_FALSE(mutex.unlock()) << "it was still held";
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError) && std::ErrorStorage::isA(Mutex::Error));
    EXPECT_TRUE(causeIs(INCONSISTENT, EPERM));
}

template <typename Lock>
class OwnedMutexes : public testing::Test {};
using AllOwnedMutexes = testing::Types<Mutex, RecursiveMutex>;
TYPED_TEST_SUITE(OwnedMutexes, AllOwnedMutexes, TypeName);

TYPED_TEST(OwnedMutexes, refuseToUnlockForAnotherThread) {
    TypeParam const mutex;
    ASSERT_FALSE(mutex.lock());
    std::thread([&mutex] {
        EXPECT_TRUE(mutex.unlock());
        EXPECT_TRUE(causeIs(INCONSISTENT, EPERM));
    }).join();
    EXPECT_FALSE(mutex.unlock());
}

TEST(Mutex, recursiveOneIsFreeAfterAsManyUnlocks) {
    Mutex mutex(true);
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.unlock());
    EXPECT_FALSE(mutex.unlock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(chainIs({INCONSISTENT}));
}

template <typename Lock>
class RecursiveMutexes : public testing::Test {};
using AllRecursiveMutexes = testing::Types<RecursiveMutex, RecursiveInheritingMutex>;
TYPED_TEST_SUITE(RecursiveMutexes, AllRecursiveMutexes, TypeName);

TYPED_TEST(RecursiveMutexes, areFreeAfterAsManyUnlocks) {
    TypeParam const mutex;
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.lock());
    EXPECT_EQ(0, mutex.tryLock());
    EXPECT_EQ(0, mutex.tryLockTimeout(0));
    for (int i = 0; i < 4; ++i) {
        std::thread([&mutex] { EXPECT_EQ(1, mutex.tryLock()); }).join();
        EXPECT_FALSE(mutex.unlock());
    }
    std::thread([&mutex] { EXPECT_TRUE(mutex.tryLock() == 0 && !mutex.unlock()); }).join();
}

TEST(ShmMutex, ownerInheritsThePriorityOfTheMostUrgentWaiter) {
    VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    InheritingMutex const mutex;
    ASSERT_TRUE(mutex.isValid());
    ASSERT_FALSE(mutex.lock());
    auto const getPriority = [owner = gettid()] { return threadField(getpid(), owner, 18); };
    std::string const before = getPriority();
    std::atomic<int> refused{-1};
    Sleeper waiter([&] {
        refused = setPolicy(SCHED_FIFO, 7);
        if (refused == 0) {
            EXPECT_FALSE(mutex.lock());
            EXPECT_FALSE(mutex.unlock());
        }
    });
    EXPECT_TRUE(eventually([&refused] { return refused >= 0; }));
    if (refused == 0) {
        waiter.awaitSleep();
        // The kernel shows real-time priority 7 as -8.
        EXPECT_EQ("-8", getPriority());
    }
    EXPECT_FALSE(mutex.unlock());
    waiter.join();
    EXPECT_EQ(before, getPriority());
    if (refused != 0) {
        GTEST_SKIP() << "real-time scheduling is not allowed here";
    }
}

// ---- read-write locks ----

template <typename Lock>
class RWLocks : public testing::Test {
protected:
    /// Checks that an operation in another thread waits until the writer unlocks.
    template <typename Operation>
    void expectWaitsForTheWriter(Operation operation) {
        ASSERT_FALSE(m_lock.lockForWrite());
        SleepingThread waiter([&] {
            EXPECT_EQ(0, operation(m_lock));
            EXPECT_FALSE(m_lock.unlock());
        });
        EXPECT_FALSE(waiter.isDone());
        EXPECT_FALSE(m_lock.unlock());
        waiter.join();
        EXPECT_TRUE(waiter.isDone());
    }

    Lock const m_lock;
};

using BothRWLocks = testing::Types<RWLock, ShmRWLock>;
TYPED_TEST_SUITE(RWLocks, BothRWLocks, TypeName);

TYPED_TEST(RWLocks, readersShareIt) {
    EXPECT_FALSE(this->m_lock.lockForRead());
    EXPECT_FALSE(this->m_lock.lockForRead()) << "the same thread may read twice";
    std::thread([this] {
        EXPECT_FALSE(this->m_lock.lockForRead());
        EXPECT_EQ(0, this->m_lock.tryLockForRead());
        EXPECT_EQ(0, this->m_lock.tryLockForRead(50));
        EXPECT_EQ(1, this->m_lock.tryLockForWrite());
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(this->m_lock.unlock());
        }
    }).join();
    EXPECT_FALSE(this->m_lock.unlock());
    EXPECT_EQ(1, this->m_lock.tryLockForWrite()) << "one reader is left";
    EXPECT_FALSE(this->m_lock.unlock());
    EXPECT_EQ(0, this->m_lock.tryLockForWrite());
    EXPECT_FALSE(this->m_lock.unlock());
    EXPECT_TRUE(chainIs({}));
}

TYPED_TEST(RWLocks, writerExcludesReadersAndWritersForTheirWholeTimeout) {
    ASSERT_FALSE(this->m_lock.lockForWrite());
    std::thread([this] {
        EXPECT_EQ(1, this->m_lock.tryLockForRead());
        EXPECT_EQ(1, this->m_lock.tryLockForWrite());
        EXPECT_EQ(1, this->m_lock.tryLockForRead(0));
        EXPECT_EQ(1, this->m_lock.tryLockForWrite(0));
        auto const start = std::chrono::steady_clock::now();
        EXPECT_EQ(1, this->m_lock.tryLockForRead(30));
        EXPECT_EQ(1, this->m_lock.tryLockForWrite(30));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(58));
        EXPECT_TRUE(chainIs({})) << "busy is no failure";
    }).join();
    EXPECT_FALSE(this->m_lock.unlock());
    EXPECT_EQ(0, this->m_lock.tryLockForRead());
    EXPECT_FALSE(this->m_lock.unlock());
}

TYPED_TEST(RWLocks, blockingAndTimedLocksWaitForTheWriter) {
    this->expectWaitsForTheWriter([](TypeParam const& lock) { return lock.lockForRead(); });
    this->expectWaitsForTheWriter([](TypeParam const& lock) { return lock.lockForWrite(); });
    this->expectWaitsForTheWriter([](TypeParam const& lock) { return lock.tryLockForRead(~0U); });
    this->expectWaitsForTheWriter([](TypeParam const& lock) { return lock.tryLockForWrite(~0U); });
}

TYPED_TEST(RWLocks, writerThatReadsOrWritesIsADeadlock) {
    ASSERT_FALSE(this->m_lock.lockForWrite());
    for (bool const for_write : {false, true}) {
        EXPECT_TRUE(for_write ? this->m_lock.lockForWrite() : this->m_lock.lockForRead());
        EXPECT_TRUE(causeIs(RWLock::ErrorId::DEADLOCK, EDEADLK)) << for_write;
        EXPECT_EQ(-1, for_write ? this->m_lock.tryLockForWrite(10) : this->m_lock.tryLockForRead(10));
        EXPECT_TRUE(causeIs(RWLock::ErrorId::DEADLOCK, EDEADLK)) << for_write;
    }
    EXPECT_EQ(1, this->m_lock.tryLockForRead()) << "without waiting there is no deadlock";
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(this->m_lock.unlock());
    EXPECT_EQ(0, this->m_lock.tryLockForWrite()) << "the failures took nothing";
    EXPECT_FALSE(this->m_lock.unlock());
}

// ---- guards ----

/// A guard with its lock, the calls below it, and the ids of their failures.
template <typename GuardType, typename LockType, bool READS = false>
struct Guarded {
    using Guard = GuardType;
    using Lock = LockType;
    static constexpr bool SPINS = IS_SPIN_LOCK<Lock>;
    static constexpr bool IS_RW = IS_RWLOCK<Lock>;
    static constexpr Injected* LOCK = SPINS ? &inject_pthread_spin_lock
        : !IS_RW                            ? &inject_pthread_mutex_lock
        : READS                             ? &inject_pthread_rwlock_rdlock
                                            : &inject_pthread_rwlock_wrlock;
    static constexpr Injected* UNLOCK = SPINS ? &inject_pthread_spin_unlock
        : IS_RW                               ? &inject_pthread_rwlock_unlock
                                              : &inject_pthread_mutex_unlock;
    // The ids of spin locks mean the opposite of their names.
    static constexpr int LOCK_FAILED = SPINS ? int(SpinLock::UNLOCK_FAILED)
        : !IS_RW                             ? int(Mutex::LOCK_FAILED)
        : READS                              ? int(RWLock::READ_LOCK_FAILED)
                                             : int(RWLock::WRITE_LOCK_FAILED);
    static constexpr int UNLOCK_FAILED = SPINS ? int(SpinLock::LOCK_FAILED)
        : IS_RW                                ? int(RWLock::UNLOCK_FAILED)
                                               : int(Mutex::UNLOCK_FAILED);
};

struct MutexLock : Guarded<vesk::MutexLock, Mutex> {};
struct ShmMutexLock : Guarded<vesk::ShmMutexLock, ShmMutex> {};
struct RWLockForRead : Guarded<vesk::RWLockForRead, RWLock, true> {};
struct RWLockForWrite : Guarded<vesk::RWLockForWrite, RWLock> {};
struct ShmRWLockForRead : Guarded<vesk::ShmRWLockForRead, ShmRWLock, true> {};
struct ShmRWLockForWrite : Guarded<vesk::ShmRWLockForWrite, ShmRWLock> {};
struct SpinLockGuard : Guarded<vesk::SpinLockGuard, SpinLock> {};
struct ShmSpinLockGuard : Guarded<vesk::ShmSpinLockGuard, ShmSpinLock> {};

template <typename T>
class Guards : public testing::Test {
protected:
    using Guard = typename T::Guard;

    typename T::Lock m_lock;
};

using AllGuards = testing::Types<
    MutexLock, ShmMutexLock, RWLockForRead, RWLockForWrite, ShmRWLockForRead, ShmRWLockForWrite,
    SpinLockGuard, ShmSpinLockGuard>;
TYPED_TEST_SUITE(Guards, AllGuards, TypeName);

TYPED_TEST(Guards, lockAndUnlockOnce) {
    for (bool const early : {false, true}) {
        Fault const locks(*TypeParam::LOCK, 0);
        Fault const unlocks(*TypeParam::UNLOCK, 0);
        {
            typename TestFixture::Guard guard(this->m_lock);
            EXPECT_TRUE(guard.isLocked());
            EXPECT_EQ(1, locks.getCalls());
            EXPECT_EQ(0, unlocks.getCalls());
            EXPECT_FALSE(early && guard.unlock());
            EXPECT_EQ(!early, guard.isLocked());
        }
        EXPECT_EQ(1, locks.getCalls());
        EXPECT_EQ(1, unlocks.getCalls());
    }
}

TYPED_TEST(Guards, failedLockStaysPendingAndIsNotUnlocked) {
    Fault const unlocks(*TypeParam::UNLOCK, 0);
    EXPECT_FALSE(failOnce(
        *TypeParam::LOCK, ENOMEM, [this] { return typename TestFixture::Guard(this->m_lock).isLocked(); }));
    EXPECT_EQ(0, unlocks.getCalls());
    EXPECT_TRUE(causeIs(TypeParam::Lock::Error, TypeParam::LOCK_FAILED, ENOMEM));
}

TYPED_TEST(Guards, failedUnlockIsReportedBeforeTheEndOfTheScopeAndAbortsAtTheEnd) {
    std::string const abort = "ABORT framework/include/vesk/common/ScopedLock ~ScopedLock: error unlocking";
    for (bool const early : {false, true}) {
        EventRecorder recorder;
        {
            Fault const fault(*TypeParam::UNLOCK, ENOMEM);
            typename TestFixture::Guard guard(this->m_lock);
            EXPECT_TRUE(!early || guard.unlock());
            EXPECT_EQ(!early, guard.isLocked());
        }
        EXPECT_EQ(early ? "" : abort, recorder.getText());
        EXPECT_TRUE(causeIs(TypeParam::Lock::Error, TypeParam::UNLOCK_FAILED, ENOMEM));
        EXPECT_FALSE(this->m_lock.unlock()) << "it is still held";
    }
}

TEST(ScopedLock, failedUnlockAtTheEndOfTheScopeEndsTheProcess) {
    EXPECT_TRUE(abortsWith("error unlocking", [] {
        Mutex mutex;
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        vesk::MutexLock const lock(mutex);
    }));
}

} // namespace
