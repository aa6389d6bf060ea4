#pragma once

#include <tarncommon/Widths.h>

/// Marks what `libtarncommon.so` exports; everything else in it is hidden.
#define TARN_API __attribute__((visibility("default")))

/// Marks an inline function or constant of which `libtarncommon.so` also exports a copy, for programs that call it there.
/// Only src/InlineCopies.cpp makes the copies.
#if defined(TARN_MAKE_INLINE_COPIES)
#define TARN_API_INLINE __attribute__((visibility("default"), used))
#else
#define TARN_API_INLINE TARN_API
#endif

/// Tells the compiler that a function takes a printf-style format, so that it checks the arguments.
#define TARN_PRINTF(format_index, first_argument)                                                            \
    __attribute__((format(printf, format_index, first_argument)))

/// Makes the compiler refuse a global object that would have to be built at run time: one that exists before any
/// initialiser runs can be used from every initialiser.
#if defined(__clang__)
#define TARN_CONSTANT_INIT [[clang::require_constant_initialization]]
#else
#define TARN_CONSTANT_INIT __constinit
#endif
