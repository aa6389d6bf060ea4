#pragma once

#include <unistd.h>

namespace vesk::detail {

/// Returns whether a descriptor is a standard channel, which belongs to the process and not to one object.
constexpr bool isStandardChannel(int fd) noexcept {
    return fd >= STDIN_FILENO && fd <= STDERR_FILENO;
}

} // namespace vesk::detail
