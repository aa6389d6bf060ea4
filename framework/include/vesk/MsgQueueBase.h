#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <mqueue.h>

namespace vesk {

/// Read and write access to a message queue, which carries whole messages between processes, ordered by
/// priority. A `MsgQueueServer` creates a queue with a name, and a `MsgQueueClient` opens it. Afterwards both
/// behave in the same way.
///
///     vesk::MsgQueueClient client;
///     char text[64];
///     vesk::MsgQueueBase::Message message{text, sizeof text, 0};
///     if (client.attach("orders") || client.readMsg(&message)) { ... }
///     use(text, message.size);
///
/// There is no lock: any number of threads may read and write on one object, but not while it is created,
/// attached or closed. The blocking calls hold no lock.
class VESK_API MsgQueueBase : private tarnbase::NonCopyable {
public:
    /// A message of a queue.
    struct Message {
        char* buffer;          ///< The content.
        unsigned int size;     ///< Its size in bytes. Input of a read: the size of `buffer`.
        unsigned int priority; ///< From `getMinPrio()` to `getMaxPrio()` - 1, which is the highest.
    };

    /// Closes the queue. A failure gives only a warning of `std::GlobalErrorHandler`. The name stays in the
    /// system.
    virtual ~MsgQueueBase();

    /// Closes the queue (`mq_close`, repeated while a signal interrupts it). Does nothing, with success, on a
    /// closed object.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, on top of pending reports. The object stays
    ///         open, except if the system does not know its descriptor (`EBADF`)
    [[nodiscard]] virtual bool close();

    /// Returns whether the queue is open.
    bool isValid() const noexcept { return queue != CLOSED; }

    /// Removes the oldest message of the highest priority from the queue. Blocks until there is a message
    /// (`mq_receive`, repeated while a signal interrupts it).
    /// @param message  `size` is the size of `buffer` in bytes, at least `maxMsgSize()`, and is set to the
    ///                 number of bytes received. It is not changed on failure
    /// @return true on failure: `SysErrorId::INVALID_PARAMETER` if the buffer is smaller than `maxMsgSize()`,
    ///         whatever the size of the message; else `SysErrorId::SPOILED_INTEGRITY`, also on a closed
    ///         object
    [[nodiscard]] bool readMsg(Message* message);

    /// Adds a message to the queue. Blocks until the queue has space (`mq_send`, repeated while a signal
    /// interrupts it).
    /// @return true on failure: `SysErrorId::INVALID_PARAMETER` if the message is larger than `maxMsgSize()`;
    ///         else `SysErrorId::SPOILED_INTEGRITY`, also for a priority that is too high and on a closed
    ///         object
    [[nodiscard]] bool writeMsg(Message const* message);

    /// Does the same as `readMsg`, but blocks for at most `timeout` milliseconds (`mq_timedreceive`). The
    /// deadline is on the wall clock: setting the clock moves it. With a `timeout` of 0 or less it does not
    /// block.
    /// @return 0 if a message was received; 1 after a timeout, which is not reported; -1 on failure: as for
    ///         `readMsg`, and `SysErrorId::UNCLASSIFIED` if the clock cannot be read
    signed char readMsgTimeout(Message* message, long long const& timeout);

    /// Does the same as `writeMsg`, but blocks for at most `timeout` milliseconds (`mq_timedsend`), measured
    /// as in `readMsgTimeout`.
    /// @return 0 if the message was sent; 1 after a timeout, which is not reported, or after a failure of the
    ///         system with `SysErrorId::SPOILED_INTEGRITY` pending, so that only the error store
    ///         distinguishes the two; -1 on failure: `SysErrorId::INVALID_PARAMETER` if the message is too
    ///         large, `SysErrorId::UNCLASSIFIED` if the clock cannot be read
    signed char writeMsgTimeout(Message const* message, long long const& timeout);

    /// Returns the lowest priority, 0.
    VESK_API_INLINE static int getMinPrio() noexcept { return 0; }
    /// Returns the highest priority that the system accepts, plus 1 (`sysconf`).
    static int getMaxPrio() noexcept;

    /// Returns the maximum size of a message of this queue in bytes (`mq_getattr`), or 0 on failure, with
    /// `SysErrorId::SPOILED_INTEGRITY`.
    unsigned int maxMsgSize() const;
    /// Returns the maximum number of messages in the queue (`mq_getattr`), or 0 on failure, with
    /// `SysErrorId::SPOILED_INTEGRITY`.
    unsigned int maxMsgCount() const;
    /// Returns the number of messages in the queue (`mq_getattr`), or 0 on failure, with
    /// `SysErrorId::SPOILED_INTEGRITY`.
    unsigned int availMsgs() const;

    /// Returns the maximum size of a message in bytes that the system permits to unprivileged processes, from
    /// "/proc/sys/fs/mqueue/msgsize_max", or 0 if it is not available. Only a failed read of the file is
    /// reported, in the way of streams.
    static unsigned int systemMaxMsgSize();
    /// Returns the maximum number of messages in a queue that the system permits to unprivileged processes,
    /// from "/proc/sys/fs/mqueue/msg_max", or 0 under the same conditions.
    static unsigned int systemMaxMsgCount();

protected:
    /// The descriptor of a closed queue.
    static constexpr mqd_t CLOSED = -1;

    MsgQueueBase() noexcept = default;

    /// The descriptor of the queue.
    mqd_t queue = CLOSED;
};

} // namespace vesk
