#pragma once

#include "support/calls/NamedCalls.h"

#include <sys/mman.h>
#include <unistd.h>

/// Replaces the system calls below shared memory: a `support::Fault` makes them fail. Must be included in
/// exactly one file of a test program.

namespace support {

inline OpenCall s_shm_open;
inline long long s_shm_length = -1; ///< The last size that was set.

} // namespace support

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, fstat, (int fd, struct stat* data), (fd, data))
VESK_INJECT_ERRNO(int, -1, shm_unlink, (char const* name), (name))
VESK_INJECT_NOTING(
    int, -1, shm_open, (char const* name, int flags, mode_t mode), (name, flags, mode),
    (support::s_shm_open = {name, flags, mode}))
VESK_INJECT_NOTING(int, -1, ftruncate, (int fd, off_t length), (fd, length), support::s_shm_length = length)
