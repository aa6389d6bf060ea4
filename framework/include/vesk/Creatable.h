#pragma once

#include <vesk/Export.h>

namespace vesk {

/// Base of the objects that put a name into the system: `MsgQueueServer`, `SemaphoreCreator`, `SharedMemoryServer`. It
/// tells what to do when the name is there already, and whether the name goes again with the object's `close`.
///
///     vesk::MsgQueueServer server;
///     server.setUnlinkOnClose(true);
///     if (server.create("orders", 64, 10, vesk::Creatable::REPLACE)) { ... }
///
/// Names belong to the whole machine, and any process may make one first. Use `CREATE_NEW` or `REPLACE` for an object whose
/// contents matter: `OPEN_OR_CREATE` and `TRUNCATE` take over an object that another user has made, with that user as its
/// owner, with the permissions and the limits that it was made with, and with all processes that have it open.
class Creatable {
public:
    /// What creating an object means for one of the same name.
    enum CreationStrategy : int {
        CREATE_NEW = 0, ///< It is in the way: `FileAccessErrorId::ALREADY_EXISTS`.
        /// It is opened as it stands, also if another user made it. Only for names that no other user can make, or whose
        /// owner and contents are checked afterwards.
        OPEN_OR_CREATE = 1,
        REPLACE = 2, ///< Its name is removed; processes that have it open keep it.
        TRUNCATE =
            3, ///< It is opened and emptied. Only shared memory has this. Takes over as `OPEN_OR_CREATE` does.
    };

    /// Whether `close` also removes the name from the system. At first it does not: names are there for others, and
    /// outlive their creator.
    void setUnlinkOnClose(bool unlink) noexcept { unlink_on_close = unlink; }
    bool isUnlinkOnClose() const noexcept { return unlink_on_close; }

protected:
    constexpr Creatable() noexcept = default;
    ~Creatable() = default;

private:
    bool unlink_on_close = false;
};

} // namespace vesk
