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
    ///
    /// | id | meaning |
    /// |---|---|
    /// | 0 | creation failed; not reported now, see `RWLockOps::init` |
    /// | 1 | the caller holds the lock already |
    /// | 2 | too many readers |
    /// | 3 | locking for reading failed |
    /// | 4 | locking for writing failed |
    /// | 5 | unlocking failed |
    static VESK_API std::ErrorType const Error;

    /// Creates the lock (see `RWLockOps::init` for its reports); `isValid` tells whether it worked. Nobody may hold it when
    /// it is destroyed; a failure is then a warning, "Error destroying RWLock!", and no report stays pending.
    RWLock() : RWLockBase(false) {}
};

/// Holds a `RWLock` for reading for the length of a scope.
using RWLockForRead = ScopedLock<RWLock const, &RWLock::lockForRead>;
/// Holds a `RWLock` for writing for the length of a scope.
using RWLockForWrite = ScopedLock<RWLock const, &RWLock::lockForWrite>;

} // namespace vesk
