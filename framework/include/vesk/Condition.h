#pragma once

#include <vesk/AbsTime.h>
#include <vesk/Export.h>
#include <vesk/Mutex.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/ConditionImpl.h>
#include <tarncommon/threadsafe/MutexImpl.h>

namespace vesk {

/// A condition between the threads of one process.
///
/// Its first wait binds it to a mutex for ever. Waits are on the monotonic clock: setting the date disturbs none of
/// them. A waiter holds the mutex, checks what it waits for in a loop, and may be woken without a signal:
///
///     vesk::MutexLock const lock(mutex);
///     while (!ready) {
///         if (condition.wait(mutex)) { ... }
///     }
///
/// All operations may be called from any thread. Destroying it while somebody waits is not allowed. Waits are
/// cancellation points: a cancelled thread is unwound from them with the mutex held, and its `MutexLock` lets go of it.
class VESK_API Condition : private tarnbase::NonCopyable {
public:
    /// Failures of conditions that lie in shared memory; this class reports rows of `SysError`. Derives from it.
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

    /// Waits for a signal, with `mutex` held by the caller; it is let go of meanwhile (`pthread_cond_wait`).
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, for another mutex than that of the first wait with the text "Using
    ///         Condition with different Mutexes" (the binding and other waiters are not touched), else with the
    ///         result of the wait
    bool wait(Mutex& mutex);

    /// The same until a deadline at most (`pthread_cond_timedwait`).
    /// @param deadline  on the monotonic clock; `tarnbase::TimePoint::MAX` is none, what has passed returns at once.
    ///                  Its flag is not looked at.
    /// @return 0 woken, 1 timed out (not reported), -1 on failure, as for `wait`
    signed char waitTimeout(Mutex& mutex, AbsTimeT const& deadline);

    /// Wakes one waiter (`pthread_cond_signal`). Does nothing, with success, if nobody ever waited. Does not block. The
    /// caller need not hold the mutex.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` for a broken condition, else 19, with the result as the argument
    bool signal();

private:
    bool bind(Mutex& mutex, char const* function);
    threadsafe::ConditionImpl& getImpl() noexcept;

    threadsafe::MutexImpl m_lock;
    Mutex* m_mutex = nullptr;
    threadsafe::MutexImpl* m_mutex_impl = nullptr;
    alignas(threadsafe::ConditionImpl) unsigned char m_storage[sizeof(threadsafe::ConditionImpl)];
};

} // namespace vesk
