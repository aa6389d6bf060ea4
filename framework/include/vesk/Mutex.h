#pragma once

#include <vesk/Export.h>
#include <vesk/common/ScopedLock.h>
#include <vesk/common/StandardGuards.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

namespace vesk {

/// A lock between the threads of one process that checks its owner and reports failures.
///
///     vesk::Mutex mutex;
///     {
///         vesk::MutexLock const lock(mutex);
///         ...
///     }
///
/// All operations may be called from any thread. After a failed `lock` the caller must not rely on the
/// critical section. To share a lock between processes use `ShmMutex`.
class TARN_LOCK VESK_API Mutex : private tarnbase::NonCopyable {
public:
    /// Failures of locks. Derives from `SysError`.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0, ///< Creating the lock failed.
        LOCK_FAILED = 1,   ///< Locking failed.
        UNLOCK_FAILED = 2, ///< Unlocking failed.
        INCONSISTENT = 3,  ///< The lock is broken, or its state does not allow the call.
        OWNER_DIED = 4,    ///< The owner of a robust `ShmMutex` ended. The caller holds the lock.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Creates the lock. A failure ends the process (see `threadsafe::MutexImpl`).
    /// @param recursive  whether the owner may lock it again; it is free after an equal number of calls of
    ///                   `unlock`
    VESK_API_INLINE explicit Mutex(bool recursive = false) : m_impl(recursive) {}

    /// What a waiting thread does to the priority of the owner: `Protocol::NONE` or `Protocol::INHERIT`.
    using Protocol = threadsafe::MutexBase::Protocol;

    /// Creates the lock with a protocol, for threads with real-time priorities:
    /// `vesk::Mutex mutex(false, vesk::Mutex::Protocol::INHERIT);`. A lock that inherits costs more than a plain
    /// one, also while it is free. A failure, such as a system without priority inheritance, ends the process.
    VESK_API_INLINE Mutex(bool recursive, Protocol protocol) : m_impl(recursive, protocol) {}

    /// Creates a static lock, which is constant-initialized: `vesk::Mutex s_lock(threadsafe::CONSTANT_INIT);`
    constexpr explicit Mutex(threadsafe::ConstantInit init) noexcept : m_impl(init) {}

#if defined(TARN_CHECKS_LOCK_ORDER)
    /// Creates a lock of the libraries, with its place in their order.
    explicit Mutex(threadsafe::LockName name) : m_impl(false) {
        m_impl.setOrderName(name);
    }

    /// Gives the lock its place in the order. The lock must be free.
    void setOrderName(threadsafe::LockName name) noexcept {
        m_impl.setOrderName(name);
    }
#endif

    /// Waits for the lock (`pthread_mutex_lock`).
    /// @return true on failure: `ErrorId::INCONSISTENT` if the caller already holds a lock that is not
    ///         recursive, or if the lock is broken; otherwise `ErrorId::LOCK_FAILED`
    [[nodiscard]] VESK_API_INLINE bool lock() const noexcept TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
        int const result = m_impl.lock();
        return __builtin_expect(result != 0, 0) && reportLock(result);
    }

    /// Releases the lock (`pthread_mutex_unlock`). Does not block.
    /// @return true on failure: `ErrorId::INCONSISTENT` if the caller does not hold the lock, or if it is
    ///         broken; otherwise `ErrorId::UNLOCK_FAILED`
    [[nodiscard]] VESK_API_INLINE bool unlock() const noexcept TARN_RELEASE() TARN_NOT_ANALYZED {
        int const result = m_impl.unlock();
        return __builtin_expect(result != 0, 0) && reportUnlock(result);
    }

private:
    friend class Condition;

    static bool reportLock(int result) noexcept;
    static bool reportUnlock(int result) noexcept;

    mutable threadsafe::MutexImpl m_impl;
};

/// Guard that holds a `Mutex` for the duration of a scope.
using MutexLock = ScopedLock<Mutex const>;

} // namespace vesk

VESK_REFUSE_STANDARD_GUARDS(vesk::Mutex, vesk::MutexLock)
