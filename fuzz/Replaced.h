#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

// Replaces `open` and `fopen`: a name that begins with "/proc/" opens a file in memory that contains the text
// of `fuzz::s_files`. Must be included by only one source file of a program.

namespace fuzz {

/// The files that the library reads instead of those in /proc. `match` is the end of their names.
struct ReplacedFile {
    char const* match;
    std::string text;
    unsigned int opened; // How often.
};

inline ReplacedFile s_files[2] = {};

/// Returns a descriptor of the replaced file of this name, -1 if the name is not replaced.
inline int openReplaced(char const* name) {
    size_t const length = strlen(name);
    for (ReplacedFile& file : s_files) {
        size_t const suffix = file.match != nullptr ? strlen(file.match) : 0;
        if (suffix == 0 || strncmp(name, "/proc/", 6) != 0 || length < suffix ||
            strcmp(name + length - suffix, file.match) != 0) {
            continue;
        }
        ++file.opened;
        int const fd = memfd_create("replaced", MFD_CLOEXEC);
        if (fd != -1 && write(fd, file.text.data(), file.text.size()) >= 0) {
            lseek(fd, 0, SEEK_SET);
        }
        return fd;
    }
    return -1;
}

} // namespace fuzz

extern "C" int open(char const* name, int flags, ...) {
    int const fd = fuzz::openReplaced(name);
    if (fd != -1) {
        return fd;
    }
    va_list args;
    va_start(args, flags);
    int const mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, int) : 0;
    va_end(args);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, name, flags, mode));
}

extern "C" FILE* fopen(char const* name, char const* mode) {
    int const fd = fuzz::openReplaced(name);
    if (fd != -1) {
        return fdopen(fd, "r");
    }
    static auto* const real =
        reinterpret_cast<FILE* (*)(char const*, char const*)>(dlsym(RTLD_NEXT, "fopen"));
    return real(name, mode);
}
