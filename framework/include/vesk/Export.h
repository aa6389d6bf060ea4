#pragma once

#include <tarncommon/Widths.h>

/// Marks what `libvesk.so` exports; everything else in it is hidden.
#define VESK_API __attribute__((visibility("default")))
