#pragma once

#include <vesk/Export.h>
#include <vesk/RWLock.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/posix/RWLockBase.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// A read-write lock for memory that several processes map. Construct it there once, with placement new, and
/// use it from all of them.
///
///     auto* lock = new (shared_memory) vesk::ShmRWLock;
///     if (!lock->isValid()) { ... }
///     vesk::ShmRWLockForWrite const guard(*lock);
///
/// Its operations are those of `RWLock` and may be called from any thread of any process. A process must not
/// end while it holds the lock or waits for it.
class ShmRWLock : public RWLockBase {
public:
    /// @{
    /// The family of `RWLock`.
    static VESK_API std::ErrorType const& Error;
    using ErrorId = RWLock::ErrorId;
    /// @}

    /// Creates the lock (see `RWLockOps::init` for its reports). `isValid` returns whether it succeeded. Only
    /// one process may destroy it, when no other uses it.
    ShmRWLock() : RWLockBase(true) {}
};

/// Guard that holds a `ShmRWLock` for reading for the duration of a scope.
using ShmRWLockForRead = ScopedLock<ShmRWLock const, &ShmRWLock::lockForRead>;
/// Guard that holds a `ShmRWLock` for writing for the duration of a scope.
using ShmRWLockForWrite = ScopedLock<ShmRWLock const, &ShmRWLock::lockForWrite>;

} // namespace vesk
