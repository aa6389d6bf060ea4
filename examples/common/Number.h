#pragma once

#include <charconv>
#include <string_view>

namespace examples {

/// Reads a decimal number that is the whole of an argument.
/// @return whether it is one, and between `least` and `most`
inline bool readNumber(std::string_view text, unsigned int least, unsigned int most, unsigned int& number) {
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= least && number <= most;
}

} // namespace examples
