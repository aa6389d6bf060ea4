#pragma once

#include <vesk/Creatable.h>
#include <vesk/Export.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SemaphoreBase.h>

namespace vesk {

/// Creates a semaphore that other processes open by its name.
///
///     vesk::SemaphoreCreator slots;
///     slots.setUnlinkOnClose(true);
///     if (slots.create("slots", 3, vesk::Creatable::REPLACE)) { ... }
///
/// The semaphore and its value persist after the process has ended, until the name is removed and all
/// processes have closed the semaphore. With `isUnlinkOnClose()` the destructor removes the name, as `close`
/// does.
///
/// Threads: see `SemaphoreBase`. Like `close`, `create` and `deleteName` are not synchronized with other
/// calls. The static `deleteName` may be called from any thread.
class VESK_API SemaphoreCreator : public SemaphoreBase, public Creatable {
public:
    SemaphoreCreator() noexcept = default;

    /// Closes the semaphore as `close` does. A failure gives only a warning of `std::GlobalErrorHandler`.
    ~SemaphoreCreator() override;

    /// Creates or opens a semaphore (`sem_open`, repeated while a signal interrupts it). An open object is
    /// closed first. The mode is 0600: only processes of the same user have access.
    /// @param name      see `transformToIPCIdentifier`; the system may permit fewer characters
    /// @param value     initial value; ignored for an existing semaphore
    /// @param strategy  what to do if a semaphore of this name exists; `TRUNCATE` is rejected
    /// @return true on failure; the object is closed then. The reports are those of `close`,
    ///         `transformToIPCIdentifier` and, for `REPLACE`, `deleteName`; `CommonErrorId::CONTRACT_BROKEN`
    ///         for an unsupported strategy; `SysErrorId::PERMISSION_DENIED` with
    ///         `FileAccessErrorId::ACCESS_DENIED` on top without the permission; `SysErrorId::FILE_EXISTS`
    ///         with `FileAccessErrorId::ALREADY_EXISTS` if the name exists; `SysErrorId::INVALID_PATH` with
    ///         `FileAccessErrorId::BAD_PATH` if the name or the value is not usable;
    ///         `SysErrorId::RESOURCES_EXHAUSTED` with `FileAccessErrorId::NO_DESCRIPTOR` without descriptors;
    ///         `SysErrorId::SPOILED_INTEGRITY` with `FileAccessErrorId::UNCLASSIFIED` without space; else
    ///         `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED`. The reports of
    ///         `FileAccessError` show the system's name
    [[nodiscard]] bool create(char const* name, unsigned int value, Creatable::CreationStrategy strategy);

    /// Removes the name if `isUnlinkOnClose()`, and closes the semaphore.
    /// @return true on failure: as for `deleteName`, after which the semaphore is closed nevertheless, or as
    ///         for `SemaphoreBase::close`
    [[nodiscard]] bool close() override;

    /// Removes the name of this object's semaphore from the system (`sem_unlink`). Processes that have the
    /// semaphore open keep it. Succeeds if the name does not exist. Does nothing, with success, on a closed
    /// object.
    /// @return true on failure: `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` on
    ///         top without the permission, else `SysErrorId::UNCLASSIFIED` with
    ///         `FileAccessErrorId::UNCLASSIFIED`
    [[nodiscard]] bool deleteName();

    /// Removes any name from the system; see `transformToIPCIdentifier` for the reports about the name.
    [[nodiscard]] static bool deleteName(char const* name);

private:
    char name[IPC_NAME_SIZE] = {};
};

} // namespace vesk
