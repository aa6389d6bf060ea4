#pragma once

#include <vesk/Export.h>

#include <pthread.h>

namespace vesk {

/// Everything about a raw `pthread_rwlock_t` that can fail, for the lock classes whose objects may lie in memory that
/// processes share. Each operation is safe from every thread on different locks.
class VESK_API RWLockOps {
public:
    RWLockOps() = delete;

    /// Creates a lock (`pthread_rwlock_init`). Fill its memory with 0xFF before: then `destroy` can tell whether this
    /// worked.
    /// @param process_shared  whether other processes that map the memory may use it
    /// @return true on failure, with a new chain. Making the attributes: `SysErrorId::OUT_OF_MEMORY` without memory, else 19. Creating
    ///         the lock: `SysErrorId::PERMISSION_DENIED` if it is not permitted, 0 without resources, 1 without memory, 10 for what should
    ///         never happen, else 19, each with the text of error number 0
    static bool init(pthread_rwlock_t* lock, bool process_shared);

    /// Ends a lock that nobody holds (`pthread_rwlock_destroy`). A lock that is all 0xFF is left alone, with success.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` for a lock that is broken or in use, else 19
    static bool destroy(pthread_rwlock_t* lock);

    /// Takes the lock, with as many other readers as there are, or alone for writing.
    /// @param timeout_ms  null: waits (`pthread_rwlock_rdlock`, `_wrlock`). 0: takes it only if it is free
    ///                    (`_tryrdlock`, `_trywrlock`), and never blocks. Else the milliseconds to wait at most
    ///                    (`_timedrdlock`, `_timedwrlock`); their clock is the wall clock, so setting the date changes
    ///                    when this gives up
    /// @return 0 locked, 1 not locked in time (not reported), -1 on failure: the reports of `handleLockError`, or
    ///         `RWLock::ErrorId::WRITE_LOCK_FAILED` for writing and 3 for reading if the clock cannot be read
    static signed char lock(pthread_rwlock_t* lock, bool for_write, unsigned int const* timeout_ms);

    /// Classifies the result of a failed call that takes the lock: 1 if it is only busy or the time is over, -1 after a
    /// report: `RWLock::ErrorId::DEADLOCK` for a deadlock, 2 for too many readers, else 4 for writing and 3 for reading.
    static signed char handleLockError(int error, bool for_write);

    /// Classifies the result of a failed `pthread_rwlock_unlock`: `RWLock::ErrorId::UNLOCK_FAILED`, on top of `SysErrorId::PERMISSION_DENIED` if the
    /// caller does not hold the lock. Always true.
    static bool handleUnlockError(int error);
};

} // namespace vesk
