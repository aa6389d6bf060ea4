#pragma once

#include "vesk/common/Report.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>

namespace vesk::detail {

/// What snapshots of /proc have in common.

/// Reports that something could not be found out. Gives true.
inline bool reportQuery(Place place, Chain chain = Chain::NEW) noexcept {
    report(place, chain, SysErrorId::QUERY_FAILED, SystemErrorText().get());
    return true;
}

/// The time between two timestamps, the second of which is the later one.
inline double getElapsed(long long start, long long end) noexcept {
    return static_cast<double>(static_cast<unsigned long long>(end) - static_cast<unsigned long long>(start));
}

/// A load in percent as callers get it: times that are counted in ticks overshoot a little. What is no number counts
/// as idle.
inline double limitLoad(double percent) noexcept {
    if (!(percent > 0.0)) {
        return 0.0;
    }
    return percent > 100.0 ? 100.0 : percent;
}

} // namespace vesk::detail
