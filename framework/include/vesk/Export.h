#pragma once

#include <tarncommon/Widths.h>

/// Marks the symbols that `libvesk.so` exports. All others are hidden.
#define VESK_API __attribute__((visibility("default")))

/// Marks an inline function or constant of which `libvesk.so` also exports a copy, for programs that are
/// linked against it. Only src/vesk/InlineCopies.cpp makes the copies.
#if defined(VESK_MAKE_INLINE_COPIES)
#define VESK_API_INLINE __attribute__((visibility("default"), used))
#else
#define VESK_API_INLINE VESK_API
#endif
