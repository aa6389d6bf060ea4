#pragma once

#include <filesystem>
#include <iterator>
#include <system_error>

namespace support {

/// Returns the number of open descriptors of the process.
inline int countDescriptors() {
    std::error_code error;
    std::filesystem::directory_iterator const entries("/proc/self/fd", error);
    return static_cast<int>(std::distance(begin(entries), end(entries))) -
        1; // Without that of the directory.
}

} // namespace support
