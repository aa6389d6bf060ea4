#pragma once

#include <vesk/Export.h>

namespace vesk {

/// The interface of a file system in user space. This system has no implementation of it.
class IFileSystem;

/// A file system in user space, which this system does not support. A program that can work without one calls
/// `mount` and checks the result:
///
///     vesk::UserFS file_system(false);
///     if (file_system.mount("/media/archive", archive)) { std::ErrorStorage::ack(); ... }
///
/// No operation blocks, locks or allocates. Any thread may call any operation.
class VESK_API UserFS {
public:
    /// Does nothing; the argument has no effect.
    VESK_API_INLINE explicit UserFS(bool) noexcept {}

    /// Always fails, with `SysErrorId::NOT_IMPLEMENTED` and the text "No FUSE available". Both arguments are
    /// ignored.
    /// @return true
    [[nodiscard]] bool mount(char const* path, IFileSystem* file_system);

    /// Does nothing.
    /// @return false
    VESK_API_INLINE bool unmount() noexcept { return false; }

    /// Does nothing. It exists as a step of the library's start-up.
    /// @return false
    VESK_API_INLINE static bool init() noexcept { return false; }
};

} // namespace vesk
