#pragma once

#include "support/Inject.h"

#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

/// What the replaced calls below message queues, semaphores and shared memory have in common. Must be
/// included in exactly one file of a test program.

namespace support {

/// The arguments of the last call that opened a named object.
struct OpenCall {
    std::string name;
    int flags = -1;
    mode_t mode = 0;
};

/// The deadlines of all timed calls, in order.
inline std::vector<timespec> s_deadlines;

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
