#pragma once

#include "support/Inject.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/// The system calls below the files, replaced: a `support::Fault` makes them fail, and some tell what they were called
/// with. Include it in one file of a test program.

namespace support {

struct FileCalls {
    int open_flags = 0;
    mode_t open_mode = 0; ///< 0 unless the call may make the file.
    long long seek_offset = 0;
    int seek_whence = -1;
    long long length = 0;           ///< What `ftruncate` was to set.
    size_t most = SIZE_MAX;         ///< What one `read` or `write` transfers at most.
    bool syncs_for_nothing = false; ///< `fsync` has nothing to wait for.
};

inline FileCalls s_file_calls;

/// Notes how a file is opened, and gives the mode, which is an argument only of a call that may make the file.
VESK_UNWATCHED inline mode_t noteOpening(int flags, va_list arguments) {
    s_file_calls.open_flags = flags;
    s_file_calls.open_mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    return s_file_calls.open_mode;
}

/// Whether the call is to fail, with `errno` set if so.
VESK_UNWATCHED inline bool fails(Injected& function) {
    int error = 0;
    if (!function.fails(error)) {
        return false;
    }
    errno = error;
    return true;
}

} // namespace support

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, fstat, (int fd, struct stat* data), (fd, data))

support::Injected inject_open("open");
support::Injected inject_openat("openat");
support::Injected inject_lseek("lseek");
support::Injected inject_ftruncate("ftruncate");
support::Injected inject_read("read");
support::Injected inject_write("write");
support::Injected inject_fsync("fsync");

extern "C" {

VESK_UNWATCHED int open(char const* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = support::noteOpening(flags, arguments);
    va_end(arguments);
    if (support::fails(inject_open)) {
        return -1;
    }
    return reinterpret_cast<int (*)(char const*, int, ...)>(inject_open.getReal())(path, flags, mode);
}

VESK_UNWATCHED int openat(int dir, char const* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = support::noteOpening(flags, arguments);
    va_end(arguments);
    if (support::fails(inject_openat)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, char const*, int, ...)>(inject_openat.getReal())(
        dir, path, flags, mode);
}

VESK_UNWATCHED off_t lseek(int fd, off_t offset, int whence) {
    support::s_file_calls.seek_offset = offset;
    support::s_file_calls.seek_whence = whence;
    if (support::fails(inject_lseek)) {
        return -1;
    }
    return reinterpret_cast<off_t (*)(int, off_t, int)>(inject_lseek.getReal())(fd, offset, whence);
}

VESK_UNWATCHED int ftruncate(int fd, off_t length) {
    support::s_file_calls.length = length;
    if (support::fails(inject_ftruncate)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, off_t)>(inject_ftruncate.getReal())(fd, length);
}

VESK_UNWATCHED ssize_t read(int fd, void* buffer, size_t size) {
    if (support::fails(inject_read)) {
        return -1;
    }
    size_t const most = support::s_file_calls.most;
    return reinterpret_cast<ssize_t (*)(int, void*, size_t)>(inject_read.getReal())(
        fd, buffer, size < most ? size : most);
}

VESK_UNWATCHED ssize_t write(int fd, void const* buffer, size_t size) {
    if (support::fails(inject_write)) {
        return -1;
    }
    size_t const most = support::s_file_calls.most;
    return reinterpret_cast<ssize_t (*)(int, void const*, size_t)>(inject_write.getReal())(
        fd, buffer, size < most ? size : most);
}

VESK_UNWATCHED int fsync(int fd) {
    if (support::fails(inject_fsync)) {
        return -1;
    }
    if (support::s_file_calls.syncs_for_nothing) {
        return 0;
    }
    return reinterpret_cast<int (*)(int)>(inject_fsync.getReal())(fd);
}

} // extern "C"
