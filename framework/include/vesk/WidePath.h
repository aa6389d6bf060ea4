#pragma once

#include <vesk/Export.h>
#include <vesk/UnicodeString.h>

#include <string>
#include <utility>

namespace vesk {

/// A path in wide text that remembers whether it is the result of a complete conversion.
///
///     vesk::WidePath const path(name);
///     if (!path.isValid()) { ... } // empty, or malformed in the locale's encoding
///
/// The only separator is `L'/'`. A path has the operations of a `std::wstring`, which do not change its
/// validity. An object must be used by one thread at a time. No operation reports an error.
class VESK_API WidePath : public std::wstring {
public:
    /// Converts a narrow text in the encoding of the locale (`mbsrtowcs`), up to its first NUL. A text that
    /// is malformed, empty or null gives an empty path that is not valid.
    WidePath(UnicodeString const& text);

    /// Converts a NUL-terminated text in the same way.
    /// @param text    null gives an empty path that is not valid
    /// @param length  the length that the caller knows, or 0 to compute it; the text is never truncated to it
    WidePath(char const* text, unsigned int length = 0);

    /// Returns the absolute path as `Path::getAbsolute` does. A path that is already absolute keeps its
    /// validity. Otherwise the result is valid if the working directory can be converted, regardless of this
    /// path.
    /// @return empty and valid if the working directory is not available
    WidePath getAbsolute() const;

    /// Returns the canonical path as `Path::getCanonicalized` does. The result is valid if it can be
    /// converted back to wide text.
    /// @return empty and valid if the locale cannot express the path or the path cannot be resolved
    WidePath getCanonicalized() const;

    /// Returns the path in the encoding of the locale (`wcsrtombs`), whether it is valid or not. Throws
    /// `std::logic_error` if the locale cannot express it.
    operator std::string() const;

    /// Returns whether the path is the result of a complete conversion of a text that was not empty, or of an
    /// operation that returns a valid path.
    bool isValid() const noexcept { return m_valid; }

private:
    WidePath(std::wstring&& text, bool valid) noexcept : std::wstring(std::move(text)), m_valid(valid) {}

    bool m_valid;
};

} // namespace vesk
