#pragma once

#include <vesk/Export.h>
#include <vesk/StopWatchBase.h>

namespace vesk {

/// Measures the processor time of the calling thread (`CLOCK_THREAD_CPUTIME_ID`).
///
///     vesk::ThreadTimeStopWatch watch(true);
///     compute();
///     watch.stop();
///
/// Start it and stop it in the same thread. Each thread has a clock of its own: what lies between the clocks of two
/// threads means nothing, and may even be below 0, which goes to `std::GlobalErrorHandler::doAssert`.
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
