#pragma once

#include "support/calls/NamedCalls.h"

#include <functional>
#include <semaphore.h>
#include <utility>

/// Replaces the system calls below semaphores: a `support::Fault` makes them fail. Must be included in
/// exactly one file of a test program.

namespace support {

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

} // namespace support

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
