#pragma once

#include <vesk/ProcessTNG.h>
#include <vesk/UnicodeString.h>

#include <cstring>
#include <cwchar>
#include <string>

namespace vesk {

/// The length of a text that may lack its NUL (`strnlen`). Call it with its namespace, beside the system's function of
/// that name.
/// @param max  how many bytes to look at
/// @return the bytes before the NUL, `max` if there is none among the first `max`
inline unsigned int strnlen(char const* text, unsigned int max) noexcept {
    return static_cast<unsigned int>(::strnlen(text, max));
}

/// The same for a wide text (`wcsnlen`); counts wide characters.
inline unsigned int wcsnlen(wchar_t const* text, unsigned int max) noexcept {
    return static_cast<unsigned int>(::wcsnlen(text, max));
}

/// The name of the environment variable that holds the search path of executables, "PATH", for `char` and `wchar_t`.
///
///     char const* const path = getenv(vesk::getPathLiteral<char>());
template <typename T>
T const* getPathLiteral();

template <>
inline char const* getPathLiteral<char>() {
    return "PATH";
}

template <>
inline wchar_t const* getPathLiteral<wchar_t>() {
    return L"PATH";
}

/// What the file name of an executable ends in, `ProcessTNG::ExecutableSuffix`, as a `std::string` or a `std::wstring`. The
/// wide one is empty if it is malformed in the locale's encoding.
template <typename S>
S getExecutableSuffix();

template <>
inline std::string getExecutableSuffix<std::string>() {
    return ProcessTNG::ExecutableSuffix;
}

template <>
inline std::wstring getExecutableSuffix<std::wstring>() {
    return UnicodeString(ProcessTNG::ExecutableSuffix);
}

} // namespace vesk
