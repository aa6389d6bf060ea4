#pragma once

#include <tarncommon/Export.h>

namespace std {

/// Where broken invariants go, those that no caller could handle.
///
/// Each entry point takes the source path without an extension, the line, the plain function name and a printf-style
/// message, and writes one line with all of them to standard error. All may be called from any thread at once; none
/// allocates or takes a lock. None is a cancellation point: the cancellation of the calling thread is disabled meanwhile,
/// also while a hook runs.
class TARN_API GlobalErrorHandler {
public:
    /// Which entry point was called.
    enum class Kind { ASSERT, ABORT, WARNING, OUT_OF_MEMORY };

    /// One call of an entry point. Everything in it is valid only while the hook runs.
    struct Event {
        Kind kind;
        char const* expression; ///< The condition of an assertion; null for the other kinds.
        char const* file;
        int line;
        char const* function;
        char const* message; ///< The formatted message, empty if there was none.
    };

    /// What a process installs to see every event first, for example to route them to its own log.
    struct Hook {
        /// Called in the thread of the event. True keeps the default action from running: no line is written, an
        /// abort returns, and running out of memory does not wait. An exception passes through the entry point to
        /// whoever called that, and ends the process where the caller cannot let it pass.
        bool (*call)(Event const& event, void* context);
        void* context;
    };

    /// Installs a hook for the process and gives back the one before it; null is none. The object must stay until
    /// another one is installed and no event is on its way.
    static Hook const* setHook(Hook const* hook) noexcept;

    /// Reports that `expression` does not hold. Does nothing if `condition` is true. `format` may be null. Returns.
    static void doAssert(
        bool condition, char const* expression, char const* file, int line, char const* function,
        char const* format, ...) TARN_PRINTF(6, 7);

    /// Reports a failure that the process cannot survive, and ends it with `abort()`. It returns only if a hook
    /// wants it so.
    static void doAbort(char const* file, int line, char const* function, char const* format, ...)
        TARN_PRINTF(4, 5);

    /// Prints a warning and returns.
    static void doWarning(char const* file, int line, char const* function, char const* format, ...)
        TARN_PRINTF(4, 5);

    /// Reports that memory has run out, waits 100 ms in the hope that some comes back, and returns: the caller tries
    /// its allocation again.
    static void doOutOfMem(char const* file, int line, char const* function, char const* format, ...)
        TARN_PRINTF(4, 5);
};

} // namespace std
