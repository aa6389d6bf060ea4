#pragma once

#include <vesk/Creatable.h>
#include <vesk/Export.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SharedMemoryBase.h>

namespace vesk {

/// Creates shared memory with a size and a name.
///
///     vesk::SharedMemoryServer shm;
///     shm.setUnlinkOnClose(true);
///     if (shm.create("samples", 65536, shm.REPLACE)) { ... }
///     auto const mapping = shm.addMapping(MemMapping::READ | MemMapping::WRITE, 65536);
///
/// Memory and name persist after the process has ended, unless the name is removed. With
/// `setUnlinkOnClose(true)`, `close` and the destructor remove it. The memory is freed when its last user has
/// closed it. Another process opens it with `SharedMemoryClient`.
class VESK_API SharedMemoryServer : public SharedMemoryBase, public Creatable {
public:
    SharedMemoryServer() = default;

    /// Closes an open object as `close` does, including its name. A failure gives only a warning of
    /// `std::GlobalErrorHandler`.
    ~SharedMemoryServer() override;

    /// Removes the name if `isUnlinkOnClose()`, also on a closed object. Then removes the mappings and closes
    /// the memory.
    /// @return true on failure: as for `deleteName`, after which the memory is closed nevertheless, or as for
    ///         `SharedMemoryBase::close`
    [[nodiscard]] bool close() override;

    /// Creates or opens shared memory for reading and writing (`shm_open`, `ftruncate`, both repeated while a
    /// signal interrupts them). An open object is closed first. The mode is 0600: only processes of the same
    /// user have access. New memory is filled with zeros.
    ///
    /// The system reserves no pages: where the file system of the shared memory ("/dev/shm") is full, `create` and the
    /// mapping succeed, and `SIGBUS` ends a process that writes to a page for which there is no room.
    ///
    /// The reports are those of `close`, `transformToIPCIdentifier` and, for `REPLACE`, `deleteName`;
    /// `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` on top without the permission;
    /// `SysErrorId::FILE_EXISTS` with `FileAccessErrorId::ALREADY_EXISTS` if the name exists;
    /// `SysErrorId::NOT_IMPLEMENTED` if the name is not usable, such as the empty one;
    /// `SysErrorId::RESOURCES_EXHAUSTED` without descriptors; `SysErrorId::NO_SPACE` with
    /// `FileAccessErrorId::NO_SPACE` without space; `SysErrorId::NO_DEVICE` if the system has no shared
    /// memory; `SysErrorId::PATH_TOO_LONG` with `FileAccessErrorId::BAD_PATH` if the name is too long for the
    /// system; else `SysErrorId::UNCLASSIFIED`. The reports of `FileAccessError` show the system's name.
    ///
    /// If the size cannot be set, reports `SysErrorId::INVALID_PARAMETER` if it is too large, else
    /// `SysErrorId::SPOILED_INTEGRITY`, and closes the object as `close` does.
    /// @param name      at most 254 characters, without "/"; see `transformToIPCIdentifier`
    /// @param size      in bytes, at most 2,147,483,647. With `OPEN_OR_CREATE`, existing memory keeps its
    ///                  size unless that is 0. In all other cases the memory gets this size
    /// @param strategy  what to do if the name exists. Not checked: an unknown value opens or creates the
    ///                  memory, and sets the size
    /// @return true on failure
    [[nodiscard]] bool create(char const* name, unsigned int size, CreationStrategy const& strategy);

    /// Removes the name of this object from the system (`shm_unlink`) and clears it. Processes that have the
    /// memory open keep it. Succeeds if the name does not exist, and if the object has no name.
    ///
    /// Reports `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED`; without the permission,
    /// `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` below these.
    /// @return true on failure, with the name kept
    [[nodiscard]] bool deleteName();

    /// Removes any name from the system.
    /// @param name  as for `create`
    [[nodiscard]] static bool deleteName(char const* name);

    /// Returns the system's name of the memory, which begins with "/". It is kept after `close`. It is empty
    /// after the name was removed, and after a `create` that could not open the memory.
    char const* getName() const noexcept { return name; }

private:
    bool openObject(CreationStrategy strategy);
    bool setSize(unsigned int size);

    char name[IPC_NAME_SIZE] = {};
};

} // namespace vesk
