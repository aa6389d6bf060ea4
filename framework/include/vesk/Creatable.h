#pragma once

#include <vesk/Export.h>

namespace vesk {

/// Base of the classes that create named system objects: `MsgQueueServer`, `SemaphoreCreator`,
/// `SharedMemoryServer`. It selects what happens if the name exists already, and whether `close` removes the
/// name.
///
///     vesk::MsgQueueServer server;
///     server.setUnlinkOnClose(true);
///     if (server.create("orders", 64, 10, vesk::Creatable::REPLACE)) { ... }
///
/// Names are global to the machine, and any process may create one first. Use `CREATE_NEW` or `REPLACE` for
/// an object with contents that matter. `OPEN_OR_CREATE` and `TRUNCATE` open an object even if another user
/// created it: its owner, permissions and limits stay as they are, and all processes that have it open keep
/// their access.
class Creatable {
public:
    /// What `create` does if an object of the same name exists.
    enum CreationStrategy : int {
        CREATE_NEW = 0, ///< Fails with `FileAccessErrorId::ALREADY_EXISTS`.
        /// Opens the object unchanged, even if another user created it. Use it only for names that no other
        /// user can create, or check the owner and the contents afterwards.
        OPEN_OR_CREATE = 1,
        /// Removes its name and creates a new object. Processes that have the old one open keep it.
        REPLACE = 2,
        TRUNCATE = 3, ///< Opens and empties it, even if another user created it. For shared memory only.
    };

    /// @{
    /// Selects whether `close` also removes the name from the system. Initially false: names exist for other
    /// processes, and they persist after their creator has ended.
    void setUnlinkOnClose(bool unlink) noexcept { unlink_on_close = unlink; }
    bool isUnlinkOnClose() const noexcept { return unlink_on_close; }
    /// @}

protected:
    constexpr Creatable() noexcept = default;
    ~Creatable() = default;

private:
    bool unlink_on_close = false;
};

} // namespace vesk
