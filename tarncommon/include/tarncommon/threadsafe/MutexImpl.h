#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/Annotations.h>
#include <tarncommon/threadsafe/LockOrder.h>

#include <pthread.h>

namespace threadsafe {

/// Selects the constructor for a static object that must exist before any initializer runs.
struct ConstantInit {
#if defined(TARN_CHECKS_LOCK_ORDER)
    LockName name = LockName::UNNAMED;
#endif
};
constexpr ConstantInit CONSTANT_INIT{};

/// Results that all locks of the base library share.
class TARN_API MutexBase {
public:
    /// Result of an operation on a broken lock, or of a call that the lock's state forbids: unlocking a lock
    /// that another thread holds, or locking a non-recursive lock twice. Defined in the library rather than
    /// here, so that programs use the value of the library that they run with.
    static int const ERROR_INCONSISTENCY;

    /// What a waiting thread does to the priority of the owner.
    enum class Protocol : unsigned char {
        NONE, ///< Nothing. A thread of middle priority can keep the owner, and so the waiter, from running.
        INHERIT, ///< The owner runs at the priority of the most urgent waiter (`PTHREAD_PRIO_INHERIT`).
    };
};

/// A mutex between the threads of one process that checks its owner. The class makes no reports: operations
/// return their result, and `errno` holds the system's error number behind a result other than 0.
class TARN_LOCK TARN_API MutexImpl : public MutexBase, private tarnbase::NonCopyable {
public:
    /// Creates the lock (`pthread_mutex_init`). A failure ends the process through
    /// `GlobalErrorHandler::doAbort`. The owner of a recursive lock may lock it again; the lock is free after
    /// as many calls of `unlock`.
    explicit MutexImpl(bool recursive);

    /// Creates the lock with a protocol. A system without priority inheritance is such a failure.
    MutexImpl(bool recursive, Protocol protocol);

/// Creates a non-recursive lock without a system call (`PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP`).
#if defined(TARN_CHECKS_LOCK_ORDER)
    constexpr explicit MutexImpl(ConstantInit init) noexcept
        : m_mutex PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, m_name(init.name) {}
#else
    constexpr explicit MutexImpl(ConstantInit) noexcept : m_mutex PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP {}
#endif

    /// Destroys the lock (`pthread_mutex_destroy`). Destroying a locked lock is reported to
    /// `GlobalErrorHandler::doAssert`.
    ~MutexImpl();

    /// Blocks until the lock is acquired (`pthread_mutex_lock`).
    /// @return 0 on success; `ERROR_INCONSISTENCY`; any other value is another failure
    [[nodiscard]] TARN_API_INLINE int lock() noexcept TARN_ACQUIRE_IF_ZERO TARN_NOT_ANALYZED {
#if defined(TARN_CHECKS_LOCK_ORDER)
        LockOrder::check(this, m_name);
#endif
        int const error = pthread_mutex_lock(&m_mutex);
#if defined(TARN_CHECKS_LOCK_ORDER)
        if (error == 0) {
            LockOrder::enter(this, m_name);
        }
#endif
        return __builtin_expect(error == 0, 1) ? 0 : classify(error);
    }

    /// Releases the lock (`pthread_mutex_unlock`). Returns the same results as `lock`.
    [[nodiscard]] TARN_API_INLINE int unlock() noexcept TARN_RELEASE() TARN_NOT_ANALYZED {
        int const error = pthread_mutex_unlock(&m_mutex);
#if defined(TARN_CHECKS_LOCK_ORDER)
        LockOrder::leave(this, m_name); // Also after a failure: callers continue as if they had released it.
#endif
        return __builtin_expect(error == 0, 1) ? 0 : classify(error);
    }

#if defined(TARN_CHECKS_LOCK_ORDER)
    /// Gives the lock its place in the order. The lock must be free.
    constexpr void setOrderName(LockName name) noexcept {
        m_name = name;
    }
#endif

private:
    friend class ConditionImpl;

    static int classify(int error) noexcept;

    pthread_mutex_t m_mutex;
#if defined(TARN_CHECKS_LOCK_ORDER)
    LockName m_name = LockName::UNNAMED;
#endif
};

} // namespace threadsafe
