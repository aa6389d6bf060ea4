#pragma once

#include "support/Inject.h"

#include <cstdarg>
#include <sys/syscall.h>

/// Makes a system call fail that libc has no function for. Must be included in exactly one file of a test program,
/// because it replaces `syscall`.
namespace support {

inline Injected inject_syscall("syscall");
/// The number of the call that fails.
inline long g_failing_syscall = -1;

} // namespace support

extern "C" VESK_UNWATCHED long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    if (number == support::g_failing_syscall && support::inject_syscall.fails()) {
        return -1;
    }
    return support::inject_syscall.getReal(syscall)(
        number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
