#pragma once

#include <vesk/AbsTime.h>
#include <vesk/Condition.h>
#include <vesk/ConditionOps.h>
#include <vesk/Export.h>
#include <vesk/ShmMutex.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <pthread.h>

namespace vesk {

/// A condition whose object may lie in memory that several processes map, together with the `ShmMutex` of its waiters:
/// build it there once, with placement new. Its waits are on the monotonic clock.
///
///     vesk::ShmMutexLock const lock(shared->mutex);
///     while (!shared->ready) {
///         if (shared->condition.wait(shared->mutex)) { ... }
///     }
///
/// All operations may be called from any thread of any process.
///
/// **A process that ends while it waits** leaves the condition unusable, since it stays counted as a waiter. A later `signal`
/// may be spent on that waiter, and further ones, and the destructor, then block forever; live waiters are not woken any
/// more. The mutex is not affected: a waiter does not hold it, unless the process ends in the moment in which it has been
/// woken; see `ShmMutex` for that. Where a process may be killed:
/// - have it leave its wait before it ends, for example on a signal that a `Poller` or a `SignalCatcher` gets;
/// - wait with `waitTimeout`, and look at the state that the condition stands for after each time-out;
/// - after the death of a waiter use and destroy the condition no more, but make new memory as `ShmMutex` describes.
class ShmCondition : private tarnbase::NonCopyable {
public:
    /// The family of `Condition`.
    static VESK_API std::ErrorType const& Error;
    using ErrorId = Condition::ErrorId;

    /// Creates the condition (see `ConditionOps::handleInitError` for its reports); `isValid` tells whether it worked.
    ShmCondition() : m_valid(!ConditionOps::init(&m_condition, true)) {}

    /// Ends the condition (`pthread_cond_destroy`); a failure leaves its report pending. Only one process may destroy it,
    /// when no thread waits. Blocks until the waiters that were woken have left, and forever if a process has ended in its
    /// wait.
    ~ShmCondition() {
        if (!m_valid) {
            return;
        }
        if (int const error = pthread_cond_destroy(&m_condition)) {
            ConditionOps::handleDestroyError(error);
        }
    }

    bool isValid() const noexcept { return m_valid; }

    /// Waits for a signal, with `mutex` held by the caller (`pthread_cond_wait`). May wake without one.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` or 19, then `ErrorId::WAIT_FAILED`
    bool wait(ShmMutex& mutex) {
        int const error = pthread_cond_wait(&m_condition, &mutex.m_mutex);
        return error != 0 && ConditionOps::handleWaitError(error) != 0;
    }

    /// The same until a deadline at most (`pthread_cond_timedwait`).
    /// @param deadline  on the monotonic clock; its flag is not looked at
    /// @return 0 woken, 1 timed out (not reported), -1 on failure, as for `wait`
    signed char waitTimeout(ShmMutex& mutex, AbsTimeT const& deadline) {
        timespec const time = tarnbase::TimePoint(deadline.value).toTimespec();
        int const error = pthread_cond_timedwait(&m_condition, &mutex.m_mutex, &time);
        return error == 0 ? static_cast<signed char>(0) : ConditionOps::handleWaitError(error);
    }

    /// Wakes one waiter (`pthread_cond_signal`). Does not block, unless a process has ended in its wait. True on failure:
    /// `SysErrorId::SPOILED_INTEGRITY` or 19, then `ErrorId::SIGNAL_FAILED`.
    bool signal() {
        int const error = pthread_cond_signal(&m_condition);
        return error != 0 && ConditionOps::handleSignalError(error);
    }

private:
    pthread_cond_t m_condition;
    bool m_valid;
};

} // namespace vesk
