#pragma once

#include <tarncommon/Export.h>

namespace tarnbase {

/// Writes one line with the place and the message to standard error, and ends the process at once with
/// SIGABRT and its core dump. A handler of that signal does not run.
///
/// Usable while a signal handler may be running: it takes no lock and does not allocate. `format` may contain
/// `%s`, `%c`, `%d`, `%i`, `%u`, `%x`, `%p` and `%%`, with the lengths `h`, `l`, `ll` and `z`, but no widths.
[[noreturn]] TARN_API void abort(char const* file, int line, char const* function, char const* format, ...)
    TARN_PRINTF(4, 5);

} // namespace tarnbase
