#pragma once

#include <vesk/Export.h>

#include <string>
#include <utility>

namespace vesk {

/// A path in narrow text: a `std::string` that can be made absolute and canonical.
///
///     vesk::Path const path = vesk::Path("settings/default").getAbsolute();
///
/// The only separator is `/`. A path has exactly the storage and the operations of a `std::string`. An
/// object must be used by one thread at a time.
class VESK_API Path : public std::string {
public:
    using std::string::string;
    using std::string::operator=;

    Path() = default;
    /// @{
    /// Creates a path from a text, which is not checked.
    Path(std::string const& text) : std::string(text) {}
    Path(std::string&& text) noexcept : std::string(std::move(text)) {}
    /// @}

    /// Returns the path unchanged if it begins with `/`, otherwise the working directory (`getcwd`), `/`
    /// and the path. Nothing is normalized or looked up: `.`, `..` and repeated separators stay. An empty
    /// path gives the working directory followed by a `/`. In the root directory a relative path gives two
    /// leading separators.
    /// @return empty if the working directory is not available; nothing is reported
    Path getAbsolute() const;

    /// Returns the path without symbolic links and the names "." and ".." (`realpath`). The path must exist. Blocks as
    /// long as the file system does.
    /// @return empty on failure; nothing is reported, `errno` contains the reason
    Path getCanonicalized() const;
};

} // namespace vesk
