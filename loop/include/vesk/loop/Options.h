#pragma once

#include <vesk/loop/Export.h>

namespace vesk::loop {

/// The order of the callbacks of one round. A round calls each callback that was due at its begin, so that no
/// priority starves another one.
enum class Priority : unsigned char { HIGH, NORMAL, LOW };

/// When a descriptor calls back: as long as it is ready, or each time it becomes ready.
enum class Trigger : unsigned char { LEVEL, EDGE };

/// Where a callback was given to a loop.
struct Place {
    /// The source file.
    char const* file;
    /// The line.
    int line;
};

/// How a callback is called. A priority converts to it.
struct Options {
    /// @param its_priority  when it is called within a round
    /// @param file, line    the place of the caller, which needs not be given
    Options(
        Priority its_priority = Priority::NORMAL, char const* file = __builtin_FILE(),
        int line = __builtin_LINE()) noexcept
        : priority(its_priority), place{file, line} {}

    /// When it is called within a round.
    Priority priority;
    /// What a `Watchdog` reports.
    Place place;
};

} // namespace vesk::loop
