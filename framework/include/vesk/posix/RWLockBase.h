#pragma once

#include <vesk/RWLockOps.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/Annotations.h>

#include <cstring>
#include <pthread.h>

namespace vesk {

/// Common base of `RWLock` and `ShmRWLock`. Use one of these.
class TARN_LOCK RWLockBase : private tarnbase::NonCopyable {
public:
    /// Returns whether the lock was created. An invalid lock may only be destroyed.
    bool isValid() const noexcept { return m_valid; }

    /// Waits for the lock (`pthread_rwlock_rdlock`). Returns true on failure: `ErrorId::DEADLOCK` if the
    /// caller holds it for writing, `ErrorId::TOO_MANY_LOCKS` for too many readers, otherwise
    /// `ErrorId::READ_LOCK_FAILED`.
    [[nodiscard]] bool lockForRead() const TARN_ACQUIRE_SHARED_IF_ZERO TARN_NOT_ANALYZED {
        int const error = pthread_rwlock_rdlock(&m_lock);
        return __builtin_expect(error != 0, 0) && RWLockOps::handleLockError(error, false) != 0;
    }

    /// Waits for the lock (`pthread_rwlock_wrlock`). Returns true on failure: `ErrorId::DEADLOCK` if the
    /// caller holds it for writing, otherwise `ErrorId::WRITE_LOCK_FAILED`.
    [[nodiscard]] bool lockForWrite() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        int const error = pthread_rwlock_wrlock(&m_lock);
        return __builtin_expect(error != 0, 0) && RWLockOps::handleLockError(error, true) != 0;
    }

    /// Takes the lock if no writer holds it (`pthread_rwlock_tryrdlock`). Returns 0 if locked, 1 if busy (not
    /// reported), -1 on failure as for `lockForRead`. Never blocks.
    signed char tryLockForRead() const TARN_ACQUIRE_SHARED_IF_ZERO TARN_NOT_ANALYZED {
        return tryLockForRead(0);
    }

    /// Waits for the lock for at most `timeout_ms` milliseconds (`pthread_rwlock_timedrdlock`, on the wall
    /// clock); 0 does not block. Returns the same results as `tryLockForRead()`.
    signed char tryLockForRead(unsigned int timeout_ms) const TARN_ACQUIRE_SHARED_IF_ZERO TARN_NOT_ANALYZED {
        return RWLockOps::lock(&m_lock, false, &timeout_ms);
    }

    /// Takes the lock if no reader or writer holds it (`pthread_rwlock_trywrlock`). Returns 0 if locked, 1 if
    /// busy (not reported), -1 on failure as for `lockForWrite`. Never blocks.
    signed char tryLockForWrite() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED { return tryLockForWrite(0); }

    /// Waits for the lock for at most `timeout_ms` milliseconds (`pthread_rwlock_timedwrlock`, on the wall
    /// clock); 0 does not block. Returns the same results as `tryLockForWrite()`.
    signed char tryLockForWrite(unsigned int timeout_ms) const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        return RWLockOps::lock(&m_lock, true, &timeout_ms);
    }

    /// Releases the lock, whether held for reading or for writing (`pthread_rwlock_unlock`). Does not block.
    /// Only a thread that holds the lock may call it. Returns true on failure: `ErrorId::UNLOCK_FAILED`.
    [[nodiscard]] bool unlock() const TARN_RELEASE_ANY TARN_NOT_ANALYZED {
        int const error = pthread_rwlock_unlock(&m_lock);
        // LCOV_EXCL_BR_LINE: the last function always returns true
        return __builtin_expect(error != 0, 0) && RWLockOps::handleUnlockError(error);
    }

protected:
    /// Creates the lock (see `RWLockOps::init` for its reports).
    explicit RWLockBase(bool process_shared) {
        // Marks the memory, so that the destructor does not take the remains of a failed creation for a lock.
        memset(&m_lock, 0xFF, sizeof m_lock);
        m_valid = !RWLockOps::init(&m_lock, process_shared);
    }

    ~RWLockBase() {
        detail::KeptErrorChain const kept_chain;
        if (RWLockOps::destroy(&m_lock)) {
            std::GlobalErrorHandler::doWarning(
                "framework/include/vesk/posix/RWLock", __LINE__, "~RWLock", "Error destroying RWLock!");
            std::ErrorStorage::ack();
        }
    }

private:
    mutable pthread_rwlock_t m_lock;
    bool m_valid;
};

} // namespace vesk
