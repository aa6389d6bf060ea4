#pragma once

#include <vesk/Export.h>

#include <pthread.h>

namespace vesk {

/// All operations on a raw `pthread_cond_t` that can fail, for the condition classes that support shared
/// memory. Each operation may be called from every thread, on different conditions.
class VESK_API ConditionOps {
public:
    ConditionOps() = delete;

    /// Creates a condition on the monotonic clock (`pthread_cond_init`). After a failure all bytes of the
    /// memory are 0xEB.
    /// @param process_shared  whether other processes that map the memory may use it
    /// @return true on failure, with the reports of `handleInitError`
    [[nodiscard]] static bool init(pthread_cond_t* condition, bool process_shared);

    /// @{
    /// Each of these classifies the result of a failed call and makes its reports: a row of `SysError` that
    /// opens a chain and, except for destroying, a row of `Condition::Error` on top of it. Those that return
    /// bool always return true.
    static bool handleInitError(int error);
    static bool handleDestroyError(int error);
    /// @}
    /// @{
    /// Returns 1 for a timeout (not reported), -1 after the reports.
    static signed char handleWaitError(int error);
    static bool handleSignalError(int error);
    /// @}
};

} // namespace vesk
