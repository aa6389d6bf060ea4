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
/// Only the text counts: nothing is looked up, and `.` and `..` are names like others.
struct VESK_API PathParts {
    explicit PathParts(std::string const& path);

    std::string directory; ///< Without separators behind it, unless it is the root.
    std::string name;      ///< Without separators.
};

} // namespace vesk
