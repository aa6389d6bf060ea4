#pragma once

#include <vesk/Export.h>
#include <vesk/ProcessTNG.h>
#include <vesk/UnicodeString.h>

#include <string>

namespace vesk {

/// Returns the length of a text that may lack its NUL (`strnlen`). Qualify the call with the namespace,
/// because the system has a function of the same name.
/// @param max  how many bytes to examine
/// @return the bytes before the NUL, `max` if there is none among the first `max`
VESK_API unsigned int strnlen(char const* text, unsigned int max) noexcept;

/// Returns the length in wide characters of a wide text that may lack its NUL (`wcsnlen`).
VESK_API unsigned int wcsnlen(wchar_t const* text, unsigned int max) noexcept;

/// Returns the name of the environment variable with the search path of executables, "PATH", for `char` and
/// `wchar_t`.
///
///     char const* const path = getenv(vesk::getPathLiteral<char>());
template <typename T>
T const* getPathLiteral();

template <>
VESK_API_INLINE inline char const* getPathLiteral<char>() {
    return "PATH";
}

template <>
VESK_API_INLINE inline wchar_t const* getPathLiteral<wchar_t>() {
    return L"PATH";
}

/// Returns the suffix of the file name of an executable, `ProcessTNG::ExecutableSuffix`, as a `std::string`
/// or a `std::wstring`. The wide one is empty if it is malformed in the encoding of the locale.
template <typename S>
S getExecutableSuffix();

template <>
VESK_API_INLINE inline std::string getExecutableSuffix<std::string>() {
    return ProcessTNG::ExecutableSuffix;
}

template <>
VESK_API_INLINE inline std::wstring getExecutableSuffix<std::wstring>() {
    return UnicodeString(ProcessTNG::ExecutableSuffix);
}

} // namespace vesk
