#pragma once

#include <vesk/Export.h>
#include <vesk/SpinLock.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/common/StandardGuards.h>
#include <vesk/posix/SpinLockBase.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// A spin lock for memory that several processes map. Construct it there once, with placement new, and use it
/// from all of them.
///
///     auto* lock = new (shared_memory) vesk::ShmSpinLock;
///     if (!lock->isValid()) { ... }
///     vesk::ShmSpinLockGuard const guard(*lock);
///
/// Its operations are those of `SpinLock` and may be called from any thread of any process. A process must
/// not end while it holds the lock.
class ShmSpinLock : public SpinLockBase {
public:
    /// The family of `SpinLock`.
    static VESK_API std::ErrorType const& Error;
    using ErrorId = SpinLock::ErrorId;

    /// Creates the lock (`pthread_spin_init`). `isValid` returns whether it succeeded. On failure
    /// `ErrorId::CREATE_FAILED` is pending. Only one process may destroy it, when no other uses it.
    ShmSpinLock() : SpinLockBase(PTHREAD_PROCESS_SHARED) {}
};

/// Guard that holds a `ShmSpinLock` for the duration of a scope.
using ShmSpinLockGuard = ScopedLock<ShmSpinLock const>;

} // namespace vesk

VESK_REFUSE_STANDARD_GUARDS(vesk::ShmSpinLock, vesk::ShmSpinLockGuard)
