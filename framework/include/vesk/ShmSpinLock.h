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

/// A spin lock whose object may lie in memory that several processes map: build it there once, with placement new, and
/// use it from all of them.
///
///     auto* lock = new (shared_memory) vesk::ShmSpinLock;
///     if (!lock->isValid()) { ... }
///     vesk::ShmSpinLockGuard const guard(*lock);
///
/// Its operations are those of `SpinLock` and may be called from any thread of any process. A process may not end while
/// it holds the lock.
class ShmSpinLock : private tarnbase::NonCopyable {
public:
    /// The family of `SpinLock`.
    static VESK_API std::ErrorType const& Error;

    /// Creates the lock (`pthread_spin_init`); `isValid` tells whether it worked, and if not `Error` 0 is pending. An
    /// invalid lock may only be destroyed.
    ShmSpinLock() {
        int const error = pthread_spin_init(&m_lock, PTHREAD_PROCESS_SHARED);
        m_valid = error == 0 || !SpinLockOps::handleInitError(error);
    }

    /// Ends the lock: only one process may, when no other uses it. A failure is a warning, "Error destroying SpinLock!",
    /// and no report stays pending.
    ~ShmSpinLock() {
        if (!m_valid) {
            return;
        }
        if (int const error = pthread_spin_destroy(&m_lock)) {
            SpinLockOps::handleDestroyError(error);
            std::GlobalErrorHandler::doWarning(
                "framework/include/vesk/ShmSpinLock", __LINE__, "~ShmSpinLock", "Error destroying SpinLock!");
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

/// Holds a `ShmSpinLock` for the length of a scope.
using ShmSpinLockGuard = ScopedLock<ShmSpinLock const>;

} // namespace vesk
