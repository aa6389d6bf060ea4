#pragma once

#include <vesk/Export.h>
#include <vesk/SharedMemoryBase.h>

namespace vesk {

/// Opens shared memory that a `SharedMemoryServer` has created.
///
///     vesk::SharedMemoryClient shm;
///     if (shm.attach("samples", MemMapping::READ)) { ... }
///     auto const mapping = shm.addMapping(MemMapping::READ, shm.getSize());
///
/// It does not keep the name, and never removes it.
class VESK_API SharedMemoryClient : public SharedMemoryBase {
public:
    SharedMemoryClient() = default;

    /// Opens existing shared memory (`shm_open`, repeated while a signal interrupts it). An open object is
    /// closed first.
    ///
    /// The reports are those of `close` and `transformToIPCIdentifier`; `SysErrorId::INVALID_PATH` with
    /// `FileAccessErrorId::BAD_PATH` on top if there is no memory of this name;
    /// `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` without the permission;
    /// `SysErrorId::NOT_IMPLEMENTED` if the name is not usable; `SysErrorId::RESOURCES_EXHAUSTED` without
    /// descriptors; `SysErrorId::PATH_TOO_LONG` with `FileAccessErrorId::BAD_PATH` if the name is too long
    /// for the system; else `SysErrorId::UNCLASSIFIED`. The reports of `FileAccessError` show the system's
    /// name.
    /// @param name   the name that was given to `SharedMemoryServer::create`, at most 254 characters, without
    ///               "/"; see `transformToIPCIdentifier`
    /// @param flags  with `WRITE` the memory is opened for reading and writing, otherwise for reading only.
    ///               Its mappings cannot have more access than that
    /// @return true on failure
    [[nodiscard]] bool attach(char const* name, MemMapping::MemAccessFlags const& flags);
};

} // namespace vesk
