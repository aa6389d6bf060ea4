#pragma once

#include <vesk/AbsTime.h>
#include <vesk/Export.h>
#include <vesk/Mutex.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/ConditionImpl.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>

namespace vesk {

/// A condition variable between the threads of one process.
///
/// The first wait binds it permanently to a mutex. Waits use the monotonic clock: setting the date does not
/// affect them. A waiter holds the mutex, checks the state that it waits for in a loop, and may be woken
/// without a signal:
///
///     vesk::MutexLock const lock(mutex);
///     while (!ready) {
///         if (condition.wait(mutex)) { ... }
///     }
///
/// All operations may be called from any thread. The condition must not be destroyed while a thread waits.
/// Waits are cancellation points: cancellation unwinds the thread with the mutex held, and its `MutexLock`
/// releases the mutex.
class VESK_API Condition : private tarnbase::NonCopyable {
public:
    /// Failures of conditions in shared memory. This class itself reports rows of `SysError`. Derives from
    /// `SysError`.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0, ///< Creating the condition failed.
        WAIT_FAILED = 1,   ///< Waiting failed.
        SIGNAL_FAILED = 2, ///< Signaling failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    Condition();
    ~Condition();

    /// Waits for a signal (`pthread_cond_wait`). The caller must hold `mutex`, which is released during the
    /// wait.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`. If `mutex` is not that of the first wait,
    ///         the text is "Using Condition with different Mutexes", and neither the binding nor other
    ///         waiters are affected. Otherwise the argument is the result of the wait.
    bool wait(Mutex& mutex) TARN_REQUIRES(mutex);

    /// Waits for a signal until a deadline at most (`pthread_cond_timedwait`).
    /// @param deadline  on the monotonic clock; `tarnbase::TimePoint::MAX` waits without a limit, a deadline
    ///                  that has passed returns at once. The flag of the deadline is ignored.
    /// @return 0 if woken, 1 if timed out (not reported), -1 on failure as for `wait`
    signed char waitTimeout(Mutex& mutex, AbsTimeT const& deadline) TARN_REQUIRES(mutex);

    /// Wakes one waiter (`pthread_cond_signal`). Does nothing and succeeds if there has been no wait yet.
    /// Does not block. The caller need not hold the mutex.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` for a broken condition, otherwise
    ///         `SysErrorId::UNCLASSIFIED`, with the result as the argument
    bool signal();

private:
    bool bind(Mutex& mutex, char const* function);
    TARN_HIDDEN Mutex const* bindFirst(Mutex& mutex, char const* function);
    threadsafe::ConditionImpl& getImpl() noexcept;

    threadsafe::MutexImpl m_lock;
    // Set once, with the lock held, after the implementation is complete.
    std::atomic<Mutex*> m_mutex{nullptr};
    threadsafe::MutexImpl* m_mutex_impl TARN_GUARDED_BY(m_lock) = nullptr;
    alignas(threadsafe::ConditionImpl) unsigned char m_storage[sizeof(threadsafe::ConditionImpl)];
};

} // namespace vesk
