#pragma once

#include <tarncommon/Export.h>

namespace std {

/// Always false, which no optimiser can know: a branch on `x || PSEUDO_FALSE` stays in the code whatever the
/// compiler thinks of `x`.
extern TARN_API bool const volatile PSEUDO_FALSE;

} // namespace std
