#pragma once

#include <array>
#include <string>

namespace soak {

/// What the process uses of the system's resources at one moment.
struct Usage {
    struct Row {
        char const* name;
        unsigned long long amount;
        unsigned long long slack; ///< How much more at the end is no growth.
    };

    /// Measures. Waits for threads that have been joined and that the system still shows.
    static Usage measure(int expected_threads);

    std::array<Row, 7> rows;
};

/// Returns the number of threads of the process.
int countThreads();

/// Prints a table of both measurements. Returns whether something has grown.
bool hasGrown(Usage const& before, Usage const& after);

} // namespace soak
