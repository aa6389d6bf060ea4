// Fuzzes DnsSdBase::sanitize. The input is a text in UTF-32, little endian. Any 32 bits are a character.

#include "Check.h"

#include <vesk/DnsSdBase.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

using std::unicode::BOM;
using std::unicode::REPLACEMENT_CHAR;
using std::unicode::String;
using vesk::DnsSdBase;

bool isFit(unsigned int c) {
    bool const is_control = c <= 9 || c == 11 || (c >= 14 && c <= 31) || (c >= 127 && c <= 159);
    return !is_control && c <= 0x10FFF && (c < 0xD800 || c > 0xF8FF);
}

String makeText(uint8_t const* data, size_t size) {
    String text;
    for (size_t i = 0; i + 4 <= size; i += 4) {
        text += static_cast<unsigned int>(data[i]) | static_cast<unsigned int>(data[i + 1]) << 8 |
            static_cast<unsigned int>(data[i + 2]) << 16 | static_cast<unsigned int>(data[i + 3]) << 24;
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    String const text = makeText(data, size);
    String const result = DnsSdBase::sanitize(text);

    std::vector<unsigned int> expected(text.begin(), text.end());
    while (!expected.empty() && expected.front() == BOM) {
        expected.erase(expected.begin());
    }
    for (unsigned int& c : expected) {
        c = isFit(c) ? c : REPLACEMENT_CHAR;
    }
    fuzz::check(
        std::vector<unsigned int>(result.begin(), result.end()) == expected,
        "each character is itself or the replacement");
    fuzz::check(DnsSdBase::sanitize(result) == result, "a clean name stays as it is");

    // A sanitized name survives the conversion to UTF-8 and back.
    fuzz::check(String::fromUTF8(result.toUTF8()) == result, "a clean name can be written in UTF-8");
    return 0;
}
