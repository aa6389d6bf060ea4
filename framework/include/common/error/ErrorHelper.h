#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>

namespace std {

/// Makes an allocation that must not fail. Repeats it until it succeeds, and calls
/// `GlobalErrorHandler::doOutOfMem` after each failed attempt.
///
///     char* const copy = std::allocateOrWait(
///         [&] { return new (std::nothrow) char[size]; }, SOURCE, "checkStorage", "cannot make a copy");
///
/// Blocks as long as memory is short: `doOutOfMem` waits between two attempts. Callable from any thread.
///
/// @param allocate  returns a pointer, null on failure; called once per attempt
/// @param file      source path of the operation that needs the memory, without an extension
/// @param function  plain name of the operation
/// @param message   the purpose of the memory
/// @return the result of `allocate`, never null
template <typename Allocate>
auto allocateOrWait(
    Allocate allocate, char const* file, char const* function, char const* message,
    int line = __builtin_LINE()) {
    for (;;) {
        if (auto* const memory = allocate()) {
            return memory;
        }
        GlobalErrorHandler::doOutOfMem(file, line, function, "%s", message);
    }
}

} // namespace std
