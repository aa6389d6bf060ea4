#pragma once

#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/MutexOps.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/common/StandardGuards.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk {

/// A lock for memory that several processes map. Construct it there once, with placement new, and use it from
/// all of them.
///
///     auto* mutex = new (shared_memory) vesk::ShmMutex;
///     if (!mutex->isValid()) { ... }
///     vesk::ShmMutexLock const lock(*mutex);
///
/// All operations may be called from any thread of any process. The lock does not check its owner: unlocking
/// it from the wrong thread or locking it twice is the caller's error.
///
/// **A process that ends while it holds the lock** leaves the guarded data as they are, perhaps inconsistent. What
/// becomes of the lock depends on its `Robustness`. The end of a process that only waits for it has no effect.
///
/// A *robust* lock goes to the next caller, which gets the report `ErrorId::OWNER_DIED` and holds the lock. It
/// repairs the data and calls `recover`:
///
///     auto* mutex = new (shared_memory) vesk::ShmMutex(false, vesk::Mutex::Protocol::NONE,
///                                                      vesk::ShmMutex::Robustness::ROBUST);
///     vesk::ShmMutexLock lock(*mutex);
///     if (!lock.isLocked()) {
///         if (!std::ErrorStorage::is(vesk::ShmMutex::ErrorId::OWNER_DIED)) { ... }
///         ... // Repairs the data.
///         if (lock.recover()) { ... }
///     }
///
/// If that caller ends too, the next one gets the report. If it unlocks without `recover`, the lock is given up:
/// all later calls fail with `ErrorId::LOCK_FAILED`. A thread that ends while it holds the lock counts as a
/// process that does. A robust lock costs a little more than others. QEMU's user mode has no
/// robust locks, and does not tell: they remain locked there.
///
/// Any other lock remains locked permanently: `lock` blocks forever in every other process, `tryLock` returns 1,
/// and `tryLockTimeout` returns 1 after its timeout. Where a process may be killed:
/// - keep the sections that hold the lock short, and end no process or thread inside such a section;
/// - lock with `tryLockTimeout` and a generous timeout, and treat its expiry as the end of the owner;
/// - recover with new memory, not with a new lock in the old memory, which other processes may still map: the
///   process that created the memory creates it again with `Creatable::REPLACE`, and all others open it
///   again.
class TARN_LOCK ShmMutex : private tarnbase::NonCopyable {
public:
    /// @{
    /// The family of `Mutex`.
    static VESK_API std::ErrorType const& Error;
    using ErrorId = Mutex::ErrorId;
    /// @}

    /// Creates the lock (see `MutexOps::init` for its reports). `isValid` returns whether it succeeded.
    explicit ShmMutex(bool recursive = false, bool priority_inherit = false)
        : m_valid(!MutexOps::init(&m_mutex, recursive, priority_inherit, true)) {}

    /// What becomes of the lock when its owner ends.
    enum class Robustness : unsigned char {
        STALLED, ///< It remains locked permanently.
        ROBUST,  ///< The next caller gets it, and `ErrorId::OWNER_DIED`.
    };

    /// Creates the lock with a protocol, see `Mutex`, and a robustness. Same reports as the other constructor.
    ShmMutex(bool recursive, Mutex::Protocol protocol, Robustness robustness = Robustness::STALLED)
        : m_valid(!MutexOps::init(
              &m_mutex, recursive, protocol == Mutex::Protocol::INHERIT, true,
              robustness == Robustness::ROBUST)) {}

    /// Destroys the lock. A failure leaves its report pending. Only one process may destroy it, when no other
    /// uses it.
    ~ShmMutex() { static_cast<void>(MutexOps::destroy(&m_mutex)); }

    /// Returns whether the mutex could be created.
    bool isValid() const noexcept { return m_valid; }

    /// Waits for the lock (`pthread_mutex_lock`). Returns true on failure: `ErrorId::INCONSISTENT` if the
    /// lock is broken or its state does not allow the call, `ErrorId::OWNER_DIED` if the owner of a robust lock
    /// ended, otherwise `ErrorId::LOCK_FAILED`. The caller holds the lock after `ErrorId::OWNER_DIED` only.
    [[nodiscard]] bool lock() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        int const error = pthread_mutex_lock(&m_mutex);
        return __builtin_expect(error != 0, 0) && MutexOps::handleLockError(error);
    }

    /// Takes the lock if it is free (`pthread_mutex_trylock`). Never blocks. Returns 0 if locked, 1 if busy
    /// (not reported), -1 on failure, as for `lock`.
    signed char tryLock() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        int const error = pthread_mutex_trylock(&m_mutex);
        return error == 0 ? static_cast<signed char>(0) : MutexOps::handleTryLockError(error);
    }

    /// Waits for the lock for at most `ms` milliseconds; see `MutexOps::tryLockTimeout`.
    signed char tryLockTimeout(long long const& ms) const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        return MutexOps::tryLockTimeout(&m_mutex, ms);
    }

    /// Makes a robust lock usable again after `ErrorId::OWNER_DIED` (`pthread_mutex_consistent`). The caller
    /// holds the lock, before and after. Never blocks. Returns true on failure: `ErrorId::INCONSISTENT` if the
    /// lock is not robust or needs no recovery, otherwise `ErrorId::LOCK_FAILED`.
    [[nodiscard]] bool recover() const TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        return MutexOps::recover(&m_mutex);
    }

    /// Releases the lock (`pthread_mutex_unlock`). Returns true on failure: `ErrorId::INCONSISTENT` if the
    /// lock is broken or its state does not allow the call, otherwise `ErrorId::UNLOCK_FAILED`.
    [[nodiscard]] bool unlock() const TARN_RELEASE() TARN_NOT_ANALYZED {
        int const error = pthread_mutex_unlock(&m_mutex);
        return __builtin_expect(error != 0, 0) && MutexOps::handleUnlockError(error);
    }

private:
    friend class ShmCondition;

    mutable pthread_mutex_t m_mutex;
    bool m_valid;
};

/// Guard that holds a `ShmMutex` for the duration of a scope.
using ShmMutexLock = ScopedLock<ShmMutex const>;

} // namespace vesk

VESK_REFUSE_STANDARD_GUARDS(vesk::ShmMutex, vesk::ShmMutexLock)
