#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// The meaning of the system's failures, for the whole library. The families of single classes derive from
/// it, so `std::ErrorStorage::isA(vesk::SysError)` is true for each of them.
///
/// The argument of each row is the text of `SystemError`, unless an operation documents another one.
extern VESK_API std::ErrorType const SysError;

/// The reports of `SysError`.
namespace SysErrorId {
/// The reports of `SysError`.
enum Id : int {
    RESOURCES_EXHAUSTED = 0,  ///< The system has no descriptor, process, or other resource left.
    OUT_OF_MEMORY = 1,        ///< The system has no memory left.
    INVALID_PATH = 2,         ///< The path does not name what the operation needs.
    NOT_A_DIRECTORY = 3,      ///< The path is not a directory.
    PATH_TOO_LONG = 4,        ///< The path exceeds the system's limit. Arguments: the path and its length.
    INTERRUPTED = 5,          ///< A signal interrupted the call.
    NOT_IMPLEMENTED = 6,      ///< The system does not implement the call.
    PERMISSION_DENIED = 7,    ///< The process lacks the permission.
    INVALID_PARAMETER = 8,    ///< The system rejected a parameter.
    INVALID_ADDRESS = 9,      ///< A parameter has an address outside of the process.
    SPOILED_INTEGRITY = 10,   ///< An internal invariant does not hold: a failure that the operation does not
                              ///< expect.
    INPUT_OUTPUT = 11,        ///< The device failed.
    FILE_EXISTS = 12,         ///< A file of that name already exists.
    IN_USE = 13,              ///< The object is still in use.
    DIRECTORY_NOT_EMPTY = 14, ///< The directory is not empty.
    NO_SPACE = 15,            ///< The file system is full.
    NO_DEVICE = 16,           ///< The device does not exist, is not ready, or does not support the operation.
    QUERY_FAILED = 17,        ///< The requested information about the system is not available.
    NO_SUCH_PROCESS = 18,     ///< The process does not exist. The text does not show its argument.
    UNCLASSIFIED = 19,        ///< None of the other rows.
};

/// Returns the family of these ids.
constexpr std::ErrorType const& familyOf(Id /*unused*/) noexcept {
    return SysError;
}
} // namespace SysErrorId

} // namespace vesk
