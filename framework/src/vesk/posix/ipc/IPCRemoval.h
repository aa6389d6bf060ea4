#pragma once

#include "vesk/common/Report.h"

namespace vesk::detail {

/// Classifies the result of `mq_unlink` or `shm_unlink`, which fail in the same ways. A missing name counts
/// as success.
///
/// A denied permission makes two pairs of reports: first `SysErrorId::PERMISSION_DENIED` with
/// `FileAccessErrorId::ACCESS_DENIED`, then `SysErrorId::UNCLASSIFIED` with
/// `FileAccessErrorId::UNCLASSIFIED`. Any other failure makes the second pair only.
/// @return true on failure
bool classifyRemoval(Place place, int result, char const* name) noexcept;

} // namespace vesk::detail
