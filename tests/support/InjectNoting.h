#pragma once

#include "support/Inject.h"

/// Replaces a function that returns `failure` and sets `errno`. The statement in the last argument runs first
/// in each call and may record its arguments.
///
///     VESK_INJECT_NOTING(int, -1, shutdown, (int fd, int how) noexcept, (fd, how), s_how = how)
#define VESK_INJECT_NOTING(result, failure, name, parameters, arguments, ...)                                \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        __VA_ARGS__;                                                                                         \
        int error = 0;                                                                                       \
        if (inject_##name.fails(error)) {                                                                    \
            errno = error;                                                                                   \
            return failure;                                                                                  \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }
