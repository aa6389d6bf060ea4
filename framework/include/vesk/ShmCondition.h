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

/// A condition variable for memory that several processes map, together with the `ShmMutex` of its waiters.
/// Construct it there once, with placement new. Its waits use the monotonic clock.
///
///     vesk::ShmMutexLock const lock(shared->mutex);
///     while (!shared->ready) {
///         if (shared->condition.wait(shared->mutex)) { ... }
///     }
///
/// All operations may be called from any thread of any process.
///
/// **A process that ends while it waits** leaves the condition unusable, because it still counts as a waiter.
/// A later `signal` may be consumed by that waiter. Further signals, and the destructor, then block forever,
/// and the remaining waiters are not woken. The mutex is not affected, because a waiter does not hold it,
/// unless the process ends at the moment at which it has been woken; see `ShmMutex` for that case. Where a
/// process may be killed:
/// - make it leave its wait before it ends, for example on a signal that a `Poller` or a `SignalCatcher`
///   receives;
/// - wait with `waitTimeout`, and check the state that the condition stands for after each timeout;
/// - after the end of a waiting process, do not use or destroy the condition, but create new memory as
///   `ShmMutex` describes.
class ShmCondition : private tarnbase::NonCopyable {
public:
    /// @{
    /// The family of `Condition`.
    static VESK_API std::ErrorType const& Error;
    using ErrorId = Condition::ErrorId;
    /// @}

    /// Creates the condition (see `ConditionOps::handleInitError` for its reports). `isValid` returns whether
    /// it succeeded.
    ShmCondition() : m_valid(!ConditionOps::init(&m_condition, true)) {}

    /// Destroys the condition (`pthread_cond_destroy`). A failure leaves its report pending. Only one process
    /// may destroy it, when no thread waits. Blocks until the waiters that were woken have left, and blocks
    /// forever if a process has ended during its wait.
    ~ShmCondition() {
        if (!m_valid) {
            return;
        }
        if (int const error = pthread_cond_destroy(&m_condition)) {
            ConditionOps::handleDestroyError(error);
        }
    }

    /// Returns whether the condition could be created.
    bool isValid() const noexcept { return m_valid; }

    /// Waits for a signal (`pthread_cond_wait`). The caller must hold `mutex`. May return without a signal.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` or `SysErrorId::UNCLASSIFIED`, then
    ///         `ErrorId::WAIT_FAILED`. `Mutex::ErrorId::OWNER_DIED` if the owner of a robust `mutex` ended: the
    ///         caller holds the lock and calls `ShmMutex::recover`.
    [[nodiscard]] bool wait(ShmMutex& mutex) {
        int const error = pthread_cond_wait(&m_condition, &mutex.m_mutex);
        return error != 0 && ConditionOps::handleWaitError(error) != 0;
    }

    /// Waits for a signal until a deadline at most (`pthread_cond_timedwait`).
    /// @param deadline  on the monotonic clock; its flag is ignored
    /// @return 0 if woken, 1 if timed out (not reported), -1 on failure as for `wait`
    signed char waitTimeout(ShmMutex& mutex, AbsTimeT const& deadline) {
        timespec const time = tarnbase::TimePoint(deadline.value).toTimespec();
        int const error = pthread_cond_timedwait(&m_condition, &mutex.m_mutex, &time);
        return error == 0 ? static_cast<signed char>(0) : ConditionOps::handleWaitError(error);
    }

    /// Wakes one waiter (`pthread_cond_signal`). Does not block, unless a process has ended during its wait.
    /// Returns true on failure: `SysErrorId::SPOILED_INTEGRITY` or `SysErrorId::UNCLASSIFIED`, then
    /// `ErrorId::SIGNAL_FAILED`.
    [[nodiscard]] bool signal() {
        int const error = pthread_cond_signal(&m_condition);
        return error != 0 && ConditionOps::handleSignalError(error);
    }

private:
    pthread_cond_t m_condition;
    bool m_valid;
};

} // namespace vesk
