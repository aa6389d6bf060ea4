#pragma once

#include <vesk/Export.h>

namespace vesk {

/// The environment of the process: one variable by its name, or a walk over all of them.
///
///     char const* const directory = vesk::Environment::getVariable("TMPDIR");
///
///     vesk::Environment const environment;
///     for (char const* const row : environment) { ... } // "NAME=value"
///
/// An object is a snapshot of where the environment's rows begin and end, not of the rows: what is added later is not
/// seen, and what is changed or removed later may leave it pointing at what is gone. Make one, walk it, forget it.
///
/// No operation fails, blocks, locks or allocates. All may be called from any thread while none changes the environment
/// (`setenv`, `unsetenv`, `putenv`, `clearenv`): guarding against that is the callers' business.
class VESK_API Environment {
public:
    /// Walks `environ` to its end.
    Environment() noexcept;

    /// Always true.
    VESK_API_INLINE bool isValid() const noexcept { return true; }

    /// The first row, "NAME=value".
    VESK_API_INLINE char** begin() const noexcept { return first; }

    /// Behind the last row.
    VESK_API_INLINE char** end() const noexcept { return last; }

    /// The same as `begin` and `end`: there is nothing to convert on this system.
    VESK_API_INLINE char** begin_ucs() const noexcept { return first; }
    VESK_API_INLINE char** end_ucs() const noexcept { return last; }

    /// The value of a variable (`getenv`). An unset variable and an empty one look alike.
    /// @param name  not null
    /// @return the value, which is valid until the variable is changed; an empty text if it is not set; never null
    static char const* getVariable(char const* name) noexcept;

private:
    char** first;
    char** last;
};

} // namespace vesk
