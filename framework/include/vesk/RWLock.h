#pragma once

#include <vesk/Export.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/posix/RWLockBase.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// A lock between the threads of one process that either many readers or one writer can hold.
///
///     vesk::RWLock lock;
///     {
///         vesk::RWLockForRead const guard(lock);
///         ...
///     }
///
/// All operations may be called from any thread. Readers have precedence: while readers hold the lock, others
/// may join them, and a thread may take it for reading more than once. A read lock cannot be converted into a
/// write lock. To share a lock between processes use `ShmRWLock`.
class RWLock : public RWLockBase {
public:
    /// Failures of read-write locks. Derives from `SysError`.
    static VESK_API std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0,     ///< Creating the lock failed.
        DEADLOCK = 1,          ///< The calling thread already holds the lock.
        TOO_MANY_LOCKS = 2,    ///< The maximum number of locks for reading is reached.
        READ_LOCK_FAILED = 3,  ///< Locking for reading failed.
        WRITE_LOCK_FAILED = 4, ///< Locking for writing failed.
        UNLOCK_FAILED = 5,     ///< Unlocking failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Creates the lock (see `RWLockOps::init` for its reports). `isValid` returns whether it succeeded. No
    /// thread may hold the lock when it is destroyed. A failure of the destruction is a warning,
    /// "Error destroying RWLock!", and leaves no report pending.
    RWLock() : RWLockBase(false) {}
};

/// Guard that holds a `RWLock` for reading for the duration of a scope.
using RWLockForRead = ScopedLock<RWLock const, &RWLock::lockForRead>;
/// Guard that holds a `RWLock` for writing for the duration of a scope.
using RWLockForWrite = ScopedLock<RWLock const, &RWLock::lockForWrite>;

} // namespace vesk
