#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/Annotations.h>
#include <tarncommon/threadsafe/LockOrder.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <pthread.h>

namespace vesk::detail {

/// A lock for static objects. It exists before any initializer runs, and is never destroyed: threads may use
/// it while the process ends. Locking it cannot fail.
class TARN_LOCK StaticMutex : private tarnbase::NonCopyable {
public:
#if defined(TARN_CHECKS_LOCK_ORDER)
    constexpr explicit StaticMutex(threadsafe::ConstantInit init) noexcept : m_name(init.name) {}

    void lock() noexcept TARN_ACQUIRE() TARN_NOT_ANALYZED {
        threadsafe::LockOrder::check(this, m_name);
        pthread_mutex_lock(&m_mutex);
        threadsafe::LockOrder::enter(this, m_name);
    }
    void unlock() noexcept TARN_RELEASE() TARN_NOT_ANALYZED {
        threadsafe::LockOrder::leave(this, m_name);
        pthread_mutex_unlock(&m_mutex);
    }
#else
    constexpr explicit StaticMutex(threadsafe::ConstantInit /*init*/) noexcept {}

    void lock() noexcept TARN_ACQUIRE() TARN_NOT_ANALYZED {
        pthread_mutex_lock(&m_mutex);
    }
    void unlock() noexcept TARN_RELEASE() TARN_NOT_ANALYZED {
        pthread_mutex_unlock(&m_mutex);
    }
#endif

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
#if defined(TARN_CHECKS_LOCK_ORDER)
    threadsafe::LockName m_name;
#endif
};

/// Guard that holds a `StaticMutex` until the end of a scope.
class [[nodiscard]] TARN_SCOPED_LOCK StaticLock : private tarnbase::NonCopyable {
public:
    explicit StaticLock(StaticMutex& mutex) noexcept TARN_ACQUIRE(mutex) : m_mutex(mutex) { mutex.lock(); }
    ~StaticLock() TARN_RELEASE() { m_mutex.unlock(); }

private:
    StaticMutex& m_mutex;
};

} // namespace vesk::detail
