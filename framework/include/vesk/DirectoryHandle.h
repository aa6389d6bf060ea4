#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <dirent.h>

namespace vesk {

/// What a `Directory` stands on in the system, for calls that this library does not have:
///
///     unlinkat(directory.getHandle().fd, "core", 0);
///
/// A plain value that owns nothing. A `Directory` is made from one to take over its descriptor.
struct DirectoryHandle {
    int32_t fd = -1;         ///< The directory's descriptor; -1 if there is none.
    DIR* dir = nullptr;      ///< The stream on `fd`, which owns the descriptor.
    dirent* entry = nullptr; ///< The current entry, valid until the next `Directory::next()` on the stream.
};

} // namespace vesk
