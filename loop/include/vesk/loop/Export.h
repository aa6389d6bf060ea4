#pragma once

#include <tarncommon/Widths.h>

/// Marks the symbols that `libveskloop.so` exports. All others are hidden.
#define VESK_LOOP_API [[gnu::visibility("default")]]
