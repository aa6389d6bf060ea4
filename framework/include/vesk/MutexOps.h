#pragma once

#include <vesk/Export.h>

#include <pthread.h>

namespace vesk {

/// All operations on a raw `pthread_mutex_t` that can fail, for the lock classes that support shared memory.
/// Each operation may be called from every thread, on different locks, and reports with a new chain.
class VESK_API MutexOps {
public:
    MutexOps() = delete;

    /// Creates a lock (`pthread_mutex_init`). After a failure all bytes of the memory are 0xEB, which
    /// `destroy` recognizes.
    /// @param recursive         whether the owner may lock it again
    /// @param priority_inherit  whether the owner runs at the priority of the most urgent waiter
    /// @param process_shared    whether other processes that map the memory may use it
    /// @return true on failure. Creating the attributes: `SysErrorId::OUT_OF_MEMORY` without memory,
    ///         otherwise `SysErrorId::UNCLASSIFIED`. Creating the lock: `SysErrorId::OUT_OF_MEMORY` without
    ///         memory, `SysErrorId::NOT_IMPLEMENTED` if the system does not support such a lock,
    ///         `SysErrorId::RESOURCES_EXHAUSTED` without resources, otherwise
    ///         `SysErrorId::SPOILED_INTEGRITY`.
    [[nodiscard]] static bool
    init(pthread_mutex_t* mutex, bool recursive, bool priority_inherit, bool process_shared);

    /// Creates a lock as the other `init` does, robust on request (`pthread_mutexattr_setrobust`).
    /// @param robust  whether a caller gets the lock, and `Mutex::ErrorId::OWNER_DIED`, after its owner ended
    [[nodiscard]] static bool
    init(pthread_mutex_t* mutex, bool recursive, bool priority_inherit, bool process_shared, bool robust);

    /// Makes a lock usable again whose owner ended (`pthread_mutex_consistent`). The caller must hold it.
    /// @return true on failure: `Mutex::ErrorId::INCONSISTENT` if the lock is not robust or needs no recovery,
    ///         otherwise `Mutex::ErrorId::LOCK_FAILED`
    [[nodiscard]] static bool recover(pthread_mutex_t* mutex);

    /// Destroys a lock that no thread holds (`pthread_mutex_destroy`). Does nothing and succeeds if the
    /// creation of the lock failed.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] static bool destroy(pthread_mutex_t* mutex);

    /// Waits for the lock for at most a given time (`pthread_mutex_timedlock`). The timeout uses the wall
    /// clock, so setting the date changes when it expires.
    /// @param timeout_ms  from now, in milliseconds; with one that has expired, a free lock is still taken
    /// @return 0 if locked, 1 if not locked in time (not reported), -1 on failure:
    ///         `Mutex::ErrorId::INCONSISTENT` for a broken lock or one that the caller holds,
    ///         `Mutex::ErrorId::OWNER_DIED` as `ShmMutex` describes, otherwise `Mutex::ErrorId::LOCK_FAILED`
    static signed char tryLockTimeout(pthread_mutex_t* mutex, long long const& timeout_ms);

    /// Classifies and reports the result of a failed `pthread_mutex_lock`. Always returns true.
    static bool handleLockError(int error);
    /// Classifies and reports the result of a failed `pthread_mutex_unlock`. Always returns true.
    static bool handleUnlockError(int error);
    /// Classifies the result of a failed `pthread_mutex_trylock`. Returns 1 if the lock is only busy, -1
    /// after a report.
    static signed char handleTryLockError(int error);
};

} // namespace vesk
