#pragma once

#include <cstdlib>

namespace support {

/// Returns whether the libraries count what they run. Their code and their use of memory differ then.
inline bool isCounting() {
    return getenv("LLVM_PROFILE_FILE") != nullptr;
}

} // namespace support
