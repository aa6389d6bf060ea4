#pragma once

#include "vesk/common/Report.h"

namespace vesk::detail {

/// Classifies the result of `mq_unlink` or `shm_unlink`, which fail alike. A name that is not there need not be removed.
///
/// A missing right is told for itself, `SysError` 7 with `FileAccessError` 3, and then as a removal that failed like any
/// other, `SysError` 19 with `FileAccessError` 9.
/// @return true on failure
bool classifyRemoval(Place place, int result, char const* name) noexcept;

} // namespace vesk::detail
