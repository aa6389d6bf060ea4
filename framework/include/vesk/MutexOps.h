#pragma once

#include <vesk/Export.h>

#include <pthread.h>

namespace vesk {

/// Everything about a raw `pthread_mutex_t` that can fail, for the lock classes whose objects may lie in memory that
/// processes share. Each operation is safe from every thread on different locks, and reports with a new chain.
class VESK_API MutexOps {
public:
    MutexOps() = delete;

    /// Creates a lock. After a failure all bytes of the memory are 0xEB, which `destroy` recognises.
    /// @param recursive         whether the owner may lock it again
    /// @param priority_inherit  whether the owner runs at the priority of the most urgent waiter
    /// @param process_shared    whether other processes that map the memory may use it
    /// @return true on failure. Making the attributes: `SysErrorId::OUT_OF_MEMORY` without memory, else 19. Creating the lock:
    ///         `SysErrorId::OUT_OF_MEMORY` without memory, 6 if the system has no such lock, 0 without resources, else 10.
    static bool init(pthread_mutex_t* mutex, bool recursive, bool priority_inherit, bool process_shared);

    /// Ends a lock that nobody holds. A lock whose creation failed is left alone, with success.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`
    static bool destroy(pthread_mutex_t* mutex);

    /// Waits for the lock (`pthread_mutex_timedlock`). Its clock is the wall clock, so setting the date changes when it
    /// gives up.
    /// @param timeout_ms  from now, in milliseconds; one that has passed still gets a free lock
    /// @return 0 locked, 1 not locked in time (not reported), -1 on failure: `Mutex::ErrorId::INCONSISTENT` for a broken lock or one
    ///         that the caller holds, else 1
    static signed char tryLockTimeout(pthread_mutex_t* mutex, long long const& timeout_ms);

    /// Classifies the result of a failed `pthread_mutex_lock`. Always true.
    static bool handleLockError(int error);
    /// Classifies the result of a failed `pthread_mutex_unlock`. Always true.
    static bool handleUnlockError(int error);
    /// Classifies the result of a failed `pthread_mutex_trylock`: 1 if it is only busy, -1 after a report.
    static signed char handleTryLockError(int error);
};

} // namespace vesk
