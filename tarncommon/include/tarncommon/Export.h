#pragma once

#include <tarncommon/Widths.h>

/// Exports a symbol from `libtarncommon.so`. All other symbols of the library are hidden.
#define TARN_API __attribute__((visibility("default")))

/// Keeps a private member of an exported class out of the library's exports. No inline function of a header may
/// use such a member.
#define TARN_HIDDEN __attribute__((visibility("hidden")))

/// Marks an inline function or constant of which `libtarncommon.so` also exports a copy, for programs that
/// were linked against it. Only src/InlineCopies.cpp makes the copies.
#if defined(TARN_MAKE_INLINE_COPIES)
#define TARN_API_INLINE __attribute__((visibility("default"), used))
#else
#define TARN_API_INLINE TARN_API
#endif

/// Declares that a function takes a printf-style format, so that the compiler checks its arguments.
#define TARN_PRINTF(format_index, first_argument)                                                            \
    __attribute__((format(printf, format_index, first_argument)))

/// Makes the compiler reject a global object that needs construction at run time. An object that exists
/// before any initializer runs can be used from every initializer.
#if defined(__clang__)
#define TARN_CONSTANT_INIT [[clang::require_constant_initialization]]
#else
#define TARN_CONSTANT_INIT __constinit
#endif
