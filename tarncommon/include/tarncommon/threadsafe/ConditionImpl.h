#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <pthread.h>

namespace threadsafe {

/// Results that all conditions of the base library share.
class TARN_API ConditionBase {
public:
    /// Result of `wait_timeout` at the deadline.
    static int const TIMEOUT;
    /// Result of an operation on a broken condition, or of a wait by a thread that does not hold the mutex.
    static int const ERROR_INCONSISTENCY;
};

/// A condition variable between the threads of one process, bound to one mutex for its whole lifetime.
///
/// Deadlines are moments of the clock of `tarnbase::TimePoint`, so setting the date does not affect a wait.
/// The class makes no reports: `errno` holds the system's error number after a failure. The waits are
/// cancellation points. A canceled thread unwinds out of a wait with the mutex locked: a scoped guard around
/// the wait must unlock it.
class TARN_API ConditionImpl : public ConditionBase, private tarnbase::NonCopyable {
public:
    /// Creates the condition (`pthread_cond_init`). A failure ends the process through
    /// `GlobalErrorHandler::doAbort`. `mutex` must outlive the condition.
    explicit ConditionImpl(MutexImpl& mutex);
    ~ConditionImpl();

    /// Blocks until the condition is signaled (`pthread_cond_wait`). The caller must hold the mutex.
    /// @return 0 after a wake-up, which may be spurious; any other value is a failure
    [[nodiscard]] int wait();

    /// Blocks until the condition is signaled or the deadline passes (`pthread_cond_timedwait`). The caller
    /// must hold the mutex. `TimePoint::MAX` means no deadline.
    /// @return 0 after a wake-up, which may be spurious; `TIMEOUT` at the deadline; any other value is a
    ///         failure
    [[nodiscard]] int wait_timeout(tarnbase::TimePoint const& deadline);

    /// Wakes one waiting thread, if there is one (`pthread_cond_signal`).
    /// @return 0 on success; `ERROR_INCONSISTENCY`; any other value is another failure
    [[nodiscard]] int signal_one() noexcept;

private:
    static int classify(int error) noexcept;

    pthread_cond_t m_condition;
    pthread_mutex_t* m_mutex;
};

} // namespace threadsafe
