#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// What the system's failures mean, for the whole library. The families of single classes derive from it, so
/// `std::ErrorStorage::isA(vesk::SysError)` is true for any of them.
///
/// Each row's argument is the text of `SystemError`, unless an operation says otherwise.
///
/// | id | meaning |
/// |---|---|
/// | 0 | the system's resources are exhausted |
/// | 1 | out of memory |
/// | 2 | the path is invalid |
/// | 3 | the path is not a directory |
/// | 4 | the path is too long; arguments are the path and its length |
/// | 5 | interrupted |
/// | 6 | not implemented |
/// | 7 | permission denied |
/// | 8 | a parameter is invalid |
/// | 9 | a parameter has an invalid address |
/// | 10 | spoiled integrity: what should never happen |
/// | 11 | input/output error |
/// | 12 | a file exists already |
/// | 13 | still in use |
/// | 14 | the directory is not empty |
/// | 15 | no space left |
/// | 16 | the device does not exist, is not ready or does not support the operation |
/// | 17 | information about the system cannot be had |
/// | 18 | no such process |
/// | 19 | unclassified |
extern VESK_API std::ErrorType const SysError;

} // namespace vesk
