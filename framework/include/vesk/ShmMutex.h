#pragma once

#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/MutexOps.h>
#include <vesk/common/ScopedLock.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk {

/// A lock whose object may lie in memory that several processes map: build it there once, with placement new, and use it
/// from all of them.
///
///     auto* mutex = new (shared_memory) vesk::ShmMutex;
///     if (!mutex->isValid()) { ... }
///     vesk::ShmMutexLock const lock(*mutex);
///
/// All operations may be called from any thread of any process. It does not check its owner: unlocking it from the wrong
/// thread or locking it twice is the caller's error.
///
/// **A process that ends while it holds the lock** leaves it locked for good. The lock is not a robust one: `lock` then
/// blocks forever in every other process, `tryLock` returns 1, and `tryLockTimeout` returns 1 after its time. Nothing can
/// unlock it again, and the data that it guards may be half changed. The end of a process that only waits for the lock has
/// no effect. Where a process may be killed:
/// - keep the sections that hold the lock short, and end no process or thread inside one;
/// - lock with `tryLockTimeout` and a generous time, and treat a time-out as the death of the owner;
/// - recover by new memory, not by a new lock in the old memory, which others may still map: the process that made the
///   memory makes it again with `Creatable::REPLACE`, and all others open it anew.
class ShmMutex : private tarnbase::NonCopyable {
public:
    /// The family of `Mutex`.
    static VESK_API std::ErrorType const& Error;
    using ErrorId = Mutex::ErrorId;

    /// Creates the lock (see `MutexOps::init` for its reports); `isValid` tells whether it worked.
    explicit ShmMutex(bool recursive = false, bool priority_inherit = false)
        : m_valid(!MutexOps::init(&m_mutex, recursive, priority_inherit, true)) {}

    /// Ends the lock; a failure leaves its report pending. Only one process may destroy it, when no other uses it.
    ~ShmMutex() { MutexOps::destroy(&m_mutex); }

    bool isValid() const noexcept { return m_valid; }

    /// Waits for the lock (`pthread_mutex_lock`). True on failure: `ErrorId::INCONSISTENT` if it is broken or not allowed, else 1.
    bool lock() const {
        int const error = pthread_mutex_lock(&m_mutex);
        return __builtin_expect(error != 0, 0) && MutexOps::handleLockError(error);
    }

    /// Takes the lock if it is free (`pthread_mutex_trylock`). 0 locked, 1 busy (not reported), -1 on failure: `ErrorId::INCONSISTENT`
    /// or 1. Never blocks.
    signed char tryLock() const {
        int const error = pthread_mutex_trylock(&m_mutex);
        return error == 0 ? static_cast<signed char>(0) : MutexOps::handleTryLockError(error);
    }

    /// Waits for the lock for a while; see `MutexOps::tryLockTimeout`.
    signed char tryLockTimeout(long long const& ms) const { return MutexOps::tryLockTimeout(&m_mutex, ms); }

    /// Lets go of the lock (`pthread_mutex_unlock`). True on failure: `ErrorId::INCONSISTENT` if it is broken or not allowed, else 2.
    bool unlock() const {
        int const error = pthread_mutex_unlock(&m_mutex);
        return __builtin_expect(error != 0, 0) && MutexOps::handleUnlockError(error);
    }

private:
    friend class ShmCondition;

    mutable pthread_mutex_t m_mutex;
    bool m_valid;
};

/// Holds a `ShmMutex` for the length of a scope.
using ShmMutexLock = ScopedLock<ShmMutex const>;

} // namespace vesk
