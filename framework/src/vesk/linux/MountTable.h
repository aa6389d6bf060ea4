#pragma once

#include <list>
#include <string>

namespace vesk::detail {

/// Returns the mount points of the calling process in the order of /proc/mounts, empty if that cannot be
/// opened; see `FileSys::getMountPoints`.
std::list<std::string> readMountPoints();

} // namespace vesk::detail
