#pragma once

#include <vesk/Export.h>
#include <vesk/UnicodeString.h>

#include <string>
#include <utility>

namespace vesk {

/// A path in wide text that remembers whether it came from a complete conversion.
///
///     vesk::WidePath const path(name);
///     if (!path.isValid()) { ... } // empty, or malformed in the locale's encoding
///
/// The one separator is `L'/'`. A path has the operations of a `std::wstring`; they do not change whether it is valid. One
/// object belongs to one thread at a time. No operation reports an error.
class VESK_API WidePath : public std::wstring {
public:
    /// Converts a narrow text in the locale's encoding (`mbsrtowcs`), up to its first NUL. A text that is malformed, empty
    /// or null gives an empty path that is not valid.
    WidePath(UnicodeString const& text);

    /// The same for a bare text.
    /// @param text    NUL-terminated; null gives an empty path that is not valid
    /// @param length  the characters that the caller knows of, 0 to have them counted; the text is never cut by it
    WidePath(char const* text, unsigned int length = 0);

    /// As `Path::getAbsolute`. A path that is absolute already stays as valid as it is. Else the result is valid if the
    /// working directory can be converted, whatever this path is.
    /// @return empty and valid if the working directory cannot be told
    WidePath getAbsolute() const;

    /// As `Path::getCanonicalized`. The result is valid if it can be converted back.
    /// @return empty and valid if the path cannot be expressed in the locale's encoding or resolved
    WidePath getCanonicalized() const;

    /// The path in the locale's encoding (`wcsrtombs`), valid or not. Throws `std::logic_error` if the locale cannot
    /// express it.
    operator std::string() const;

    /// Whether the path came from a complete conversion of a text that was not empty, or from an operation that says so.
    bool isValid() const noexcept { return m_valid; }

private:
    WidePath(std::wstring&& text, bool valid) noexcept : std::wstring(std::move(text)), m_valid(valid) {}

    bool m_valid;
};

} // namespace vesk
