#pragma once

#include <vesk/Export.h>

#include <string>

namespace vesk {

/// A path, split into its directory and its last component.
///
///     vesk::PathParts const parts("/usr/bin/env"); // "/usr/bin" and "env"
///
/// | path | directory | name |
/// |---|---|---|
/// | `/usr/bin/` | `/usr` | `bin` |
/// | `a//b//` | `a` | `b` |
/// | `foo` | `.` | `foo` |
/// | `/foo` | `/` | `foo` |
/// | `/` | `/` | `/` |
/// | the empty text | the empty text | the empty text |
///
/// Only the text is examined: nothing is looked up, and `.` and `..` are ordinary names.
struct VESK_API PathParts {
    /// Splits a path.
    explicit PathParts(std::string const& path);

    std::string directory; ///< Without trailing separators, unless it is the root.
    std::string name;      ///< Without separators, unless the path is the root.
};

} // namespace vesk
