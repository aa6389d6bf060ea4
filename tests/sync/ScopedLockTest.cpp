#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/Mutex.h>
#include <vesk/RWLock.h>
#include <vesk/ShmMutex.h>
#include <vesk/ShmRWLock.h>
#include <vesk/ShmSpinLock.h>
#include <vesk/SpinLock.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <pthread.h>
#include <string>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_unlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_lock, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_unlock, (pthread_spinlock_t * l), (l))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::Injected;
using support::rowText;
using support::systemText;

/// A guard with its lock, the calls below it, and the rows of their failures.
template <typename GuardType, typename LockType>
struct Family {
    using Guard = GuardType;
    using Lock = LockType;
};

struct OfMutex : Family<vesk::MutexLock, vesk::Mutex> {
    static constexpr char const* NAME = "MutexLock";
    static inline Injected& s_lock = inject_pthread_mutex_lock;
    static inline Injected& s_unlock = inject_pthread_mutex_unlock;
    static constexpr int LOCK_ID = 1;
    static constexpr int UNLOCK_ID = 2;
};
struct OfShmMutex : Family<vesk::ShmMutexLock, vesk::ShmMutex> {
    static constexpr char const* NAME = "ShmMutexLock";
    static inline Injected& s_lock = inject_pthread_mutex_lock;
    static inline Injected& s_unlock = inject_pthread_mutex_unlock;
    static constexpr int LOCK_ID = 1;
    static constexpr int UNLOCK_ID = 2;
};
struct OfRWLockForRead : Family<vesk::RWLockForRead, vesk::RWLock> {
    static constexpr char const* NAME = "RWLockForRead";
    static inline Injected& s_lock = inject_pthread_rwlock_rdlock;
    static inline Injected& s_unlock = inject_pthread_rwlock_unlock;
    static constexpr int LOCK_ID = 3;
    static constexpr int UNLOCK_ID = 5;
};
struct OfRWLockForWrite : Family<vesk::RWLockForWrite, vesk::RWLock> {
    static constexpr char const* NAME = "RWLockForWrite";
    static inline Injected& s_lock = inject_pthread_rwlock_wrlock;
    static inline Injected& s_unlock = inject_pthread_rwlock_unlock;
    static constexpr int LOCK_ID = 4;
    static constexpr int UNLOCK_ID = 5;
};
struct OfShmRWLockForRead : Family<vesk::ShmRWLockForRead, vesk::ShmRWLock> {
    static constexpr char const* NAME = "ShmRWLockForRead";
    static inline Injected& s_lock = inject_pthread_rwlock_rdlock;
    static inline Injected& s_unlock = inject_pthread_rwlock_unlock;
    static constexpr int LOCK_ID = 3;
    static constexpr int UNLOCK_ID = 5;
};
struct OfShmRWLockForWrite : Family<vesk::ShmRWLockForWrite, vesk::ShmRWLock> {
    static constexpr char const* NAME = "ShmRWLockForWrite";
    static inline Injected& s_lock = inject_pthread_rwlock_wrlock;
    static inline Injected& s_unlock = inject_pthread_rwlock_unlock;
    static constexpr int LOCK_ID = 4;
    static constexpr int UNLOCK_ID = 5;
};
struct OfSpinLock : Family<vesk::SpinLockGuard, vesk::SpinLock> {
    static constexpr char const* NAME = "SpinLockGuard";
    static inline Injected& s_lock = inject_pthread_spin_lock;
    static inline Injected& s_unlock = inject_pthread_spin_unlock;
    static constexpr int LOCK_ID = 2;
    static constexpr int UNLOCK_ID = 1;
};
struct OfShmSpinLock : Family<vesk::ShmSpinLockGuard, vesk::ShmSpinLock> {
    static constexpr char const* NAME = "ShmSpinLockGuard";
    static inline Injected& s_lock = inject_pthread_spin_lock;
    static inline Injected& s_unlock = inject_pthread_spin_unlock;
    static constexpr int LOCK_ID = 2;
    static constexpr int UNLOCK_ID = 1;
};

