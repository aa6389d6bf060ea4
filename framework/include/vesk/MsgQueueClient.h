#pragma once

#include <vesk/Export.h>
#include <vesk/MsgQueueBase.h>

namespace vesk {

/// Opens a message queue that a `MsgQueueServer` has created.
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

    /// Opens an existing queue for reading and writing (`mq_open`, repeated while a signal interrupts it). An
    /// open object is closed first.
    /// @param name  see `transformToIPCIdentifier`
    /// @return true on failure; the object is closed then, unless closing it failed. The reports are those of
    ///         `close` and `transformToIPCIdentifier`; `SysErrorId::INVALID_PATH` with
    ///         `FileAccessErrorId::BAD_PATH` on top if there is no such queue;
    ///         `SysErrorId::INVALID_PARAMETER` with `FileAccessErrorId::ACCESS_DENIED` without the
    ///         permission; `SysErrorId::PATH_TOO_LONG` with `FileAccessErrorId::BAD_PATH` if the name is too
    ///         long for the system; `SysErrorId::RESOURCES_EXHAUSTED` without descriptors; else
    ///         `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool attach(char const* name);
};

} // namespace vesk
