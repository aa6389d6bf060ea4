#pragma once

#include <vesk/Export.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/posix/SpinLock.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// A lock between the threads of one process for a few instructions: a thread that finds it held does not sleep but
/// turns on the spot. Hold it only for short stretches, and never across a call that may block.
///
///     vesk::SpinLock lock;
///     {
///         vesk::SpinLockGuard const guard(lock);
///         ++counter;
///     }
///
/// All operations may be called from any thread. To share a lock between processes use `ShmSpinLock`.
class SpinLock : public SpinLockBase {
public:
    /// Failures of spin locks. Derives from `SysError`. What lock and unlock report does not follow the names of the
    /// rows: see `SpinLockOps`.
    static VESK_API std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0, ///< Creating the lock failed.
        LOCK_FAILED = 1,   ///< The row of locking; an unlock reports it.
        UNLOCK_FAILED = 2, ///< The row of unlocking; a lock reports it.
        INCONSISTENT = 3,  ///< The lock is broken, or its state does not allow the call.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Creates the lock (`pthread_spin_init`); `isValid` tells whether it worked, and if not `ErrorId::CREATE_FAILED` is pending. Nobody
    /// may hold it when it is destroyed; a failure is then a warning, "Error destroying SpinLock!", and no report stays
    /// pending.
    SpinLock() : SpinLockBase(PTHREAD_PROCESS_PRIVATE) {}
};

/// Holds a `SpinLock` for the length of a scope.
using SpinLockGuard = ScopedLock<SpinLock const>;

} // namespace vesk
