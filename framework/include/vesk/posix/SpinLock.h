#pragma once

#include <vesk/SpinLockOps.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk {

/// What `SpinLock` and `ShmSpinLock` do alike; use one of them.
class SpinLockBase : private tarnbase::NonCopyable {
public:
    /// Whether the lock could be made. An invalid one may only be destroyed.
    bool isValid() const noexcept { return m_valid; }

    /// Turns on the spot until the lock is had (`pthread_spin_lock`): it does not sleep, and a caller that holds the
    /// lock already turns for ever. True on failure: `ErrorId::INCONSISTENT` or 2.
    bool lock() const {
        int const error = pthread_spin_lock(&m_lock);
        return __builtin_expect(error != 0, 0) && SpinLockOps::handleLockError(error);
    }

    /// Takes the lock if it is free (`pthread_spin_trylock`). 0 locked, 1 busy (not reported), -1 on failure: `ErrorId::INCONSISTENT`
    /// or 1. Never waits.
    signed char tryLock() const {
        int const error = pthread_spin_trylock(&m_lock);
        return error == 0 ? static_cast<signed char>(0) : SpinLockOps::handleTryLockError(error);
    }

    /// Lets go of the lock (`pthread_spin_unlock`). It does not check its owner. True on failure: `ErrorId::INCONSISTENT` or 1.
    bool unlock() const {
        int const error = pthread_spin_unlock(&m_lock);
        return __builtin_expect(error != 0, 0) && SpinLockOps::handleUnlockError(error);
    }

protected:
    /// Creates the lock (`pthread_spin_init`); on failure `ErrorId::CREATE_FAILED` is pending.
    explicit SpinLockBase(int process_shared) {
        int const error = pthread_spin_init(&m_lock, process_shared);
        m_valid = error == 0 || !SpinLockOps::handleInitError(error);
    }

    ~SpinLockBase() {
        if (!m_valid) {
            return;
        }
        detail::KeptErrorChain const kept_chain;
        if (int const error = pthread_spin_destroy(&m_lock)) {
            SpinLockOps::handleDestroyError(error);
            std::GlobalErrorHandler::doWarning(
                "framework/include/vesk/posix/SpinLock", __LINE__, "~SpinLock", "Error destroying SpinLock!");
            std::ErrorStorage::ack();
        }
    }

private:
    mutable pthread_spinlock_t m_lock;
    bool m_valid;
};

} // namespace vesk
