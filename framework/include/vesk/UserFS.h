#pragma once

#include <vesk/Export.h>

namespace vesk {

/// What a file system in user space would have to bring. There is none on this system.
class IFileSystem;

/// A file system in user space. This system has none: whoever can do with or without one asks here, and is told so.
///
///     vesk::UserFS file_system(false);
///     if (file_system.mount("/media/archive", archive)) { std::ErrorStorage::ack(); ... }
///
/// Nothing blocks, locks or allocates; all may be called from any thread.
class VESK_API UserFS {
public:
    /// Does nothing; the argument has no effect.
    VESK_API_INLINE explicit UserFS(bool) noexcept {}

    /// Always fails, with `SysErrorId::NOT_IMPLEMENTED` and the text "No FUSE available". Neither argument is looked at.
    /// @return true
    bool mount(char const* path, IFileSystem* file_system);

    /// Does nothing.
    /// @return false
    VESK_API_INLINE bool unmount() noexcept { return false; }

    /// A step of the library's start-up, in which there is nothing to do.
    /// @return false
    VESK_API_INLINE static bool init() noexcept { return false; }
};

} // namespace vesk
