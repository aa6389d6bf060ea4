#pragma once

#include "support/Inject.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <mqueue.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

/// The system calls below the queues, replaced: a `support::Fault` makes them fail, and some tell what they were called
/// with. Include it in one file of a test program.

namespace support {

struct QueueCalls {
    std::string open_name;
    int open_flags = 0;
    mode_t open_mode = 0;
    mq_attr attributes{};
    std::vector<timespec> deadlines;
};

inline QueueCalls s_queue_calls;

/// A client's name for a queue that no other test has. At the end it is removed from the system.
class QueueName {
public:
    /// @param length  of the name; the rest is padding
    explicit QueueName(size_t length = 0) : m_name("vesk-test-" + std::to_string(getpid())) {
        static int count = 0;
        m_name += "-" + std::to_string(++count);
        m_name.resize(length == 0 ? m_name.size() : length, 'n');
        mq_unlink(getSystemName().c_str());
    }
    ~QueueName() { mq_unlink(getSystemName().c_str()); }

    QueueName(QueueName const&) = delete;
    QueueName& operator=(QueueName const&) = delete;

    operator char const*() const { return m_name.c_str(); }
    std::string getSystemName() const { return "/" + m_name; }

    /// Whether the system knows the name.
    bool exists() const {
        mqd_t const queue = mq_open(getSystemName().c_str(), O_RDONLY);
        if (queue != -1) {
            mq_close(queue);
        }
        return queue != -1;
    }

private:
    std::string m_name;
};

/// A test that needs queues of the system.
class QueueTest : public testing::Test {
protected:
    void SetUp() override {
        if (mq_unlink("/vesk-test-of-support") == -1 && errno == ENOSYS) {
            GTEST_SKIP() << "the system, or what emulates it, has no message queues";
        }
    }
};

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
VESK_INJECT_ERRNO(int, -1, clock_gettime, (clockid_t clock, timespec* time), (clock, time))

support::Injected inject_mq_open("mq_open");
support::Injected inject_mq_timedreceive("mq_timedreceive");
support::Injected inject_mq_timedsend("mq_timedsend");

extern "C" {

VESK_UNWATCHED mqd_t mq_open(char const* name, int flags, ...) {
    mode_t mode = 0;
    mq_attr* attributes = nullptr;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        attributes = va_arg(arguments, mq_attr*);
        va_end(arguments);
    }
    support::s_queue_calls.open_name = name;
    support::s_queue_calls.open_flags = flags;
    support::s_queue_calls.open_mode = mode;
    support::s_queue_calls.attributes = attributes != nullptr ? *attributes : mq_attr{};
    int error = 0;
    if (inject_mq_open.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<mqd_t (*)(char const*, int, ...)>(inject_mq_open.getReal())(
        name, flags, mode, attributes);
}

VESK_UNWATCHED ssize_t
mq_timedreceive(mqd_t queue, char* buffer, size_t size, unsigned int* priority, timespec const* deadline) {
    support::s_queue_calls.deadlines.push_back(*deadline);
    int error = 0;
    if (inject_mq_timedreceive.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<decltype(&mq_timedreceive)>(inject_mq_timedreceive.getReal())(
        queue, buffer, size, priority, deadline);
}

VESK_UNWATCHED int
mq_timedsend(mqd_t queue, char const* buffer, size_t size, unsigned int priority, timespec const* deadline) {
    support::s_queue_calls.deadlines.push_back(*deadline);
    int error = 0;
    if (inject_mq_timedsend.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<decltype(&mq_timedsend)>(inject_mq_timedsend.getReal())(
        queue, buffer, size, priority, deadline);
}

} // extern "C"
