#pragma once

#include <tarncommon/Export.h>

namespace std {

/// Always false, in a way that the compiler cannot know.
/// A branch on `x || PSEUDO_FALSE` stays in the code, whatever the compiler can prove about `x`.
extern TARN_API bool const volatile PSEUDO_FALSE;

} // namespace std
