#pragma once

#include <vesk/SpinLockOps.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/Annotations.h>

#include <pthread.h>

namespace vesk {

/// Common base of `SpinLock` and `ShmSpinLock`. Use one of these.
class TARN_LOCK SpinLockBase : private tarnbase::NonCopyable {
public:
    /// Returns whether the lock was created. An invalid lock may only be destroyed.
    bool isValid() const noexcept { return m_valid; }

    /// Spins until the lock is acquired (`pthread_spin_lock`). Does not sleep. A caller that already holds
    /// the lock spins forever. Returns true on failure: `ErrorId::INCONSISTENT` or `ErrorId::UNLOCK_FAILED`;
    /// see `SpinLockOps::handleLockError`.
    [[nodiscard]] bool lock() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        int const error = pthread_spin_lock(&m_lock);
        // LCOV_EXCL_BR_LINE: the last function always returns true
        return __builtin_expect(error != 0, 0) && SpinLockOps::handleLockError(error);
    }

    /// Takes the lock if it is free (`pthread_spin_trylock`). Never waits. Returns 0 if locked, 1 if busy
    /// (not reported), -1 on failure: `ErrorId::INCONSISTENT` or `ErrorId::LOCK_FAILED`.
    signed char tryLock() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        int const error = pthread_spin_trylock(&m_lock);
        return error == 0 ? static_cast<signed char>(0) : SpinLockOps::handleTryLockError(error);
    }

    /// Releases the lock (`pthread_spin_unlock`). Does not check the owner. Returns true on failure:
    /// `ErrorId::INCONSISTENT` or `ErrorId::LOCK_FAILED`; see `SpinLockOps::handleUnlockError`.
    [[nodiscard]] bool unlock() const TARN_RELEASE() TARN_NOT_ANALYZED {
        int const error = pthread_spin_unlock(&m_lock);
        // LCOV_EXCL_BR_LINE: the last function always returns true
        return __builtin_expect(error != 0, 0) && SpinLockOps::handleUnlockError(error);
    }

protected:
    /// Creates the lock (`pthread_spin_init`). On failure `ErrorId::CREATE_FAILED` is pending.
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
