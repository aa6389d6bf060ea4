#pragma once

#include "vesk/common/Report.h"

namespace vesk::detail {

/// Classifies the result of `mq_unlink` or `shm_unlink`, which fail alike. A name that is not there need not be removed.
///
/// A missing right is told for itself, `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED`, and then as a removal that failed like any
/// other, `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED`.
/// @return true on failure
bool classifyRemoval(Place place, int result, char const* name) noexcept;

} // namespace vesk::detail
