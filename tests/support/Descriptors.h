#pragma once

namespace support {

/// Returns the number of open descriptors of the process.
int countDescriptors();

} // namespace support
