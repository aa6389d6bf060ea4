#pragma once

#include <vesk/Creatable.h>
#include <vesk/Export.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SharedMemoryBase.h>

namespace vesk {

/// The side of a shared memory that makes it and gives it its size and its name.
///
///     vesk::SharedMemoryServer shm;
///     shm.setUnlinkOnClose(true);
///     if (shm.create("samples", 65536, shm.REPLACE)) { ... }
///     auto const mapping = shm.addMapping(MemMapping::READ | MemMapping::WRITE, 65536);
///
/// Memory and name outlive the process unless the name is removed: `setUnlinkOnClose` has `close` and the destructor do
/// so. The memory itself goes with its last user. Another process opens it with `SharedMemoryClient`.
class VESK_API SharedMemoryServer : public SharedMemoryBase, public Creatable {
public:
    SharedMemoryServer() = default;

    /// Does what `close` does if the object is open, its name included. A failure shows as a warning only.
    ~SharedMemoryServer() override;

    /// Takes the mappings down, closes the memory, and before that removes its name if `isUnlinkOnClose` (also that of an
    /// object that is closed).
    /// @return true on failure: what `deleteName` or `SharedMemoryBase::close` reported. The second is done in any case
    bool close() override;

    /// Makes a piece of memory that its owner may read and write (`shm_open`, `ftruncate`, both repeated while a signal
    /// interrupts them), after closing the one that is open. It is open for both directions and filled with zeros.
    ///
    /// Reports, with `FileAccessError` and the system's name on top where a second id stands: `SysErrorId::PERMISSION_DENIED` and 3 without the
    /// right to, 12 and 4 if the name is taken, 6 for a name that the system cannot use, such as the empty one, 0 without
    /// descriptors, 15 and 7 without space, 16 without shared memory, 4 and 0 for a name that is too long for the
    /// system, else 19. Of the size: 8 if it is too large, else 10; the memory is closed again then.
    /// @param name      at most 254 characters, without "/"; see `transformToIPCIdentifier` for its reports
    /// @param size      in bytes, at most 2,147,483,647. Memory that is there keeps its size with `OPEN_OR_CREATE`, unless
    ///                  that is 0; in all other cases it gets this one
    /// @param strategy  what to do if the name is taken. Not checked: one that is none opens what is there, and gives it
    ///                  the new size
    /// @return true on failure
    bool create(char const* name, unsigned int size, CreationStrategy const& strategy);

    /// Removes the name of this object from the system (`shm_unlink`) and forgets it. Who has the memory open keeps it. A name
    /// that is gone already is a success, and so is having none.
    ///
    /// Reports `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` without the right to, and on top of them, or alone for anything else,
    /// `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED`.
    /// @return true on failure, the name being kept
    bool deleteName();

    /// The same for any name.
    /// @param name  as for `create`
    static bool deleteName(char const* name);

    /// The system's name of the memory, which begins with "/" and stays after `close`; empty if it was removed, and after
    /// a `create` that came to no memory.
    char const* getName() const noexcept { return name; }

private:
    bool openObject(CreationStrategy strategy);
    bool setSize(unsigned int size);

    char name[IPC_NAME_SIZE] = {};
};

} // namespace vesk
