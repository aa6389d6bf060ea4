#pragma once

#include <vesk/Export.h>
#include <vesk/SharedMemoryBase.h>

namespace vesk {

/// The side of a shared memory that comes to what a `SharedMemoryServer` has made.
///
///     vesk::SharedMemoryClient shm;
///     if (shm.attach("samples", MemMapping::READ)) { ... }
///     auto const mapping = shm.addMapping(MemMapping::READ, shm.getSize());
///
/// It does not keep the name, and never removes it.
class VESK_API SharedMemoryClient : public SharedMemoryBase {
public:
    SharedMemoryClient() = default;

    /// Opens a shared memory (`shm_open`, repeated while a signal interrupts it), after closing the one that is open.
    ///
    /// Reports, with `FileAccessError` and the system's name on top where a second id stands: `SysErrorId::INVALID_PATH` and 0 if there is
    /// none of this name, 7 and 3 without the right to, 6 for a name that the system cannot use, 0 without descriptors,
    /// 4 and 0 for a name that is too long for the system, else 19.
    /// @param name   as its server gave it, at most 254 characters, without "/"; see `transformToIPCIdentifier`
    /// @param flags  with `WRITE` it is opened for both directions, without for reading only; a mapping cannot have more
    /// @return true on failure
    bool attach(char const* name, MemMapping::MemAccessFlags const& flags);
};

} // namespace vesk
