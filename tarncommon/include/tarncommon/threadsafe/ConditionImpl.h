#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <pthread.h>

namespace threadsafe {

/// What every condition of the base library has in common.
class TARN_API ConditionBase {
public:
    /// Result of `wait_timeout` at the deadline.
    static int const TIMEOUT;
    /// Result of an operation on a broken condition, or of a wait without the mutex.
    static int const ERROR_INCONSISTENCY;
};

/// A condition between the threads of one process, bound to one mutex for its whole life. Its clock is that of
/// `tarnbase::TimePoint`, so setting the date disturbs no wait. It makes no reports; `errno` holds the system's number
/// behind a failure. Its waits are cancellation points: the unwinding of a cancelled thread leaves them with the mutex
/// held, which is for a guard around the wait to let go of.
class TARN_API ConditionImpl : public ConditionBase, private tarnbase::NonCopyable {
public:
    /// Creates the condition; a failure ends the process through `GlobalErrorHandler::doAbort`. `mutex` must outlive it.
    explicit ConditionImpl(MutexImpl& mutex);
    ~ConditionImpl();

    /// Waits, with the mutex held by the caller. 0 on wake-up, which may be spurious; other values are failures.
    int wait();

    /// Waits until the deadline at most; `TimePoint::MAX` is none. 0 on wake-up, `TIMEOUT`, other values are failures.
    int wait_timeout(tarnbase::TimePoint const& deadline);

    /// Wakes one waiter, if there is one. 0 done, `ERROR_INCONSISTENCY`, or another failure.
    int signal_one() noexcept;

private:
    static int classify(int error) noexcept;

    pthread_cond_t m_condition;
    pthread_mutex_t* m_mutex;
};

} // namespace threadsafe
