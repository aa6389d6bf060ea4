#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <mqueue.h>

namespace vesk {

/// Reading and writing of a message queue, which carries messages between processes: whole, and those of the highest
/// priority first. A `MsgQueueServer` makes a queue under a name, a `MsgQueueClient` attaches to it; from then on both are
/// alike.
///
///     vesk::MsgQueueClient client;
///     char text[64];
///     vesk::MsgQueueBase::Message message{text, sizeof text, 0};
///     if (client.attach("orders") || client.readMsg(&message)) { ... }
///     use(text, message.size);
///
/// There is no lock: any number of threads may read and write on one object, but not while it is created, attached or
/// closed. The calls that wait hold nothing.
class VESK_API MsgQueueBase : private tarnbase::NonCopyable {
public:
    struct Message {
        char* buffer;          ///< The content.
        unsigned int size;     ///< Its bytes. To a read: the room at `buffer`.
        unsigned int priority; ///< From `getMinPrio()` to one below `getMaxPrio()`, the highest.
    };

    /// Closes the queue. A failure shows as a warning only. The name stays in the system.
    virtual ~MsgQueueBase();

    /// Closes the queue (`mq_close`, repeated while a signal interrupts it). On a closed object it does nothing, with
    /// success.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, on top of what is pending. The object stays open, unless the system does
    ///         not know its descriptor
    virtual bool close();

    /// Whether the queue is open.
    bool isValid() const noexcept { return queue != CLOSED; }

    /// Takes the oldest of the messages of the highest priority, and waits for one if need be (`mq_receive`, repeated while
    /// a signal interrupts it).
    /// @param message  `size` is the room at `buffer`, at least `maxMsgSize()`, and is set to the bytes received. It is
    ///                 untouched on failure
    /// @return true on failure: `SysErrorId::INVALID_PARAMETER` if the buffer is too small, whatever the message's size; else 10, also on a
    ///         closed object
    bool readMsg(Message* message);

    /// Puts a message into the queue, and waits for room if need be (`mq_send`, repeated while a signal interrupts it).
    /// @return true on failure: `SysErrorId::INVALID_PARAMETER` if it is larger than `maxMsgSize()`; else 10, also for a priority that is too
    ///         high and on a closed object
    bool writeMsg(Message const* message);

    /// As `readMsg`, but waits no longer than `timeout` milliseconds (`mq_timedreceive`). The time runs on the wall clock:
    /// setting that moves the end. With 0, or less, it does not wait.
    /// @return 0 received; 1 timed out, nothing is reported; -1 on failure: as `readMsg`, and `SysErrorId::UNCLASSIFIED` if the clock
    ///         cannot be read
    signed char readMsgTimeout(Message* message, long long const& timeout);

    /// As `writeMsg`, but waits no longer than `timeout` milliseconds (`mq_timedsend`), counted as in `readMsgTimeout`.
    /// @return 0 sent; 1 timed out, nothing is reported, or failed in the system: then `SysErrorId::SPOILED_INTEGRITY` is pending, and only
    ///         the error store tells the two apart; -1 on failure: `SysErrorId::INVALID_PARAMETER` if the message is too large, 19 if the
    ///         clock cannot be read
    signed char writeMsgTimeout(Message const* message, long long const& timeout);

    /// The lowest priority, 0.
    VESK_API_INLINE static int getMinPrio() noexcept { return 0; }
    /// One above the highest priority that the system takes (`sysconf`).
    static int getMaxPrio() noexcept;

    /// How large a message of this queue may be, in bytes (`mq_getattr`); 0 on failure, with `SysErrorId::SPOILED_INTEGRITY`.
    unsigned int maxMsgSize() const;
    /// How many messages the queue has room for; 0 on failure, with `SysErrorId::SPOILED_INTEGRITY`.
    unsigned int maxMsgCount() const;
    /// How many messages wait in the queue; 0 on failure, with `SysErrorId::SPOILED_INTEGRITY`.
    unsigned int availMsgs() const;

    /// How large a message the system allows to processes without privileges, in bytes, from
    /// "/proc/sys/fs/mqueue/msgsize_max"; 0 if that cannot be had. Only a failed read of it is reported, as streams do.
    static unsigned int systemMaxMsgSize();
    /// How many messages in a queue the system allows to processes without privileges, from
    /// "/proc/sys/fs/mqueue/msg_max"; 0 as above.
    static unsigned int systemMaxMsgCount();

protected:
    static constexpr mqd_t CLOSED = -1;

    MsgQueueBase() noexcept = default;

    mqd_t queue = CLOSED;
};

} // namespace vesk