struct Names {
    template <typename T>
    static std::string GetName(int) {
        return T::NAME;
    }
};

template <typename T>
class Guards : public testing::Test {};

using Families = testing::Types<
    OfMutex, OfShmMutex, OfRWLockForRead, OfRWLockForWrite, OfShmRWLockForRead, OfShmRWLockForWrite,
    OfSpinLock, OfShmSpinLock>;
TYPED_TEST_SUITE(Guards, Families, Names);

TYPED_TEST(Guards, lockAndUnlockOnce) {
    typename TypeParam::Lock lock;
    Fault const locks(TypeParam::s_lock, 0);
    Fault const unlocks(TypeParam::s_unlock, 0);
    {
        typename TypeParam::Guard const guard(lock);
        EXPECT_TRUE(guard.isLocked());
        EXPECT_EQ(1, locks.getCalls());
        EXPECT_EQ(0, unlocks.getCalls());
    }
    EXPECT_EQ(1, locks.getCalls());
    EXPECT_EQ(1, unlocks.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TYPED_TEST(Guards, lockThatCannotBeHadStaysPendingAndIsNotUnlocked) {
    typename TypeParam::Lock lock;
    Fault const unlocks(TypeParam::s_unlock, 0);
    {
        std::optional<Fault> fault(std::in_place, TypeParam::s_lock, ENOMEM);
        typename TypeParam::Guard const guard(lock);
        fault.reset();
        EXPECT_FALSE(guard.isLocked());
    }
    EXPECT_EQ(0, unlocks.getCalls());
    auto const& family = TypeParam::Lock::Error;
    EXPECT_TRUE(
        chainIs({{family, TypeParam::LOCK_ID, rowText(family, TypeParam::LOCK_ID, systemText(ENOMEM))}}));
}

TYPED_TEST(Guards, unlockBeforeTheEndOfTheScopeIsTheOnlyOne) {
    typename TypeParam::Lock lock;
    Fault const unlocks(TypeParam::s_unlock, 0);
    {
        typename TypeParam::Guard guard(lock);
        EXPECT_FALSE(guard.unlock());
        EXPECT_FALSE(guard.isLocked());
    }
    EXPECT_EQ(1, unlocks.getCalls());
}

TYPED_TEST(Guards, failedUnlockBeforeTheEndIsReportedAndNotTriedAgain) {
    typename TypeParam::Lock lock;
    EventRecorder recorder;
    {
        typename TypeParam::Guard guard(lock);
        Fault const fault(TypeParam::s_unlock, ENOMEM);
        EXPECT_TRUE(guard.unlock());
        EXPECT_FALSE(guard.isLocked());
    }
    auto const& family = TypeParam::Lock::Error;
    EXPECT_TRUE(
        chainIs({{family, TypeParam::UNLOCK_ID, rowText(family, TypeParam::UNLOCK_ID, systemText(ENOMEM))}}));
    EXPECT_EQ("", recorder.getText());
    EXPECT_FALSE(lock.unlock()) << "it is held still";
}

TYPED_TEST(Guards, failedUnlockAtTheEndOfTheScopeAborts) {
    typename TypeParam::Lock lock;
    EventRecorder recorder;
    {
        Fault const fault(TypeParam::s_unlock, ENOMEM);
        typename TypeParam::Guard const guard(lock);
    }
    EXPECT_EQ(
        "ABORT framework/include/vesk/common/ScopedLock ~ScopedLock: error unlocking", recorder.getText());
    EXPECT_FALSE(lock.unlock()) << "it is held still";
    std::ErrorStorage::ack();
}

TEST(ScopedLock, failedUnlockAtTheEndOfTheScopeEndsTheProcess) {
    support::ChildEnd const end = support::runInChild([] {
        vesk::Mutex mutex;
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        vesk::MutexLock const lock(mutex);
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error unlocking")) << end.errors;
}

} // namespace
