#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Ends the run with the input that broke a property.
inline void check(bool holds, char const* property, int line = __builtin_LINE()) {
    if (!holds) {
        fprintf(stderr, "line %d: does not hold: %s\n", line, property);
        abort();
    }
}

} // namespace fuzz
