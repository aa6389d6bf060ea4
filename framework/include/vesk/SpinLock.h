#pragma once

#include <vesk/Export.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/common/StandardGuards.h>
#include <vesk/posix/SpinLockBase.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// A lock between the threads of one process for very short critical sections: a thread that finds it held
/// spins instead of sleeping. Hold it only for a few instructions, and never across a call that may block.
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
    /// Failures of spin locks. Derives from `SysError`. The reports of lock and unlock do not follow the
    /// names of the rows: see `SpinLockOps`.
    static VESK_API std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0, ///< Creating the lock failed.
        LOCK_FAILED = 1,   ///< Unlocking failed, or `tryLock` failed; see `SpinLockOps`.
        UNLOCK_FAILED = 2, ///< Locking failed; see `SpinLockOps`.
        INCONSISTENT = 3,  ///< The lock is broken, or its state does not allow the call.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Creates the lock (`pthread_spin_init`). `isValid` returns whether it succeeded. On failure
    /// `ErrorId::CREATE_FAILED` is pending. No thread may hold the lock when it is destroyed. A failure of
    /// the destruction is a warning, "Error destroying SpinLock!", and leaves no report pending.
    SpinLock() : SpinLockBase(PTHREAD_PROCESS_PRIVATE) {}
};

/// Guard that holds a `SpinLock` for the duration of a scope.
using SpinLockGuard = ScopedLock<SpinLock const>;

} // namespace vesk

VESK_REFUSE_STANDARD_GUARDS(vesk::SpinLock, vesk::SpinLockGuard)
