// Fuzzes SystemLoad. The input is the content of /proc/uptime at two times, separated by a null byte.

#include "Check.h"
#include "Replaced.h"

#include <vesk/SystemLoad.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <string>

namespace {

using vesk::SystemLoad;

/// Returns the second of two decimal numbers, a negative value for any other text.
double getIdleSeconds(std::string const& text) {
    size_t const blank = text.find(' ');
    size_t const end = std::min(text.find('\n'), text.size());
    if (blank == std::string::npos || blank == 0 || blank + 1 >= end || end > 40 ||
        text.find_first_not_of("0123456789", 0) != blank ||
        text.find_first_not_of("0123456789", blank + 1) < end) {
        return -1.0;
    }
    return std::stod(text.substr(blank + 1, end - blank - 1));
}

SystemLoad sample(std::string const& text) {
    fuzz::s_files[0] = {"/uptime", text, 0};
    SystemLoad load;
    bool const failed = load.sample();
    fuzz::check(failed == std::ErrorStorage::isError(true), "a failure is reported");
    fuzz::check(load.valid == !failed, "a failed snapshot is not valid");
    std::ErrorStorage::ack();
    double const seconds = getIdleSeconds(text);
    if (seconds >= 0.0) {
        vesk::Vesk::SystemInfo const system;
        fuzz::check(load.valid, "two numbers are a snapshot");
        fuzz::check(
            load.idle == seconds * 1000.0 / static_cast<double>(system.processor_count),
            "the idle time is the second number");
    }
    return load;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static vesk::Vesk const vesk(true, false);
    std::string const input(reinterpret_cast<char const*>(data), size);
    size_t const separator = std::min(input.find('\0'), size);
    SystemLoad const start = sample(input.substr(0, separator));
    SystemLoad end = sample(input.substr(std::min(separator + 1, size)));
    end.timestamp = start.timestamp + 1000;
    double const load = SystemLoad::getCpuLoad(start, end);
    bool const is_valid = start.valid && end.valid;
    fuzz::check(is_valid ? load >= 0.0 && load <= 100.0 : load == -1.0, "a load is a percentage");
    std::ErrorStorage::ack();
    return 0;
}
