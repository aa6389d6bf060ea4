#pragma once

#include <vesk/loop/Result.h>

#include <iostream>
#include <utility>

namespace examples {

/// Keeps a watch of a loop, or reports why there is none. Returns true on failure.
template <typename Watch>
[[nodiscard]] bool keep(Watch& place, vesk::loop::Result<Watch> watch) {
    if (!watch) {
        std::cerr << watch.error() << '\n';
        return true;
    }
    place = std::move(*watch);
    return false;
}

} // namespace examples
