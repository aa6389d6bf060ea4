#pragma once

#include <vesk/Export.h>
#include <vesk/RWLockOps.h>
#include <vesk/common/ScopedLock.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/ErrorType.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstring>
#include <pthread.h>

namespace vesk {

/// A read-write lock whose object may lie in memory that several processes map: build it there once, with placement new,
/// and use it from all of them.
///
///     auto* lock = new (shared_memory) vesk::ShmRWLock;
///     if (!lock->isValid()) { ... }
///     vesk::ShmRWLockForWrite const guard(*lock);
///
/// Its operations are those of `RWLock` and may be called from any thread of any process. A process may not end while it
/// holds the lock or waits for it.
class ShmRWLock : private tarnbase::NonCopyable {
public:
    /// The family of `RWLock`.
    static VESK_API std::ErrorType const& Error;

    /// Creates the lock (see `RWLockOps::init` for its reports); `isValid` tells whether it worked. An invalid lock may
    /// only be destroyed.
    ShmRWLock() {
        // What a failed creation leaves behind must not look like a lock to the destructor.
        memset(&m_lock, 0xFF, sizeof m_lock);
        m_valid = !RWLockOps::init(&m_lock, true);
    }

    /// Ends the lock: only one process may, when no other uses it. A failure is a warning, "Error destroying RWLock!",
    /// and no report stays pending.
    ~ShmRWLock() {
        if (RWLockOps::destroy(&m_lock)) {
            std::GlobalErrorHandler::doWarning(
                "framework/include/vesk/ShmRWLock", __LINE__, "~ShmRWLock", "Error destroying RWLock!");
            std::ErrorStorage::ack();
        }
    }

    bool isValid() const noexcept { return m_valid; }

    /// Waits for the lock (`pthread_rwlock_rdlock`). True on failure: `Error` 1 if the caller holds it for writing, 2
    /// for too many readers, else 3.
    bool lockForRead() const { return RWLockOps::lock(&m_lock, false, nullptr) != 0; }

    /// Waits for the lock (`pthread_rwlock_wrlock`). True on failure: `Error` 1 if the caller holds it for writing, else
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
    /// True on failure: `Error` 5.
    bool unlock() const {
        int const error = pthread_rwlock_unlock(&m_lock);
        return __builtin_expect(error != 0, 0) && RWLockOps::handleUnlockError(error);
    }

private:
    mutable pthread_rwlock_t m_lock;
    bool m_valid;
};

/// Holds a `ShmRWLock` for reading for the length of a scope.
using ShmRWLockForRead = ScopedLock<ShmRWLock const, &ShmRWLock::lockForRead>;
/// Holds a `ShmRWLock` for writing for the length of a scope.
using ShmRWLockForWrite = ScopedLock<ShmRWLock const, &ShmRWLock::lockForWrite>;

} // namespace vesk
