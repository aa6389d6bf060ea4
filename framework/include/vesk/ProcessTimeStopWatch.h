#pragma once

#include <vesk/Export.h>
#include <vesk/StopWatchBase.h>

namespace vesk {

/// Measures the processor time of a process, all of its threads together.
///
///     vesk::ProcessTimeStopWatch own(true);
///     vesk::ProcessTimeStopWatch other(pid, true);
///     if (other.hasFailed()) { ... }
class VESK_API ProcessTimeStopWatch : public StopWatchBase {
public:
    /// On the clock of the calling process (`CLOCK_PROCESS_CPUTIME_ID`).
    /// @param auto_start  whether to `start` at once
    VESK_API_INLINE explicit ProcessTimeStopWatch(bool auto_start) : StopWatchBase(CLOCK_PROCESS_CPUTIME_ID) {
        if (auto_start) {
            start();
        }
    }

    /// On the clock of any process (`clock_getcpuclockid`). Without it the stopwatch stays stopped, `hasFailed` is
    /// true, and `Time::ErrorId::NO_CLOCK` is pending. When the process ends later, the clock cannot be read any more.
    /// @param pid         the process, 0 for the calling one
    /// @param auto_start  whether to `start` at once
    ProcessTimeStopWatch(int pid, bool auto_start);

    /// A process id alone would pass for `auto_start`.
    explicit ProcessTimeStopWatch(int pid) = delete;
};

} // namespace vesk
