#pragma once

#include <vesk/Directory.h>

namespace vesk::detail {

/// Opens a directory for the library's own use. Works as `Directory(path, bool)`, but the descriptor is
/// close-on-exec from the start, so that a program that another thread executes meanwhile does not inherit
/// it.
Directory openPrivateDirectory(char const* path);

} // namespace vesk::detail
