#pragma once

#include <vesk/Directory.h>

namespace vesk::detail {

/// Opens a directory that the library reads for itself: as `Directory(path, bool)`, but close-on-exec from the start, so
/// that no program that another thread executes meanwhile inherits it.
Directory openPrivateDirectory(char const* path);

} // namespace vesk::detail
