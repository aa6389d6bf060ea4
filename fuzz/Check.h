#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Aborts if a property does not hold, so that the fuzzer saves the input that violates it.
inline void check(bool holds, char const* property, int line = __builtin_LINE()) {
    if (!holds) {
        fprintf(stderr, "line %d: does not hold: %s\n", line, property);
        abort();
    }
}

} // namespace fuzz
