#pragma once

#include <vesk/Creatable.h>
#include <vesk/Export.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/MsgQueueBase.h>

namespace vesk {

/// Makes a message queue that others find by its name.
///
///     vesk::MsgQueueServer server;
///     if (server.create("orders", 64, 10, vesk::Creatable::REPLACE)) { ... }
///     char text[64];
///     vesk::MsgQueueBase::Message message{text, sizeof text, 0};
///     while (!server.readMsg(&message)) { ... }
///
/// The queue with its messages stays in the system, also beyond the end of the process, until its name is removed and
/// everybody has closed it. The destructor never removes the name, whatever `isUnlinkOnClose()` says: only `close` does
/// that, `create` on an open object, which closes it, and `deleteName`.
///
/// Threads: see `MsgQueueBase`. The static `deleteName` is for any thread.
class VESK_API MsgQueueServer : public MsgQueueBase, public Creatable {
public:
    MsgQueueServer() noexcept = default;
    ~MsgQueueServer() override;

    /// Makes a queue, or opens one, for reading and writing (`mq_open`, repeated while a signal interrupts it). An open
    /// object is closed first. The mode is 0600: the queue is for processes of the same user.
    /// @param name      see `transformToIPCIdentifier`
    /// @param msg_size  how large a message may be, in bytes; from 1 on. Of no meaning for a queue that exists
    /// @param max_msgs  how many messages the queue is to hold; from 1 on. Of no meaning for a queue that exists
    /// @param strategy  what to do about a queue of this name; `TRUNCATE` is refused
    /// @return true on failure, and the object is closed unless closing it failed. Besides the reports of `close`,
    ///         `transformToIPCIdentifier`, and of `deleteName` for `REPLACE`: `CommonErrorId::CONTRACT_BROKEN` for the strategy; `SysErrorId::PERMISSION_DENIED`
    ///         with `FileAccessErrorId::ACCESS_DENIED` on top without the right, 12 with 4 if the name exists, 15 with 7 without space, 4
    ///         with 0 if the name is too long; `SysErrorId::INVALID_PARAMETER` for a wrong or too large `msg_size` or `max_msgs`, 0 without
    ///         descriptors or with the user's limit reached, else 19
    bool create(
        char const* name, unsigned int msg_size, unsigned int max_msgs,
        Creatable::CreationStrategy const& strategy);

    /// Removes the name, if `isUnlinkOnClose()`, and closes the queue.
    /// @return true on failure: as `deleteName`, after which the queue is closed all the same, or as `MsgQueueBase::close`
    bool close() override;

    /// Removes the name of the queue that this object made from the system (`mq_unlink`); also after it was closed. Who has
    /// the queue open keeps it. A name that is gone already is no failure; neither is an object that has none.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED` on top; without the right, below these, `SysErrorId::PERMISSION_DENIED`
    ///         with `FileAccessErrorId::ACCESS_DENIED` on top
    bool deleteName();

    /// The same for any name, see `transformToIPCIdentifier` for the reports about it.
    static bool deleteName(char const* name);

private:
    bool open(int flags, unsigned int msg_size, unsigned int max_msgs, bool replace);

    char name[IPC_NAME_SIZE] = {};
};

} // namespace vesk
