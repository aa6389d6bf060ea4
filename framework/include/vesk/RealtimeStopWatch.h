#pragma once

#include <vesk/Export.h>
#include <vesk/StopWatchBase.h>

namespace vesk {

/// Stopwatch for elapsed time, on the monotonic clock (`CLOCK_MONOTONIC`). Despite its name it does not use
/// the wall clock, so setting the date does not affect it.
///
///     vesk::RealtimeStopWatch watch(true);
///     ...
///     long long const ms = watch.peekRuntime(vesk::StopWatchBase::TimeUnit::MILLISECONDS);
class RealtimeStopWatch : public StopWatchBase {
public:
    /// @param auto_start  whether to `start` at once
    VESK_API_INLINE explicit RealtimeStopWatch(bool auto_start) : StopWatchBase(CLOCK_MONOTONIC) {
        if (auto_start) {
            start();
        }
    }
};

} // namespace vesk
