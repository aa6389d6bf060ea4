#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <dirent.h>

namespace vesk {

/// The system objects of a `Directory`, for system calls that this library does not wrap:
///
///     unlinkat(directory.getHandle().fd, "core", 0);
///
/// A plain value that owns nothing. `Directory(DirectoryHandle const*)` takes ownership of the descriptor in
/// it.
struct DirectoryHandle {
    int32_t fd = -1;         ///< The directory's descriptor; -1 if there is none.
    DIR* dir = nullptr;      ///< The stream on `fd`, which owns the descriptor.
    dirent* entry = nullptr; ///< The current entry, valid until the next `Directory::next()` on the stream.
};

} // namespace vesk
