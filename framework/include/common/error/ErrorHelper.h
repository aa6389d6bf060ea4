#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>

namespace std {

/// Makes an allocation that must not fail: tries it until it gives memory, and tells the process through
/// `GlobalErrorHandler::doOutOfMem` after each attempt that did not.
///
///     char* const copy = std::allocateOrWait(
///         [&] { return new (std::nothrow) char[size]; }, SOURCE, "checkStorage", "cannot make a copy");
///
/// Blocks as long as memory is short: `doOutOfMem` waits between two attempts. Callable from any thread.
///
/// @param allocate  gives a pointer, null on failure; called again and again
/// @param file      source path of the operation that needs the memory, without an extension
/// @param function  its plain name
/// @param message   what the memory is for
/// @return what `allocate` gave, never null
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
