#pragma once

#include "support/Inject.h"

/// Replaces a function of libc. It returns `failure` if a `Fault` is set for it. Otherwise it runs `answer`,
/// which may return a result, and then calls the real function.
#define VESK_ANSWER(result, failure, name, parameters, arguments, ...)                                       \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        int error = 0;                                                                                       \
        if (inject_##name.fails(error)) {                                                                    \
            errno = error;                                                                                   \
            return failure;                                                                                  \
        }                                                                                                    \
        __VA_ARGS__;                                                                                         \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }
