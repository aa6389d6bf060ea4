#pragma once

#include "support/Inject.h"

#include <cstddef>
#include <cstdint>
#include <sys/stat.h>
#include <unistd.h>

/// Replaces the system calls below the files: a `support::Fault` makes them fail, and some record their
/// arguments. Must be included in exactly one file of a test program.

namespace support {

struct FileCalls {
    int open_flags = 0;
    mode_t open_mode = 0; ///< 0 unless the call may create the file.
    long long seek_offset = 0;
    int seek_whence = -1;
    long long length = 0;           ///< The length that `ftruncate` was called with.
    size_t most = SIZE_MAX;         ///< The most that one `read` or `write` transfers.
    bool syncs_for_nothing = false; ///< Whether `fsync` returns without a system call.
};

inline FileCalls s_file_calls;

} // namespace support

#define VESK_LIMIT(size) size = size < support::s_file_calls.most ? size : support::s_file_calls.most

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, fstat, (int fd, struct stat* data), (fd, data))
VESK_INJECT_OPEN(support::s_file_calls.open_flags = flags; support::s_file_calls.open_mode = mode)
VESK_INJECT_NOTING(off_t, -1, lseek, (int fd, off_t offset, int whence), (fd, offset, whence),
                   support::s_file_calls.seek_offset = offset;
                   support::s_file_calls.seek_whence = whence)
VESK_INJECT_NOTING(
    int, -1, ftruncate, (int fd, off_t length), (fd, length), support::s_file_calls.length = length)
VESK_INJECT_NOTING(
    ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size), VESK_LIMIT(size))
VESK_INJECT_NOTING(
    ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size), VESK_LIMIT(size))
VESK_INJECT_NOTING(
    int, -1, fsync, (int fd), (fd), if (support::s_file_calls.syncs_for_nothing) { return 0; })

support::Injected inject_openat("openat");
extern "C" VESK_UNWATCHED int openat(int dir, char const* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    support::s_file_calls.open_flags = flags;
    support::s_file_calls.open_mode = mode;
    return inject_openat.fails() ? -1 : inject_openat.getReal(openat)(dir, path, flags, mode);
}
