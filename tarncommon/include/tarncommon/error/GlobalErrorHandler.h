#pragma once

#include <tarncommon/Export.h>

namespace std {

/// The handler for violations of invariants, which no caller could handle itself.
///
/// Each entry point takes the source path without an extension, the line, the plain function name and a
/// printf-style message, and writes one line with all of them to standard error. All entry points may be
/// called from any thread at any time. None allocates or takes a lock. None is a cancellation point:
/// cancellation of the calling thread is disabled during the call, also while a hook runs.
class TARN_API GlobalErrorHandler {
public:
    /// The entry point that was called.
    enum class Kind { ASSERT, ABORT, WARNING, OUT_OF_MEMORY };

    /// One call of an entry point. Its contents are valid only while the hook runs.
    struct Event {
        /// The kind of the event.
        Kind kind;
        char const* expression; ///< The condition of an assertion; null for the other kinds.
        /// The source file, without its extension.
        char const* file;
        /// The line.
        int line;
        /// The function.
        char const* function;
        char const* message; ///< The formatted message; empty if there is none.
    };

    /// A process-wide observer that sees every event first, for example to route events to a log.
    struct Hook {
        /// @{
        /// Called in the thread of the event. If it returns true, the default action does not run: no line is
        /// written, `doAbort` returns, and `doOutOfMem` does not wait. An exception propagates to the caller
        /// of the entry point, and ends the process if that is a destructor or a `noexcept` function.
        bool (*call)(Event const& event, void* context);
        void* context;
        /// @}
    };

    /// Installs a hook for the process and returns the previous one. Null means no hook. The object must stay
    /// valid until another hook is installed and no event is in progress.
    static Hook const* setHook(Hook const* hook) noexcept;

    /// Reports that `expression` does not hold, and returns. Does nothing if `condition` is true. `format`
    /// may be null.
    static void doAssert(
        bool condition, char const* expression, char const* file, int line, char const* function,
        char const* format, ...) TARN_PRINTF(6, 7);

    /// Reports a failure that the process cannot survive, and ends the process with `abort()`. Returns only
    /// if a hook returned true.
    static void doAbort(char const* file, int line, char const* function, char const* format, ...)
        TARN_PRINTF(4, 5);

    /// Prints a warning and returns.
    static void doWarning(char const* file, int line, char const* function, char const* format, ...)
        TARN_PRINTF(4, 5);

    /// Reports that memory is exhausted, waits 100 ms for memory to become available, and returns. The caller
    /// then repeats its allocation.
    static void doOutOfMem(char const* file, int line, char const* function, char const* format, ...)
        TARN_PRINTF(4, 5);
};

} // namespace std
