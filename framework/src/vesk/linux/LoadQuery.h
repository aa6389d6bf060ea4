#pragma once

#include "vesk/common/Report.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>

namespace vesk::detail {

/// Helpers shared by the classes that take snapshots of /proc.

/// Reports a failed query. Returns true.
inline bool reportQuery(Place place, Chain chain = Chain::NEW) noexcept {
    report(place, chain, SysErrorId::QUERY_FAILED, SystemErrorText().get());
    return true;
}

/// Returns the time between two timestamps. `end` must be the later one.
inline double getElapsed(long long start, long long end) noexcept {
    return static_cast<double>(static_cast<unsigned long long>(end) - static_cast<unsigned long long>(start));
}

/// Limits a load to 0 through 100 percent: times that are counted in ticks can exceed the interval slightly.
/// NaN counts as idle.
inline double limitLoad(double percent) noexcept {
    if (!(percent > 0.0)) {
        return 0.0;
    }
    return percent > 100.0 ? 100.0 : percent;
}

} // namespace vesk::detail
