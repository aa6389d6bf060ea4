#pragma once

#include "support/Inject.h"

#include <ctime>
#include <functional>
#include <mqueue.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// Replaces the system calls below message queues, semaphores and shared memory: a `support::Fault` makes them fail.
/// Must be included in exactly one file of a test program.

namespace support {

/// The arguments of the last call that opened a named object.
struct OpenCall {
    std::string name;
    int flags = -1;
    mode_t mode = 0;
};

/// The deadlines of all timed calls, in order.
inline std::vector<timespec> s_deadlines;

inline OpenCall s_queue_open;
inline mq_attr s_queue_attributes; ///< Those of the last call that opened a queue.

inline OpenCall s_semaphore_open;
inline unsigned int s_semaphore_value = 0; ///< That of the last call that opened a semaphore.

/// Runs once, in the next call that waits, which then fails as if a signal had interrupted it.
inline std::function<void()> s_on_semaphore_wait;

/// Makes the calling function fail if there was such an action.
inline bool isInterrupted() {
    if (!s_on_semaphore_wait) {
        return false;
    }
    std::exchange(s_on_semaphore_wait, nullptr)();
    errno = EINTR;
    return true;
}

inline OpenCall s_shm_open;
inline long long s_shm_length = -1; ///< The last size that was set.

} // namespace support

/// Replaces a function that opens or creates a named object, with a last argument of type `Type` that it has
/// only when it may create the object. The statement `record` runs first in each call: it may use `argument`.
#define VESK_INJECT_NAMED_OPEN(result, failure, function, call, Type, record)                                \
    support::Injected inject_##function(#function);                                                          \
    extern "C" VESK_UNWATCHED result function(char const* name, int flags, ...) {                            \
        mode_t mode = 0;                                                                                     \
        Type argument{};                                                                                     \
        if ((flags & O_CREAT) != 0) {                                                                        \
            va_list arguments;                                                                               \
            va_start(arguments, flags);                                                                      \
            mode = va_arg(arguments, mode_t);                                                                \
            argument = va_arg(arguments, Type);                                                              \
            va_end(arguments);                                                                               \
        }                                                                                                    \
        call = {name, flags, mode};                                                                          \
        record;                                                                                              \
        if (inject_##function.fails()) {                                                                     \
            return failure;                                                                                  \
        }                                                                                                    \
        return inject_##function.getReal(function)(name, flags, mode, argument);                             \
    }

VESK_INJECT_ERRNO(int, -1, clock_gettime, (clockid_t clock, timespec* time), (clock, time))

// ---- message queues ----

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

// ---- semaphores ----

VESK_INJECT_ERRNO(int, -1, sem_close, (sem_t * semaphore), (semaphore))
VESK_INJECT_ERRNO(int, -1, sem_unlink, (char const* name), (name))
VESK_INJECT_ERRNO(int, -1, sem_post, (sem_t * semaphore), (semaphore))
VESK_INJECT_NAMED_OPEN(
    sem_t*, SEM_FAILED, sem_open, support::s_semaphore_open, unsigned int,
    support::s_semaphore_value = argument)
VESK_INJECT_NOTING(
    int, -1, sem_wait, (sem_t * semaphore), (semaphore), if (support::isInterrupted()) return -1)
VESK_INJECT_NOTING(
    int, -1, sem_trywait, (sem_t * semaphore), (semaphore), if (support::isInterrupted()) return -1)
VESK_INJECT_NOTING(int, -1, sem_timedwait, (sem_t * semaphore, timespec const* deadline),
                   (semaphore, deadline), support::s_deadlines.push_back(*deadline);
                   if (support::isInterrupted()) return -1)

// ---- shared memory ----

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, fstat, (int fd, struct stat* data), (fd, data))
VESK_INJECT_ERRNO(int, -1, shm_unlink, (char const* name), (name))
VESK_INJECT_NOTING(
    int, -1, shm_open, (char const* name, int flags, mode_t mode), (name, flags, mode),
    (support::s_shm_open = {name, flags, mode}))
VESK_INJECT_NOTING(int, -1, ftruncate, (int fd, off_t length), (fd, length), support::s_shm_length = length)
