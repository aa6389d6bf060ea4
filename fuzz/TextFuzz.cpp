// Fuzzes the conversion of text: UnicodeString with the functions of the C library as reference, and
// std::unicode::String. The first byte of the input selects the locale; the rest is a text.

#include "Check.h"

#include <vesk/UnicodeString.h>

#include <tarncommon/unicode/String.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace {

using vesk::UnicodeString;

/// Returns the text in wide characters, empty if it is malformed.
std::wstring widen(std::string const& text) {
    std::vector<wchar_t> wide(text.size() + 1);
    mbstate_t shift{};
    char const* source = text.c_str();
    size_t const count = mbsrtowcs(wide.data(), &source, wide.size(), &shift);
    return count == static_cast<size_t>(-1) ? std::wstring() : std::wstring(wide.data(), count);
}

/// Returns false if the locale cannot express the text.
bool narrow(std::wstring const& text, std::string& result) {
    std::vector<char> bytes(text.size() * MB_LEN_MAX + 1);
    mbstate_t shift{};
    wchar_t const* source = text.c_str();
    size_t const count = wcsrtombs(bytes.data(), &source, bytes.size(), &shift);
    if (count == static_cast<size_t>(-1)) {
        return false;
    }
    result.assign(bytes.data(), count);
    return true;
}

void checkNarrowing(std::wstring const& text) {
    UnicodeString const converted(text);
    std::string expected;
    if (!narrow(text, expected)) {
        fuzz::check(converted.c_str() == nullptr, "a text that the locale cannot express is null");
        fuzz::check(converted.getSize() == UINT32_MAX, "its size shows that");
        return;
    }
    fuzz::check(converted.c_str() == expected, "the narrow text is that of wcsrtombs");
    fuzz::check(converted.getSize() == expected.size() + 1, "the size counts the closing null");
}

/// Returns the bytes as 32-bit units, any of which can be a wide character.
std::wstring makeWide(std::string const& text) {
    std::wstring wide(text.size() / sizeof(wchar_t), L'\0');
    memcpy(wide.data(), text.data(), wide.size() * sizeof(wchar_t));
    return wide;
}

void checkCodePoints(std::string const& text) {
    using std::unicode::String;
    String const decoded = String::fromUTF8(text);
    std::string const encoded = decoded.toUTF8();
    fuzz::check(String::fromUTF8(encoded) == decoded, "a decoded text survives UTF-8");
    std::wstring const wide = widen(text);
    // The C library also accepts values beyond the last code point.
    bool const is_valid = std::all_of(wide.begin(), wide.end(), [](wchar_t c) { return c <= 0x10FFFF; });
    fuzz::check(wide.empty() || !is_valid || encoded == text, "a valid text stays as it is");
    for (unsigned int const character : decoded) {
        fuzz::check(
            character <= 0x10FFFF && (character < 0xD800 || character > 0xDFFF), "code points are decoded");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    bool const is_utf8 = (data[0] & 1) == 0;
    fuzz::check(setlocale(LC_ALL, is_utf8 ? "C.UTF-8" : "C") != nullptr, "the locale exists");
    std::string const input(reinterpret_cast<char const*>(data) + 1, size - 1);
    std::string const text = input.substr(0, input.find('\0'));

    std::wstring const wide = UnicodeString(text);
    fuzz::check(wide == widen(text), "the wide text is that of mbsrtowcs");
    checkNarrowing(wide);
    checkNarrowing(makeWide(input));
    if (is_utf8) {
        checkCodePoints(text);
    }
    return 0;
}
