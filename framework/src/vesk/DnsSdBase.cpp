#include <vesk/DnsSdBase.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vesk {

namespace {

/// Returns whether a code point must not appear in a name for display.
constexpr bool isUnfit(unsigned int code_point) noexcept {
    if (code_point < 32) {
        return code_point != '\n' && code_point != '\f' && code_point != '\r';
    }
    // The upper bound is this number, not the end of Unicode.
    return (code_point >= 127 && code_point <= 159) || (code_point >= 0xD800 && code_point <= 0xF8FF) ||
        code_point > 0x10FFF;
}

/// Returns the value of a decimal digit, more than 9 for any other byte.
constexpr unsigned int digitValue(char byte) noexcept {
    return static_cast<unsigned int>(byte) - '0';
}

} // namespace

DnsSdBase::Txt const DnsSdBase::Txt::EMPTY;

std::unicode::String DnsSdBase::sanitize(std::unicode::String const& name) {
    auto const end = name.end();
    auto const first = std::find_if(name.begin(), end, [](unsigned int c) { return c != std::unicode::BOM; });
    auto at = std::find_if(first, end, isUnfit);
    std::unicode::String result = name.substr(first, at);
    for (; at != end; ++at) {
        result += isUnfit(*at) ? std::unicode::REPLACEMENT_CHAR : *at;
    }
    return result;
}

std::string DnsSdBase::unescape(char const*& cursor, char const* stop_chars) {
    std::string result;
    while (*cursor != '\0' && strchr(stop_chars, *cursor) == nullptr) {
        char const byte = *cursor++;
        if (byte != '\\') {
            result += byte;
            continue;
        }
        if (*cursor == '\0') {
            break;
        }
        unsigned int value = digitValue(*cursor);
        if (value > 9) {
            result += *cursor++;
            continue;
        }
        ++cursor;
        for (int i = 0; i < 2; ++i) {
            unsigned int const digit = digitValue(*cursor++);
            if (digit > 9) {
                return result; // After the bad byte, even after the terminating zero.
            }
            value = (value & 255) * 10 + digit;
        }
        result += static_cast<char>(value);
    }
    return result;
}

DnsSdBase::Txt::Txt() = default;

DnsSdBase::Txt::Txt(unsigned short size, void const* data) {
    auto const* at = static_cast<char const*>(data);
    char const* const end = at + size;
    while (at != end) {
        auto const length = static_cast<uint8_t>(*at++);
        if (length > end - at) {
            return;
        }
        std::string_view const text(at, length);
        at += length;
        size_t const separator = text.find('=');
        if (separator == std::string_view::npos) {
            continue;
        }
        // Records are usually sorted, and `data` always sorts them: so the next key belongs at the end.
        insert_or_assign(this->end(), std::string(text.substr(0, separator)), text.substr(separator + 1));
    }
}

std::Buf DnsSdBase::Txt::data() const {
    size_t size = 0;
    for (auto const& [key, value] : *this) {
        size += key.length() + value.length() + 2;
    }
    if (size == 0) {
        return std::Buf(1);
    }
    std::Buf result(static_cast<unsigned int>(size));
    if (!result.isValid()) {
        return result;
    }
    unsigned char* at = result.data;
    for (auto const& [key, value] : *this) {
        *at++ = static_cast<unsigned char>(
            key.length() + 1 + value.length()); // Wraps when the entry is too long.
        at = std::copy(key.begin(), key.end(), at);
        *at++ = '=';
        at = std::copy(value.begin(), value.end(), at);
    }
    return result;
}

DnsSdBase::Client::~Client() = default;

void DnsSdBase::Client::service_appeared(
    std::unicode::String const&, std::string const&, std::string const&) {}

void DnsSdBase::Client::service_disappeared(
    std::unicode::String const&, std::string const&, std::string const&) {}

void DnsSdBase::Client::all_for_now() {}

void DnsSdBase::Client::resolved(
    std::unicode::String const&, std::string const&, std::string const&, std::string const&, unsigned short,
    Txt const&) {}

void DnsSdBase::Client::address(std::string const&, std::string const&) {}

} // namespace vesk
