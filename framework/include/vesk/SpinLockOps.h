#pragma once

#include <vesk/Export.h>

namespace vesk {

/// Everything about a raw `pthread_spinlock_t` that can fail, for the lock classes whose objects may lie in memory that
/// processes share. Each operation classifies the result of a failed call, stores it in `errno` and reports with a new
/// chain. Callable from every thread.
class VESK_API SpinLockOps {
public:
    SpinLockOps() = delete;

    /// After `pthread_spin_init`: `SpinLock::ErrorId::CREATE_FAILED`. Always true.
    static bool handleInitError(int error);

    /// After `pthread_spin_destroy`: `SysErrorId::SPOILED_INTEGRITY` for a lock that is broken or in use, else 19. Always true.
    static bool handleDestroyError(int error);

    /// After `pthread_spin_lock`: `SpinLock::ErrorId::INCONSISTENT` for `EPERM`, else 2, the row that speaks of unlocking. Always true.
    static bool handleLockError(int error);

    /// After `pthread_spin_trylock`: 1 if the lock is only busy (not reported), -1 after `SpinLock::ErrorId::INCONSISTENT` for
    /// `EDEADLK`, else 1.
    static signed char handleTryLockError(int error);

    /// After `pthread_spin_unlock`: `SpinLock::ErrorId::INCONSISTENT` for `EDEADLK`, else 1, the row that speaks of locking. Always
    /// true.
    static bool handleUnlockError(int error);
};

} // namespace vesk
