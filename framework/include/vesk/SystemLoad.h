#pragma once

#include <vesk/Export.h>

namespace vesk {

/// A snapshot of how long the whole system has been idle. Two of them, taken apart in time, tell how busy it was in
/// between:
///
///     vesk::SystemLoad start;
///     vesk::SystemLoad end;
///     if (!start.sample() && !vesk::Time::sleep(1000) && !end.sample()) {
///         double const percent = vesk::SystemLoad::getCpuLoad(start, end);
///     }
///
/// An object is a plain value without a lock: threads use objects of their own.
class VESK_API SystemLoad {
public:
    /// Takes the snapshot (`fopen`, `fscanf` of "/proc/uptime"). Does not block. Works in every locale.
    /// @return true on failure, `valid` is false then: `SysErrorId::QUERY_FAILED`, on top of the report of `Time::getTimestamp` if it
    ///         was the clock that failed
    bool sample();

    /// How busy the system was between two snapshots, in percent of what all processors can do. As the moments are read
    /// from the wall clock, setting that in between spoils the result.
    /// @return 0.0 to 100.0, and 0.0 also if `end` is not later than `start`; -1.0 on failure: `SysErrorId::INVALID_PARAMETER` with "start"
    ///         or "end", a snapshot that is not valid
    static double getCpuLoad(SystemLoad const& start, SystemLoad const& end);

    bool valid = false;      ///< The last `sample` succeeded.
    long long timestamp = 0; ///< When it was taken, `Time::getTimestamp`, in milliseconds.
    double idle = 0.0; ///< How long a processor has been idle since the boot on the average, in milliseconds.
};

} // namespace vesk
