// Fuzzes the environment variable TARN_TRACE. The first line of the input is the name of a channel, the rest
// the value of the variable.

#include "Check.h"

#include <tarncommon/tracing/Channel.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr short FALLBACK = 7;

/// Reference implementation: the first entry of the channel decides. Its level is a decimal number.
short getThreshold(std::string const& name, std::string const& list) {
    for (size_t at = 0; at <= list.size();) {
        size_t const end = std::min(list.find(',', at), list.size());
        std::string const entry = list.substr(at, end - at);
        if (entry.compare(0, name.size() + 1, name + "=") == 0) {
            std::string level = entry.substr(name.size() + 1);
            level.erase(0, level.find_first_not_of(" \t\n\v\f\r"));
            size_t const sign = !level.empty() && (level[0] == '-' || level[0] == '+') ? 1 : 0;
            size_t const digits = std::max(sign, std::min(level.find_first_not_of('0', sign), level.size()));
            if (level.size() == sign || level.find_first_not_of("0123456789", sign) != std::string::npos ||
                level.size() - digits > 5) {
                return FALLBACK;
            }
            int const value = std::stoi("0" + level.substr(digits)) * (level[0] == '-' ? -1 : 1);
            return value >= INT16_MIN && value <= INT16_MAX ? static_cast<short>(value) : FALLBACK;
        }
        at = end + 1;
    }
    return FALLBACK;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string input(reinterpret_cast<char const*>(data), size);
    input.erase(std::min(input.find('\0'), input.size()));
    size_t const line_end = std::min(input.find('\n'), input.size());
    std::string const name = input.substr(0, line_end);
    std::string const list = input.substr(std::min(line_end + 1, input.size()));
    // A name with a comma or an equals sign cannot be told from the list's own.
    if (name.find_first_of(",=") != std::string::npos) {
        return 0;
    }
    setenv("TARN_TRACE", list.c_str(), 1);
    tracing::Channel const channel(name, FALLBACK, 0);
    fuzz::check(channel.m_threshold == getThreshold(name, list), "the threshold is that of the reference");
    fuzz::check(tracing::Channel::setThreshold(name, 3), "the channel is found by its name");
    fuzz::check(channel.m_threshold == 3, "its threshold can be set");
    return 0;
}
