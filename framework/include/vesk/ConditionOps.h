#pragma once

#include <vesk/Export.h>

#include <pthread.h>

namespace vesk {

/// Everything about a raw `pthread_cond_t` that can fail, for conditions whose objects may lie in memory that processes
/// share. Each operation is safe from every thread on different conditions.
class VESK_API ConditionOps {
public:
    ConditionOps() = delete;

    /// Creates a condition on the monotonic clock. After a failure all bytes of the memory are 0xEB.
    /// @param process_shared  whether other processes that map the memory may use it
    /// @return true on failure, with the reports of `handleInitError`
    static bool init(pthread_cond_t* condition, bool process_shared);

    /// Each classifies the result of a failed call: a row of `SysError` that opens a chain, and, except for destroying,
    /// a row of `Condition::Error` on top of it.
    static bool handleInitError(int error);
    static bool handleDestroyError(int error);
    /// 1 for a timeout (not reported), -1 after the reports.
    static signed char handleWaitError(int error);
    static bool handleSignalError(int error);
};

} // namespace vesk
