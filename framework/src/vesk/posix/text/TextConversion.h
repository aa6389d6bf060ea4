#pragma once

#include <cstddef>
#include <cwchar>
#include <string>

namespace vesk::detail {

constexpr size_t CONVERSION_FAILED = static_cast<size_t>(-1);

/// Decodes a text of valid characters in a UTF-8 locale, which is several times as fast as the functions of the C
/// library. Returns false, with an empty result, for any other text and in any other locale: the C library must
/// convert it then, and decides what is malformed.
bool decodeUtf8(char const* source, std::wstring& result);

/// Computes the size of a wide text in UTF-8, without the NUL. Returns `CONVERSION_FAILED` under the same
/// conditions as `decodeUtf8`.
size_t measureUtf8(std::wstring const& source) noexcept;

/// Encodes a text that `measureUtf8` has measured, with the NUL.
void encodeUtf8(std::wstring const& source, char* destination) noexcept;

/// Converts wide text to the encoding of the locale, which need not be UTF-8. Without a destination it only
/// computes the length. `limit` is in bytes and includes the NUL.
/// @return the bytes without the NUL, `CONVERSION_FAILED` for a character that the locale cannot express
inline size_t wide_to_utf8(char* destination, wchar_t const* source, size_t limit) noexcept {
    mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only without a state.
    return wcsrtombs(destination, &source, limit, &state);
}

/// Converts text in the encoding of the locale to wide text. Without a destination it only computes the
/// length. `limit` is in wide characters and includes the NUL.
/// @return the wide characters without the NUL, `CONVERSION_FAILED` for a malformed text
inline size_t utf8_to_wide(wchar_t* destination, char const* source, size_t limit) noexcept {
    mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only without a state.
    return mbsrtowcs(destination, &source, limit, &state);
}

} // namespace vesk::detail
