#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// What a failure means for the path it concerns. It has no parent; its reports stand on top of one of `SysError`, and
/// the argument of every row is the path.
///
/// | id | meaning |
/// |---|---|
/// | 0 | bad path |
/// | 1 | not a directory |
/// | 2 | a directory |
/// | 3 | access denied |
/// | 4 | exists already |
/// | 5 | busy |
/// | 6 | no descriptor to be had |
/// | 7 | not enough space |
/// | 8 | the device does not exist or is not ready |
/// | 9 | unclassified |
extern VESK_API std::ErrorType const FileAccessError;

/// The same family under its other name.
extern VESK_API std::ErrorType const& OpenError;

/// Classifies the failure of an open and reports it: a row of `SysError` that opens a chain, then a row of
/// `FileAccessError` with the path on top of it.
///
/// @param error_number  the `errno` of the open
/// @param path          what was to be opened, for the report
/// @return true if the open is to be repeated (`EINTR`, nothing is reported), false when the reports are made
VESK_API bool handleOpenError(int error_number, char const* path);

} // namespace vesk
