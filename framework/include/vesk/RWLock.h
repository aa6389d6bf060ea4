#pragma once

#include <vesk/Export.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/posix/RWLock.h>

#include <tarncommon/error/ErrorType.h>

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
class RWLock : public RWLockBase {
public:
    /// Failures of read-write locks. Derives from `SysError`.
    static VESK_API std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0,     ///< Creating the lock failed.
        DEADLOCK = 1,          ///< The calling thread holds the lock already.
        TOO_MANY_LOCKS = 2,    ///< The maximum number of locks for reading is reached.
        READ_LOCK_FAILED = 3,  ///< Locking for reading failed.
        WRITE_LOCK_FAILED = 4, ///< Locking for writing failed.
        UNLOCK_FAILED = 5,     ///< Unlocking failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Creates the lock (see `RWLockOps::init` for its reports); `isValid` tells whether it worked. Nobody may hold it when
    /// it is destroyed; a failure is then a warning, "Error destroying RWLock!", and no report stays pending.
    RWLock() : RWLockBase(false) {}
};

/// Holds a `RWLock` for reading for the length of a scope.
using RWLockForRead = ScopedLock<RWLock const, &RWLock::lockForRead>;
/// Holds a `RWLock` for writing for the length of a scope.
using RWLockForWrite = ScopedLock<RWLock const, &RWLock::lockForWrite>;

} // namespace vesk
