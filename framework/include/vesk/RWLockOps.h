#pragma once

#include <vesk/Export.h>

#include <pthread.h>

namespace vesk {

/// All operations on a raw `pthread_rwlock_t` that can fail, for the lock classes that support shared memory.
/// Each operation may be called from every thread, on different locks.
class VESK_API RWLockOps {
public:
    RWLockOps() = delete;

    /// Creates a lock (`pthread_rwlock_init`). The caller must fill its memory with 0xFF before, so that
    /// `destroy` can recognize a failed creation.
    /// @param process_shared  whether other processes that map the memory may use it
    /// @return true on failure, with a new chain. Creating the attributes: `SysErrorId::OUT_OF_MEMORY`
    ///         without memory, otherwise `SysErrorId::UNCLASSIFIED`. Creating the lock:
    ///         `SysErrorId::PERMISSION_DENIED` if it is not permitted, `SysErrorId::RESOURCES_EXHAUSTED`
    ///         without resources, `SysErrorId::OUT_OF_MEMORY` without memory, `SysErrorId::SPOILED_INTEGRITY`
    ///         for a broken invariant (`EBUSY`, `EINVAL`), otherwise `SysErrorId::UNCLASSIFIED`, each with
    ///         the text of error number 0.
    [[nodiscard]] static bool init(pthread_rwlock_t* lock, bool process_shared);

    /// Destroys a lock that no thread holds (`pthread_rwlock_destroy`). Does nothing and succeeds if all
    /// bytes of the lock are 0xFF.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` for a lock that is broken or in use,
    ///         otherwise `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] static bool destroy(pthread_rwlock_t* lock);

    /// Takes the lock, together with other readers or alone for writing.
    /// @param timeout_ms  null: waits without a limit (`pthread_rwlock_rdlock`, `_wrlock`). 0: takes the lock
    ///                    only if it is free (`_tryrdlock`, `_trywrlock`), and never blocks. Otherwise the
    ///                    maximum wait in milliseconds (`_timedrdlock`, `_timedwrlock`) on the wall clock, so
    ///                    setting the date changes when it expires.
    /// @return 0 if locked, 1 if not locked in time (not reported), -1 on failure: the reports of
    ///         `handleLockError`, or, if the clock cannot be read, `RWLock::ErrorId::WRITE_LOCK_FAILED` for
    ///         writing and `RWLock::ErrorId::READ_LOCK_FAILED` for reading
    static signed char lock(pthread_rwlock_t* lock, bool for_write, unsigned int const* timeout_ms);

    /// Classifies the result of a failed call that takes the lock. Returns 1 if the lock is only busy or the
    /// time has expired, -1 after a report: `RWLock::ErrorId::DEADLOCK` for a deadlock,
    /// `RWLock::ErrorId::TOO_MANY_LOCKS` for too many readers, otherwise `RWLock::ErrorId::WRITE_LOCK_FAILED`
    /// for writing and `RWLock::ErrorId::READ_LOCK_FAILED` for reading.
    static signed char handleLockError(int error, bool for_write);

    /// Classifies and reports the result of a failed `pthread_rwlock_unlock`:
    /// `RWLock::ErrorId::UNLOCK_FAILED`, on top of `SysErrorId::PERMISSION_DENIED` if the caller does not
    /// hold the lock. Always returns true.
    static bool handleUnlockError(int error);
};

} // namespace vesk
