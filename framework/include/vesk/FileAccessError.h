#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// The meaning of a failure for the path that it concerns. It has no parent. Its reports are on top of a
/// report of `SysError`, and the argument of every row is the path.
extern VESK_API std::ErrorType const FileAccessError;

/// The reports of `FileAccessError`.
namespace FileAccessErrorId {
/// The reports of `FileAccessError`.
enum Id : int {
    BAD_PATH = 0,        ///< The path does not name what the operation needs.
    NOT_A_DIRECTORY = 1, ///< The path is not a directory.
    IS_A_DIRECTORY = 2,  ///< The path is a directory.
    ACCESS_DENIED = 3,   ///< The process lacks the permission.
    ALREADY_EXISTS = 4,  ///< The path already exists.
    BUSY = 5,            ///< The path is in use.
    NO_DESCRIPTOR = 6,   ///< The process or the system has no descriptor left.
    NO_SPACE = 7,        ///< The file system is full.
    NO_DEVICE = 8,       ///< The device does not exist or is not ready.
    UNCLASSIFIED = 9,    ///< None of the other rows.
};

/// Returns the family of these ids.
constexpr std::ErrorType const& familyOf(Id /*unused*/) noexcept {
    return FileAccessError;
}
} // namespace FileAccessErrorId

/// The same family under another name.
extern VESK_API std::ErrorType const& OpenError;

/// Classifies the failure of an open and reports it: a row of `SysError` that opens a chain, then a row of
/// `FileAccessError` with the path on top of it.
///
/// @param error_number  the `errno` of the open
/// @param path          the path of the open, for the report
/// @return true if the open must be repeated (`EINTR`, nothing is reported), false after the reports
VESK_API bool handleOpenError(int error_number, char const* path);

} // namespace vesk
