#pragma once

#include <vesk/Export.h>

namespace vesk {

/// The environment of the process: access to one variable by its name, and iteration over all of them.
///
///     char const* const directory = vesk::Environment::getVariable("TMPDIR");
///
///     vesk::Environment const environment;
///     for (char const* const row : environment) { ... } // "NAME=value"
///
/// An object is a snapshot of where the environment's rows begin and end, not of the rows. Rows that are
/// added later are not visible. Rows that are changed or removed later may leave dangling pointers. Keep an
/// object only as long as one iteration takes.
///
/// No operation fails, blocks, locks or allocates. All operations may be called from any thread while no
/// thread changes the environment (`setenv`, `unsetenv`, `putenv`, `clearenv`). The callers must ensure that.
class VESK_API Environment {
public:
    /// Scans `environ` up to its end.
    Environment() noexcept;

    /// Returns true.
    VESK_API_INLINE bool isValid() const noexcept { return true; }

    /// Returns a pointer to the first row, "NAME=value".
    VESK_API_INLINE char** begin() const noexcept { return first; }

    /// Returns a pointer past the last row.
    VESK_API_INLINE char** end() const noexcept { return last; }

    /// @{
    /// Return the same as `begin` and `end`: no conversion is needed on this system.
    VESK_API_INLINE char** begin_ucs() const noexcept { return first; }
    VESK_API_INLINE char** end_ucs() const noexcept { return last; }
    /// @}

    /// Returns the value of a variable (`getenv`). An unset variable and an empty one give the same result.
    /// @param name  not null
    /// @return the value, which is valid until the variable is changed; an empty text if the variable is not
    ///         set; never null
    static char const* getVariable(char const* name) noexcept;

private:
    char** first;
    char** last;
};

} // namespace vesk
