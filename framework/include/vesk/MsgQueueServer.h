#pragma once

#include <vesk/Creatable.h>
#include <vesk/Export.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/MsgQueueBase.h>

namespace vesk {

/// Creates a message queue that other processes open by its name.
///
///     vesk::MsgQueueServer server;
///     if (server.create("orders", 64, 10, vesk::Creatable::REPLACE)) { ... }
///     char text[64];
///     vesk::MsgQueueBase::Message message{text, sizeof text, 0};
///     while (!server.readMsg(&message)) { ... }
///
/// The queue and its messages persist after the process has ended, until the name is removed and all
/// processes have closed the queue. The destructor never removes the name, whatever `isUnlinkOnClose()`
/// returns. Only `close`, `deleteName`, and `create` on an open object, which it closes, remove the name.
///
/// Threads: see `MsgQueueBase`. The static `deleteName` may be called from any thread.
class VESK_API MsgQueueServer : public MsgQueueBase, public Creatable {
public:
    MsgQueueServer() noexcept = default;
    ~MsgQueueServer() override;

    /// Creates or opens a queue for reading and writing (`mq_open`, repeated while a signal interrupts it).
    /// An open object is closed first. The mode is 0600: only processes of the same user have access.
    /// @param name      see `transformToIPCIdentifier`
    /// @param msg_size  maximum size of a message in bytes, at least 1; ignored for an existing queue
    /// @param max_msgs  maximum number of messages in the queue, at least 1; ignored for an existing queue
    /// @param strategy  what to do if a queue of this name exists; `TRUNCATE` is rejected
    /// @return true on failure; the object is closed then, unless closing it failed. The reports are those of
    ///         `close`, `transformToIPCIdentifier` and, for `REPLACE`, `deleteName`;
    ///         `CommonErrorId::CONTRACT_BROKEN` for an unsupported strategy; `SysErrorId::PERMISSION_DENIED`
    ///         with `FileAccessErrorId::ACCESS_DENIED` on top without the permission;
    ///         `SysErrorId::FILE_EXISTS` with `FileAccessErrorId::ALREADY_EXISTS` if the name exists;
    ///         `SysErrorId::NO_SPACE` with `FileAccessErrorId::NO_SPACE` without space;
    ///         `SysErrorId::PATH_TOO_LONG` with `FileAccessErrorId::BAD_PATH` if the name is too long for the
    ///         system; `SysErrorId::INVALID_PARAMETER` if `msg_size` or `max_msgs` is invalid or too large;
    ///         `SysErrorId::RESOURCES_EXHAUSTED` without descriptors or if the user's limit is reached; else
    ///         `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool create(
        char const* name, unsigned int msg_size, unsigned int max_msgs,
        Creatable::CreationStrategy const& strategy);

    /// Removes the name if `isUnlinkOnClose()`, and closes the queue.
    /// @return true on failure: as for `deleteName`, after which the queue is closed nevertheless, or as for
    ///         `MsgQueueBase::close`
    [[nodiscard]] bool close() override;

    /// Removes the name of this object's queue from the system (`mq_unlink`), also after the queue was
    /// closed. Processes that have the queue open keep it. Succeeds if the name does not exist, and if the
    /// object has no name.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED` on top;
    ///         without the permission, `SysErrorId::PERMISSION_DENIED` with
    ///         `FileAccessErrorId::ACCESS_DENIED` below these
    [[nodiscard]] bool deleteName();

    /// Removes any name from the system; see `transformToIPCIdentifier` for the reports about the name.
    [[nodiscard]] static bool deleteName(char const* name);

private:
    bool open(int flags, unsigned int msg_size, unsigned int max_msgs, bool replace);

    char name[IPC_NAME_SIZE] = {};
};

} // namespace vesk
