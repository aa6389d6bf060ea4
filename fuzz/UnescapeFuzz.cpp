// Fuzzes DnsSdBase::unescape. The first line of the input contains the stop characters, the rest is the name.

#include "Check.h"

#include <vesk/DnsSdBase.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using vesk::DnsSdBase;

std::string cutAtZero(std::string const& text) {
    return text.substr(0, text.find('\0'));
}

struct Piece {
    std::string text;
    size_t end; // The final position of the cursor.
};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Reference implementation that works on positions in the text. The terminating zero is part of the text.
Piece unescape(std::string const& name, size_t at, std::string const& stop_chars) {
    std::string result;
    for (;;) {
        char const c = name.c_str()[at];
        if (c == '\0' || stop_chars.find(c) != std::string::npos) {
            return {result, at};
        }
        if (c != '\\') {
            result += c;
            at += 1;
            continue;
        }
        char const a = name.c_str()[at + 1];
        if (a == '\0') {
            return {result, at + 1};
        }
        if (!isDigit(a)) {
            result += a;
            at += 2;
            continue;
        }
        char const b = name.c_str()[at + 2];
        if (!isDigit(b)) {
            return {result, at + 3};
        }
        char const d = name.c_str()[at + 3];
        if (!isDigit(d)) {
            return {result, at + 4};
        }
        result += static_cast<char>((a - '0') * 100 + (b - '0') * 10 + (d - '0'));
        at += 4;
    }
}

/// Returns the text form of a label, with every ambiguous byte escaped.
std::string escape(std::string const& label) {
    std::string result;
    for (char const c : label) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte > 32 && byte < 127 && c != '\\' && c != '.') {
            result += c;
        } else if (c == '\\' || c == '.') {
            result += '\\';
            result += c;
        } else {
            char digits[8];
            snprintf(digits, sizeof digits, "\\%03d", byte);
            result += digits;
        }
    }
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const input(reinterpret_cast<char const*>(data), size);
    size_t const line_end = std::min(input.find('\n'), size);
    std::string const stop_chars = cutAtZero(input.substr(0, line_end));
    std::string const name = cutAtZero(input.substr(std::min(line_end + 1, size)));

    // A separate allocation, so that the sanitizer detects a read beyond its end.
    std::vector<char> const text(name.c_str(), name.c_str() + name.size() + 1);
    size_t at = 0;
    for (;;) {
        char const* cursor = text.data() + at;
        std::string const piece = DnsSdBase::unescape(cursor, stop_chars.c_str());
        Piece const expected = unescape(name, at, stop_chars);
        fuzz::check(piece == expected.text, "the piece is that of the reference");
        fuzz::check(cursor == text.data() + expected.end, "the cursor is where the reference left it");
        at = expected.end;
        if (at >= name.size()) {
            break;
        }
        if (stop_chars.find(name[at]) != std::string::npos) {
            ++at;
        }
    }

    std::string const escaped = escape(name);
    char const* cursor = escaped.c_str();
    fuzz::check(DnsSdBase::unescape(cursor, ".") == name, "what was escaped comes back");
    fuzz::check(*cursor == '\0', "nothing of it stops");
    return 0;
}
