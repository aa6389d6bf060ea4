#pragma once

namespace support {

/// How many descriptors the process has open.
int countDescriptors();

} // namespace support
