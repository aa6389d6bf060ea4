#include "TextConversion.h"

#include <cstdint>
#include <cstring>
#include <langinfo.h>

namespace vesk::detail {

namespace {

bool isUtf8Locale() noexcept {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): reads the same data of the locale as the conversions of libc.
    return strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

/// Several bytes that are examined at once.
using Word = size_t;
constexpr Word HIGH_BITS = static_cast<Word>(0x8080808080808080U);

/// Returns the number of ASCII bytes at the beginning of a word.
unsigned int countAscii(Word word) noexcept {
    Word const others = word & HIGH_BITS;
    if (others == 0) {
        return sizeof word;
    }
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return static_cast<unsigned int>(__builtin_ctzll(others)) / 8;
#else
    return 0; // One by one.
#endif
}

/// One character of UTF-8.
struct Character {
    uint32_t code;
    unsigned int length; ///< Bytes; 0 if the character is not valid.
};

Character readCharacter(unsigned char const* at, unsigned char const* end) noexcept {
    constexpr Character INVALID{0, 0};
    auto const follows = [at](int i) { return (at[i] & 0xC0) == 0x80; };
    auto const bits = [at](int i) { return static_cast<uint32_t>(at[i] & 0x3F); };
    unsigned char const first = at[0];
    if (first < 0x80) {
        return {first, 1};
    }
    if (first < 0xE0) {
        bool const valid = first >= 0xC2 && end - at >= 2 && follows(1);
        return valid ? Character{(first & 0x1FU) << 6 | bits(1), 2} : INVALID;
    }
    if (first < 0xF0) {
        if (end - at < 3 || !follows(1) || !follows(2)) {
            return INVALID;
        }
        uint32_t const code = (first & 0xFU) << 12 | bits(1) << 6 | bits(2);
        return code >= 0x800 && (code & 0xF800) != 0xD800 ? Character{code, 3} : INVALID;
    }
    if (end - at < 4 || !follows(1) || !follows(2) || !follows(3)) {
        return INVALID;
    }
    uint32_t const code = (first & 0xFU) << 18 | bits(1) << 12 | bits(2) << 6 | bits(3);
    return code >= 0x10000 && code < 0x110000 ? Character{code, 4} : INVALID;
}

/// Decodes a text of `limit` characters. Returns false if one is not valid.
bool decode(unsigned char const* at, unsigned char const* end, wchar_t* destination, size_t limit) noexcept {
    size_t count = 0;
    while (at != end && count != limit) {
        Word word = 0;
        if (static_cast<size_t>(end - at) >= sizeof word && limit - count >= sizeof word) {
            memcpy(&word, at, sizeof word);
            // All of them, because a fixed number is faster. The next ones replace those beyond the run.
            for (size_t i = 0; i < sizeof word; ++i) {
                destination[count + i] = at[i];
            }
            unsigned int const run = countAscii(word);
            at += run;
            count += run;
            if (run == sizeof word) {
                continue;
            }
        }
        Character const character = readCharacter(at, end);
        if (character.length == 0) {
            return false;
        }
        destination[count++] = static_cast<wchar_t>(character.code);
        at += character.length;
    }
    return at == end && count == limit;
}

uint32_t toCode(wchar_t character) noexcept {
    return static_cast<uint32_t>(character); // NOLINT(bugprone-signed-char-misuse): it has 32 bits.
}

/// Writes a character that is not ASCII, and returns the position after it.
char* writeCharacter(char* to, uint32_t code) noexcept {
    if (code < 0x800) {
        *to++ = static_cast<char>(0xC0 | code >> 6);
    } else {
        if (code < 0x10000) {
            *to++ = static_cast<char>(0xE0 | code >> 12);
        } else {
            *to++ = static_cast<char>(0xF0 | code >> 18);
            *to++ = static_cast<char>(0x80 | (code >> 12 & 0x3F));
        }
        *to++ = static_cast<char>(0x80 | (code >> 6 & 0x3F));
    }
    *to++ = static_cast<char>(0x80 | (code & 0x3F));
    return to;
}

} // namespace

bool decodeUtf8(char const* source, std::wstring& result) {
    if (!isUtf8Locale()) {
        return false;
    }
    size_t const length = strlen(source);
    size_t characters = 0;
    for (size_t i = 0; i < length; ++i) {
        characters += (source[i] & 0xC0) != 0x80 ? 1 : 0;
    }
    result.resize(characters);
    auto const* const bytes = reinterpret_cast<unsigned char const*>(source);
    if (!decode(bytes, bytes + length, result.data(), characters)) {
        result.clear();
        return false;
    }
    return true;
}

size_t measureUtf8(std::wstring const& source) noexcept {
    if (!isUtf8Locale()) {
        return CONVERSION_FAILED;
    }
    size_t const characters = wcslen(source.c_str());
    size_t length = characters;
    size_t invalid = 0;
    for (size_t i = 0; i < characters; ++i) {
        auto const code = toCode(source[i]);
        length += (code >= 0x80 ? 1U : 0U) + (code >= 0x800 ? 1U : 0U) + (code >= 0x10000 ? 1U : 0U);
        invalid += (code >= 0x110000 ? 1U : 0U) + ((code & 0xFFFFF800) == 0xD800 ? 1U : 0U);
    }
    return invalid == 0 ? length : CONVERSION_FAILED;
}

void encodeUtf8(std::wstring const& source, char* destination) noexcept {
    for (wchar_t const* at = source.c_str(); *at != L'\0'; ++at) {
        auto const code = toCode(*at);
        if (code < 0x80) {
            *destination++ = static_cast<char>(code);
        } else {
            destination = writeCharacter(destination, code);
        }
    }
    *destination = '\0';
}

} // namespace vesk::detail
