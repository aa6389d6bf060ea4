#pragma once

#include <vesk/Export.h>

namespace vesk {

/// All operations on a raw `pthread_spinlock_t` that can fail, for the lock classes that support shared
/// memory. Each operation classifies the result of a failed call, stores it in `errno` and reports with a new
/// chain. Callable from every thread.
class VESK_API SpinLockOps {
public:
    SpinLockOps() = delete;

    /// After `pthread_spin_init`: `SpinLock::ErrorId::CREATE_FAILED`. Always returns true.
    static bool handleInitError(int error);

    /// After `pthread_spin_destroy`: `SysErrorId::SPOILED_INTEGRITY` for a lock that is broken or in use,
    /// otherwise `SysErrorId::UNCLASSIFIED`. Always returns true.
    static bool handleDestroyError(int error);

    /// After `pthread_spin_lock`: `SpinLock::ErrorId::INCONSISTENT` for `EPERM`, otherwise
    /// `SpinLock::ErrorId::UNLOCK_FAILED`. Required by callers, although the name is that of unlocking.
    /// Always returns true.
    static bool handleLockError(int error);

    /// After `pthread_spin_trylock`: returns 1 if the lock is only busy (not reported), -1 after
    /// `SpinLock::ErrorId::INCONSISTENT` for `EDEADLK`, otherwise after `SpinLock::ErrorId::LOCK_FAILED`.
    static signed char handleTryLockError(int error);

    /// After `pthread_spin_unlock`: `SpinLock::ErrorId::INCONSISTENT` for `EDEADLK`, otherwise
    /// `SpinLock::ErrorId::LOCK_FAILED`. Required by callers, although the name is that of locking. Always
    /// returns true.
    static bool handleUnlockError(int error);
};

} // namespace vesk
