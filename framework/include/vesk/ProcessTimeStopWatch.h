#pragma once

#include <vesk/Export.h>
#include <vesk/StopWatchBase.h>

namespace vesk {

/// Stopwatch for the processor time of a process, the sum of all its threads.
///
///     vesk::ProcessTimeStopWatch own(true);
///     vesk::ProcessTimeStopWatch other(pid, true);
///     if (other.hasFailed()) { ... }
class VESK_API ProcessTimeStopWatch : public StopWatchBase {
public:
    /// Uses the clock of the calling process (`CLOCK_PROCESS_CPUTIME_ID`).
    /// @param auto_start  whether to `start` at once
    VESK_API_INLINE explicit ProcessTimeStopWatch(bool auto_start) : StopWatchBase(CLOCK_PROCESS_CPUTIME_ID) {
        if (auto_start) {
            start();
        }
    }

    /// Uses the clock of any process (`clock_getcpuclockid`). If there is no such clock, the stopwatch stays
    /// stopped, `hasFailed` returns true, and `Time::ErrorId::NO_CLOCK` is pending. After the end of the
    /// process the clock can no longer be read.
    /// @param pid         the process, 0 for the calling process
    /// @param auto_start  whether to `start` at once
    ProcessTimeStopWatch(int pid, bool auto_start);

    /// Deleted because a process id alone would convert to `auto_start`.
    explicit ProcessTimeStopWatch(int pid) = delete;
};

} // namespace vesk
