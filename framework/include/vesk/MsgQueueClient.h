#pragma once

#include <vesk/Export.h>
#include <vesk/MsgQueueBase.h>

namespace vesk {

/// Attaches to a message queue that a `MsgQueueServer` has made.
///
///     vesk::MsgQueueClient client;
///     char text[] = "tea";
///     vesk::MsgQueueBase::Message const message{text, sizeof text, 0};
///     if (client.attach("orders") || client.writeMsg(&message)) { ... }
///
/// Threads: see `MsgQueueBase`.
class VESK_API MsgQueueClient : public MsgQueueBase {
public:
    MsgQueueClient() noexcept = default;

    /// Opens a queue that exists, for reading and writing (`mq_open`, repeated while a signal interrupts it). An open
    /// object is closed first.
    /// @param name  see `transformToIPCIdentifier`
    /// @return true on failure, and the object is closed unless closing it failed. Besides the reports of `close` and
    ///         `transformToIPCIdentifier`: `SysErrorId::INVALID_PATH` with `FileAccessErrorId::BAD_PATH` on top if there is no such queue, 8 with 3
    ///         without the right, 4 with 0 if the name is too long; `SysErrorId::RESOURCES_EXHAUSTED` without descriptors, else 19
    bool attach(char const* name);
};

} // namespace vesk
