#pragma once

#include <vesk/Export.h>
#include <vesk/StopWatchBase.h>

namespace vesk {

/// Stopwatch for the processor time of the calling thread (`CLOCK_THREAD_CPUTIME_ID`).
///
///     vesk::ThreadTimeStopWatch watch(true);
///     compute();
///     watch.stop();
///
/// Start it and stop it in the same thread. Each thread has its own clock: a difference between the clocks of
/// two threads has no meaning. If its seconds are negative, `std::GlobalErrorHandler::doAssert` is called.
class ThreadTimeStopWatch : public StopWatchBase {
public:
    /// @param auto_start  whether to `start` at once
    VESK_API_INLINE explicit ThreadTimeStopWatch(bool auto_start) : StopWatchBase(CLOCK_THREAD_CPUTIME_ID) {
        if (auto_start) {
            start();
        }
    }
};

} // namespace vesk
