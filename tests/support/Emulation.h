#pragma once

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

/// Limits of emulators that tests must take into account. Known at run time only: programs for the target run under
/// QEMU's user mode, or on a real or emulated machine with a kernel of its own.
namespace support {

/// Whether the program runs under QEMU's user mode, which replaces the kernel's interface for one process: its name is
/// then that of the emulator.
inline bool const IS_EMULATED = [] {
    char name[16] = "";
    int const file = open("/proc/self/comm", O_RDONLY | O_CLOEXEC);
    ssize_t const length = read(file, name, sizeof name - 1);
    close(file);
    return length > 0 && strncmp(name, "qemu-", 5) == 0;
}();

/// How much longer programs take: under the thread sanitizer, and on a target that is emulated in either way.
#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr bool IS_SLOW = true;
#else
constexpr bool IS_SLOW = false;
#endif

} // namespace support
