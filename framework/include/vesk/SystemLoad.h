#pragma once

#include <vesk/Export.h>

namespace vesk {

/// A snapshot of the time that the whole system has been idle. Two snapshots give the load of the system
/// between them:
///
///     vesk::SystemLoad start;
///     vesk::SystemLoad end;
///     if (!start.sample() && !vesk::Time::sleep(1000) && !end.sample()) {
///         double const percent = vesk::SystemLoad::getCpuLoad(start, end);
///     }
///
/// An object is a plain value without a lock: each thread must use its own objects.
class VESK_API SystemLoad {
public:
    /// Takes the snapshot (`fopen`, `fscanf` of "/proc/uptime"). Does not block. Works in every locale.
    /// @return true on failure, with `valid` set to false: `SysErrorId::QUERY_FAILED`, on top of the report
    ///         of `Time::getTimestamp` if the clock cannot be read
    [[nodiscard]] bool sample();

    /// Returns the load of the system between two snapshots, as a percentage of the capacity of all
    /// processors. The timestamps are read from the wall clock: setting the clock between the snapshots
    /// falsifies the result.
    /// @return 0.0 to 100.0, and 0.0 also if `end` is not later than `start`; -1.0 on failure:
    ///         `SysErrorId::INVALID_PARAMETER` with "start" or "end" if that snapshot is not valid
    static double getCpuLoad(SystemLoad const& start, SystemLoad const& end);

    bool valid = false;      ///< Whether the last `sample` succeeded.
    long long timestamp = 0; ///< Time of the snapshot (`Time::getTimestamp`), in milliseconds.
    double idle = 0.0;       ///< Idle time since boot, averaged over all processors, in milliseconds.
};

} // namespace vesk
