#pragma once

#include <vesk/Export.h>

#include <string>
#include <utility>

namespace vesk {

/// A path in narrow text: a `std::string` that also knows its absolute and its canonical form.
///
///     vesk::Path const path = vesk::Path("settings/default").getAbsolute();
///
/// The one separator is `'/'`. A path has exactly the storage and the operations of a `std::string`. One object belongs to
/// one thread at a time.
class VESK_API Path : public std::string {
public:
    using std::string::string;
    using std::string::operator=;

    Path() = default;
    Path(std::string const& text) : std::string(text) {}
    Path(std::string&& text) noexcept : std::string(std::move(text)) {}

    /// The path as it stands if it begins with `'/'`, else the working directory (`getcwd`), `'/'` and the path. Nothing
    /// is normalised or looked up: `.`, `..` and repeated separators stay, an empty path gives the working directory with
    /// a `'/'` behind it, and in the root directory a relative path gets two in front.
    /// @return empty if the working directory cannot be told; nothing is reported
    Path getAbsolute() const;

    /// The path without symbolic links, `.` and `..` (`realpath`). It must exist. Blocks as long as the file system does.
    /// @return empty on failure; nothing is reported, `errno` tells why
    Path getCanonicalized() const;
};

} // namespace vesk
