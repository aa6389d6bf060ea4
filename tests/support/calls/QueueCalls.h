#pragma once

#include "support/calls/NamedCalls.h"

#include <mqueue.h>

/// Replaces the system calls below message queues: a `support::Fault` makes them fail. Must be included in
/// exactly one file of a test program.

namespace support {

inline OpenCall s_queue_open;
inline mq_attr s_queue_attributes; ///< Those of the last call that opened a queue.

} // namespace support

VESK_INJECT_ERRNO(int, -1, mq_close, (mqd_t queue), (queue))
VESK_INJECT_ERRNO(int, -1, mq_unlink, (char const* name), (name))
VESK_INJECT_ERRNO(int, -1, mq_getattr, (mqd_t queue, mq_attr* attributes), (queue, attributes))
VESK_INJECT_ERRNO(
    ssize_t, -1, mq_receive, (mqd_t queue, char* buffer, size_t size, unsigned int* priority),
    (queue, buffer, size, priority))
VESK_INJECT_ERRNO(
    int, -1, mq_send, (mqd_t queue, char const* buffer, size_t size, unsigned int priority),
    (queue, buffer, size, priority))
VESK_INJECT_NAMED_OPEN(
    mqd_t, -1, mq_open, support::s_queue_open, mq_attr*,
    support::s_queue_attributes = argument != nullptr ? *argument : mq_attr{})
VESK_INJECT_NOTING(
    ssize_t, -1, mq_timedreceive,
    (mqd_t queue, char* buffer, size_t size, unsigned int* priority, timespec const* deadline),
    (queue, buffer, size, priority, deadline), support::s_deadlines.push_back(*deadline))
VESK_INJECT_NOTING(
    int, -1, mq_timedsend,
    (mqd_t queue, char const* buffer, size_t size, unsigned int priority, timespec const* deadline),
    (queue, buffer, size, priority, deadline), support::s_deadlines.push_back(*deadline))
