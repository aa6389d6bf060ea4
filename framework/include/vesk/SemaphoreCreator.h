#pragma once

#include <vesk/Creatable.h>
#include <vesk/Export.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SemaphoreBase.h>

namespace vesk {

/// Makes a semaphore that others find by its name.
///
///     vesk::SemaphoreCreator slots;
///     slots.setUnlinkOnClose(true);
///     if (slots.create("slots", 3, vesk::Creatable::REPLACE)) { ... }
///
/// The semaphore with its value stays in the system, also beyond the end of the process, until its name is removed and
/// everybody has closed it. With `isUnlinkOnClose()` the destructor removes the name, as `close` does.
///
/// Threads: see `SemaphoreBase`; `create` and `deleteName` are no more synchronised than `close`. The static `deleteName`
/// is for any thread.
class VESK_API SemaphoreCreator : public SemaphoreBase, public Creatable {
public:
    SemaphoreCreator() noexcept = default;

    /// Closes the semaphore as `close` does. A failure shows as a warning only.
    ~SemaphoreCreator() override;

    /// Makes a semaphore, or opens one (`sem_open`, repeated while a signal interrupts it). An open object is closed
    /// first. The mode is 0600: the semaphore is for processes of the same user.
    /// @param name      see `transformToIPCIdentifier`; the system may take fewer characters
    /// @param value     what it begins with. Of no meaning for a semaphore that exists
    /// @param strategy  what to do about a semaphore of this name; `TRUNCATE` is refused
    /// @return true on failure, and the object is closed. Besides the reports of `close`, `transformToIPCIdentifier`, and
    ///         of `deleteName` for `REPLACE`: `CommonErrorId::CONTRACT_BROKEN` for the strategy; with the system's name, `SysErrorId::PERMISSION_DENIED` with
    ///         `FileAccessErrorId::ACCESS_DENIED` on top without the right, 12 with 4 if the name exists, 2 with 0 if the name or the value
    ///         is not possible, 0 with 6 without descriptors, 10 with 9 without space, else 19 with 9
    bool create(char const* name, unsigned int value, Creatable::CreationStrategy strategy);

    /// Removes the name, if `isUnlinkOnClose()`, and lets go of the semaphore.
    /// @return true on failure: as `deleteName`, after which the semaphore is closed all the same, or as
    ///         `SemaphoreBase::close`
    bool close() override;

    /// Removes the name of this object's semaphore from the system (`sem_unlink`). Who has the semaphore open keeps it. A
    /// name that is gone already is no failure; neither is a closed object, which does nothing.
    /// @return true on failure: `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` on top without the right, else 19 with 9
    bool deleteName();

    /// The same for any name, see `transformToIPCIdentifier` for the reports about it.
    static bool deleteName(char const* name);

private:
    char name[IPC_NAME_SIZE] = {};
};

} // namespace vesk
