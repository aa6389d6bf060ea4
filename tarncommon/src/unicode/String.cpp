#include <tarncommon/unicode/String.h>

#include <algorithm>
#include <utility>

namespace std::unicode {

namespace {

/// The sequence that a first byte begins: how many bytes follow, and the range of the first of them. The
/// range excludes overlong forms, surrogates and values beyond U+10FFFF.
struct Lead {
    unsigned int following;
    unsigned char lowest;
    unsigned char highest;
    unsigned char bits; // Mask of the bits that belong to the code point; 0 if the byte begins no sequence.
};

Lead classifyLead(unsigned char byte) noexcept {
    if (byte < 0x80) {
        return {0, 0x80, 0xBF, 0x7F};
    }
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {1, 0x80, 0xBF, 0x1F};
    }
    if (byte >= 0xE0 && byte <= 0xEF) {
        auto const lowest = static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80);
        auto const highest = static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF);
        return {2, lowest, highest, 0x0F};
    }
    if (byte >= 0xF0 && byte <= 0xF4) {
        auto const lowest = static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80);
        auto const highest = static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF);
        return {3, lowest, highest, 0x07};
    }
    return {0, 0x80, 0xBF, 0};
}

/// Decodes one code point and moves `at` behind it, or behind the malformed sequence that `REPLACEMENT_CHAR`
/// stands for.
char32_t decode(unsigned char const*& at, unsigned char const* end) noexcept {
    Lead const lead = classifyLead(*at);
    if (lead.bits == 0) {
        ++at;
        return REPLACEMENT_CHAR;
    }
    char32_t code_point = *at & lead.bits;
    ++at;
    unsigned char lowest = lead.lowest;
    unsigned char highest = lead.highest;
    for (unsigned int i = 0; i < lead.following; ++i) {
        if (at == end || *at < lowest || *at > highest) {
            return REPLACEMENT_CHAR;
        }
        code_point = code_point << 6 | (*at & 0x3F);
        ++at;
        lowest = 0x80;
        highest = 0xBF;
    }
    return code_point;
}

void append(string& text, char32_t code_point) {
    auto const follow = [code_point](unsigned int shift) {
        return static_cast<char>(0x80 | (code_point >> shift & 0x3F));
    };
    if (code_point < 0x80) {
        text += static_cast<char>(code_point);
    } else if (code_point < 0x800) {
        text += {static_cast<char>(0xC0 | code_point >> 6), follow(0)};
    } else if (code_point < 0x10000) {
        text += {static_cast<char>(0xE0 | code_point >> 12), follow(6), follow(0)};
    } else {
        text += {static_cast<char>(0xF0 | code_point >> 18), follow(12), follow(6), follow(0)};
    }
}

} // namespace

String::String() noexcept = default;
String::String(String const& other) = default;
String::String(String&& other) noexcept = default;
String& String::operator=(String const& other) = default;
String& String::operator=(String&& other) noexcept = default;
String::~String() = default;

String String::fromUTF8(string const& text) {
    u32string result;
    result.reserve(text.size());
    auto const* at = reinterpret_cast<unsigned char const*>(text.data());
    auto const* const end = at + text.size();
    while (at != end) {
        result += decode(at, end);
    }
    return String(std::move(result));
}

string String::toUTF8() const {
    string result;
    result.reserve(m_text.size());
    for (char32_t const element : m_text) {
        bool const broken = element > 0x10FFFF || (element >= 0xD800 && element <= 0xDFFF);
        append(result, broken ? REPLACEMENT_CHAR : element);
    }
    return result;
}

String String::substr(int first, int count) const {
    size_t const from = min(static_cast<size_t>(max(first, 0)), m_text.size());
    return String(m_text.substr(from, static_cast<size_t>(max(count, 0))));
}

String String::substr(Iterator const& begin, Iterator const& end) const {
    return begin < end ? String(u32string(begin.m_at, end.m_at)) : String();
}

} // namespace std::unicode
