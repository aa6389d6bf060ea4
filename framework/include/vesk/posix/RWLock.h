#pragma once

#include <vesk/RWLockOps.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstring>
#include <pthread.h>

namespace vesk {

/// What `RWLock` and `ShmRWLock` do alike; use one of them.
class RWLockBase : private tarnbase::NonCopyable {
public:
    /// Whether the lock could be made. An invalid one may only be destroyed.
    bool isValid() const noexcept { return m_valid; }

    /// Waits for the lock (`pthread_rwlock_rdlock`). True on failure: `ErrorId::DEADLOCK` if the caller holds it for writing, 2
    /// for too many readers, else 3.
    bool lockForRead() const { return RWLockOps::lock(&m_lock, false, nullptr) != 0; }

    /// Waits for the lock (`pthread_rwlock_wrlock`). True on failure: `ErrorId::DEADLOCK` if the caller holds it for writing, else
    /// 4.
    bool lockForWrite() const { return RWLockOps::lock(&m_lock, true, nullptr) != 0; }

    /// Takes the lock if no writer holds it (`pthread_rwlock_tryrdlock`). 0 locked, 1 busy (not reported), -1 on failure
    /// as for `lockForRead`. Never blocks.
    signed char tryLockForRead() const { return tryLockForRead(0); }

    /// The same, but waits for `timeout_ms` milliseconds at most (`pthread_rwlock_timedrdlock`, on the wall clock).
    signed char tryLockForRead(unsigned int timeout_ms) const {
        return RWLockOps::lock(&m_lock, false, &timeout_ms);
    }

    /// Takes the lock if nobody holds it (`pthread_rwlock_trywrlock`). 0 locked, 1 busy (not reported), -1 on failure as
    /// for `lockForWrite`. Never blocks.
    signed char tryLockForWrite() const { return tryLockForWrite(0); }

    /// The same, but waits for `timeout_ms` milliseconds at most (`pthread_rwlock_timedwrlock`, on the wall clock).
    signed char tryLockForWrite(unsigned int timeout_ms) const {
        return RWLockOps::lock(&m_lock, true, &timeout_ms);
    }

    /// Lets go of the lock, however it was taken (`pthread_rwlock_unlock`). Does not block. Only who holds it may call.
    /// True on failure: `ErrorId::UNLOCK_FAILED`.
    bool unlock() const {
        int const error = pthread_rwlock_unlock(&m_lock);
        return __builtin_expect(error != 0, 0) && RWLockOps::handleUnlockError(error);
    }

protected:
    /// Creates the lock (see `RWLockOps::init` for its reports).
    explicit RWLockBase(bool process_shared) {
        // What a failed creation leaves behind must not look like a lock to the destructor.
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
