#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorType.h>

namespace std {

/// The family of failures that are not failures of a system call.
extern TARN_API ErrorType const CommonError;

/// The reports of `CommonError`.
namespace CommonErrorId {
/// The reports of `CommonError`.
enum Id : int {
    OUT_OF_MEMORY = 0,              ///< An allocation failed. No arguments.
    CONTRACT_BROKEN = 1,            ///< The caller broke the contract: wrong state, invalid object. Argument:
                                    ///< one text.
    INTERNAL_FAILURE = 2,           ///< An internal failure. No arguments. Not used at present.
    UNSUPPORTED_VALUE = 3,          ///< The operation cannot handle a value. Argument: one text.
    OPEN_FILE_OPERATION_FAILED = 4, ///< The system refused an operation on an open file. Argument: one text.
    INVALID_ARGUMENT = 5,           ///< An argument is not usable. Argument: one text.
    NOT_SUPPORTED = 6,              ///< The platform does not support the operation. Argument: one text.
};

/// Returns the family of these ids.
constexpr ErrorType const& familyOf(Id /*unused*/) noexcept {
    return CommonError;
}
} // namespace CommonErrorId

} // namespace std
