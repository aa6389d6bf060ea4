#pragma once

#include <vesk/Export.h>
#include <vesk/sched.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// A thread, and what concerns the calling one.
class VESK_API Thread : private tarnbase::NonCopyable {
public:
    /// Failures of threads. Derives from `SysError`. The argument of each row is a text.
    ///
    /// | id | meaning |
    /// |---|---|
    /// | 0 | creation failed |
    /// | 1 | start failed |
    /// | 2 | getting or setting the priority or the scheduling parameters failed |
    /// | 3 | yield failed |
    /// | 4 | join failed |
    /// | 5 | terminate failed |
    static std::ErrorType const Error;

    Thread() = delete;

    /// How the calling thread is scheduled (`pthread_getschedparam`, for time sharing also `getpriority`). Callable
    /// from any thread, also from one that is no `Thread`. Does not block.
    ///
    /// @param attributes  gets the policy `VESK_SCHED_POLICY_RR` or `_FIFO` with `priority`, or `_NORMAL` with `nice`.
    ///                    After a failure its policy is `VESK_SCHED_NOOP` and its parameters are as they were.
    /// @return true on failure: `SysError` 19 if the system refuses; `Error` 2 with "read unexpected policy from thread"
    ///         if it has a policy of which this library knows nothing, such as `SCHED_BATCH`
    static bool getCallerSchedAttrs(sched::Attr& attributes);
};

} // namespace vesk
