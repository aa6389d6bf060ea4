#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace threadsafe {

/// Selects the constructor of a static object that exists before any initialiser runs.
struct ConstantInit {};
constexpr ConstantInit CONSTANT_INIT{};

/// What every lock of the base library has in common.
class TARN_API MutexBase {
public:
    /// Result of an operation on a broken lock, or of a call that is not allowed: unlocking what another thread holds,
    /// locking twice what is not recursive. Read at run time, so that the library that defines it decides.
    static int const ERROR_INCONSISTENCY;
};

/// A lock between the threads of one process that checks its owner. It makes no reports: results tell, and `errno`
/// holds the system's number behind a result other than 0.
class TARN_API MutexImpl : public MutexBase, private tarnbase::NonCopyable {
public:
    /// Creates the lock; a failure ends the process through `GlobalErrorHandler::doAbort`. A recursive lock may be
    /// locked again by its owner and is free after as many calls of `unlock`.
    explicit MutexImpl(bool recursive);

    /// Makes a lock that is not recursive, without a call (`PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP`).
    constexpr explicit MutexImpl(ConstantInit) noexcept : m_mutex PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP {}

    /// Destroys the lock (`pthread_mutex_destroy`); one that is held goes to `GlobalErrorHandler::doAssert`.
    ~MutexImpl();

    /// Waits for the lock. 0 done; `ERROR_INCONSISTENCY`; any other value is another failure. `pthread_mutex_lock`.
    TARN_API_INLINE int lock() noexcept {
        int const error = pthread_mutex_lock(&m_mutex);
        return __builtin_expect(error == 0, 1) ? 0 : classify(error);
    }

    /// Lets go of the lock; results as for `lock`. `pthread_mutex_unlock`.
    TARN_API_INLINE int unlock() noexcept {
        int const error = pthread_mutex_unlock(&m_mutex);
        return __builtin_expect(error == 0, 1) ? 0 : classify(error);
    }

private:
    friend class ConditionImpl;

    static int classify(int error) noexcept;

    pthread_mutex_t m_mutex;
};

} // namespace threadsafe
