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
#if defined(__SANITIZE_THREAD__) || defined(__arm__) || defined(__aarch64__) || defined(__riscv) ||          \
    defined(__powerpc__)
constexpr bool IS_SLOW = true;
#else
constexpr bool IS_SLOW = false;
#endif

/// Whether a thread can be cancelled while it is blocked in a system call. QEMU's frame of a signal cannot be unwound
/// on PowerPC: the C library aborts the process.
#ifdef __powerpc__
inline bool const CAN_CANCEL_BLOCKED = !IS_EMULATED;
#else
constexpr bool CAN_CANCEL_BLOCKED = true;
#endif

/// Whether the program has the byte order of the kernel below the emulator. QEMU's user mode swaps the bytes of neither a
/// mutex with priority inheritance, nor the scope of an IPv6 address, nor a netlink message without content.
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
inline bool const HAS_BYTE_ORDER_OF_KERNEL = !IS_EMULATED;
#else
constexpr bool HAS_BYTE_ORDER_OF_KERNEL = true;
#endif

} // namespace support

#define VESK_SKIP_WITHOUT_CANCELLATION()                                                                     \
    if (!support::CAN_CANCEL_BLOCKED) {                                                                      \
        GTEST_SKIP() << "the emulator's frame of a signal cannot be unwound";                                \
    }

#define VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL()                                                             \
    if (!support::HAS_BYTE_ORDER_OF_KERNEL) {                                                                \
        GTEST_SKIP() << "the emulator swaps the bytes of mutexes, scopes and short messages wrongly";        \
    }
