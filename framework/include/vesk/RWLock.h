#pragma once

#include <vesk/Export.h>
#include <vesk/RWLockOps.h>
#include <vesk/common/ScopedLock.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk {

/// A lock between the threads of one process that many readers or one writer can hold.
///
///     vesk::RWLock lock;
///     {
///         vesk::RWLockForRead const guard(lock);
///         ...
///     }
///
/// All operations may be called from any thread. Readers come first: as long as some hold the lock, others join them,
/// and a thread may take it for reading more than once. It cannot turn a read lock into a write lock. To share a lock
/// between processes use `ShmRWLock`.
class RWLock : private tarnbase::NonCopyable {
public:
    /// Failures of read-write locks. Derives from `SysError`.
    ///
    /// | id | meaning |
    /// |---|---|
    /// | 0 | creation failed; not reported now, see `RWLockOps::init` |
    /// | 1 | the caller holds the lock already |
    /// | 2 | too many readers |
    /// | 3 | locking for reading failed |
    /// | 4 | locking for writing failed |
    /// | 5 | unlocking failed |
    static VESK_API std::ErrorType const Error;

    /// Creates the lock (see `RWLockOps::init` for its reports); `isValid` tells whether it worked. An invalid lock may
    /// only be destroyed.
    inline RWLock();

    /// Ends the lock, which nobody may hold. A failure is a warning, "Error destroying RWLock!", and no report stays
    /// pending.
    inline ~RWLock();

    bool isValid() const noexcept { return m_valid; }

    /// Waits for the lock (`pthread_rwlock_rdlock`).
    /// @return true on failure: `Error` 1 if the caller holds it for writing, 2 for too many readers, else 3
    inline bool lockForRead() const;

    /// Waits for the lock (`pthread_rwlock_wrlock`).
    /// @return true on failure: `Error` 1 if the caller holds it for writing, else 4
    inline bool lockForWrite() const;

    /// Takes the lock if no writer holds it (`pthread_rwlock_tryrdlock`). Never blocks.
    /// @return 0 locked, 1 busy (not reported), -1 on failure as for `lockForRead`
    inline signed char tryLockForRead() const;

    /// The same, but waits for a while (`pthread_rwlock_timedrdlock`, on the wall clock).
    /// @param timeout_ms  milliseconds from now; 0 never blocks
    inline signed char tryLockForRead(unsigned int timeout_ms) const;

    /// Takes the lock if nobody holds it (`pthread_rwlock_trywrlock`). Never blocks.
    /// @return 0 locked, 1 busy (not reported), -1 on failure as for `lockForWrite`
    inline signed char tryLockForWrite() const;

    /// The same, but waits for a while (`pthread_rwlock_timedwrlock`, on the wall clock).
    /// @param timeout_ms  milliseconds from now; 0 never blocks
    inline signed char tryLockForWrite(unsigned int timeout_ms) const;

    /// Lets go of the lock, however it was taken (`pthread_rwlock_unlock`). Does not block. Only who holds it may call.
    /// @return true on failure: `Error` 5
    inline bool unlock() const;

private:
    mutable pthread_rwlock_t m_lock;
    bool m_valid;
};

/// Holds a `RWLock` for reading for the length of a scope.
using RWLockForRead = ScopedLock<RWLock const, &RWLock::lockForRead>;
/// Holds a `RWLock` for writing for the length of a scope.
using RWLockForWrite = ScopedLock<RWLock const, &RWLock::lockForWrite>;

} // namespace vesk

#include <vesk/posix/RWLock.h>
