#pragma once

#include <vesk/Export.h>
#include <vesk/SpinLockOps.h>
#include <vesk/common/ScopedLock.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/ErrorType.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk {

/// A lock between the threads of one process for a few instructions: a thread that finds it held does not sleep but
/// turns on the spot. Hold it only for short stretches, and never across a call that may block.
///
///     vesk::SpinLock lock;
///     {
///         vesk::SpinLockGuard const guard(lock);
///         ++counter;
///     }
///
/// All operations may be called from any thread. To share a lock between processes use `ShmSpinLock`.
class SpinLock : private tarnbase::NonCopyable {
public:
    /// Failures of spin locks. Derives from `SysError`. What lock and unlock report does not follow the names of the
    /// rows: see `SpinLockOps`.
    ///
    /// | id | meaning |
    /// |---|---|
    /// | 0 | creation failed |
    /// | 1 | the row of locking, reported by `tryLock` and `unlock` |
    /// | 2 | the row of unlocking, reported by `lock` |
    /// | 3 | inconsistency: a call that is not allowed |
    static VESK_API std::ErrorType const Error;

    /// Creates the lock (`pthread_spin_init`); `isValid` tells whether it worked, and if not `Error` 0 is pending. An
    /// invalid lock may only be destroyed.
    SpinLock() {
        int const error = pthread_spin_init(&m_lock, PTHREAD_PROCESS_PRIVATE);
        m_valid = error == 0 || !SpinLockOps::handleInitError(error);
    }

    /// Ends the lock, which nobody may hold. A failure is a warning, "Error destroying SpinLock!", and no report stays
    /// pending.
    ~SpinLock() {
        if (!m_valid) {
            return;
        }
        if (int const error = pthread_spin_destroy(&m_lock)) {
            SpinLockOps::handleDestroyError(error);
            std::GlobalErrorHandler::doWarning(
                "framework/include/vesk/SpinLock", __LINE__, "~SpinLock", "Error destroying SpinLock!");
            std::ErrorStorage::ack();
        }
    }

    bool isValid() const noexcept { return m_valid; }

    /// Turns on the spot until the lock is had (`pthread_spin_lock`): it does not sleep, and a caller that holds the
    /// lock already turns for ever. True on failure: `Error` 3 or 2.
    bool lock() const {
        int const error = pthread_spin_lock(&m_lock);
        return __builtin_expect(error != 0, 0) && SpinLockOps::handleLockError(error);
    }

    /// Takes the lock if it is free (`pthread_spin_trylock`). 0 locked, 1 busy (not reported), -1 on failure: `Error` 3
    /// or 1. Never waits.
    signed char tryLock() const {
        int const error = pthread_spin_trylock(&m_lock);
        return error == 0 ? static_cast<signed char>(0) : SpinLockOps::handleTryLockError(error);
    }

    /// Lets go of the lock (`pthread_spin_unlock`). It does not check its owner. True on failure: `Error` 3 or 1.
    bool unlock() const {
        int const error = pthread_spin_unlock(&m_lock);
        return __builtin_expect(error != 0, 0) && SpinLockOps::handleUnlockError(error);
    }

private:
    mutable pthread_spinlock_t m_lock;
    bool m_valid;
};

/// Holds a `SpinLock` for the length of a scope.
using SpinLockGuard = ScopedLock<SpinLock const>;

} // namespace vesk
