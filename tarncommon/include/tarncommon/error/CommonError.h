#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorType.h>

namespace std {

/// The family of failures that belong to no system call.
///
/// | id | arguments | meaning |
/// |---|---|---|
/// | 0 | none | an allocation failed |
/// | 1 | one text | the caller broke the contract: wrong state, invalid object |
/// | 2 | none | an internal failure; nothing uses it now |
/// | 3 | one text | a value that the operation cannot handle |
/// | 4 | one text | the system refused an operation on an open file |
/// | 5 | one text | an argument that is not usable |
/// | 6 | one text | not supported on this platform |
extern TARN_API ErrorType const CommonError;

} // namespace std
