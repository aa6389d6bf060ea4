#pragma once

#include <vesk/Export.h>
#include <vesk/StopWatchBase.h>

namespace vesk {

/// Measures the time that passes, on the monotonic clock (`CLOCK_MONOTONIC`): in spite of its name not on the wall
/// clock, so setting the date does not disturb it.
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
