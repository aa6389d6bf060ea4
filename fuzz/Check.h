#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Aborts the run if a property does not hold. The fuzzer then saves the input.
inline void check(bool holds, char const* property, int line = __builtin_LINE()) {
    if (!holds) {
        fprintf(stderr, "line %d: does not hold: %s\n", line, property);
        abort();
    }
}

} // namespace fuzz
