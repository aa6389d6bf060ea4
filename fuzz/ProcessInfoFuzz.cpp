// Fuzzes ProcessInfo. The input is the content of /proc/PID/stat, a null byte, and that of /proc/PID/statm.

#include "Check.h"
#include "Replaced.h"

#include <vesk/ProcessInfo.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

using vesk::ProcessInfo;

/// Returns the name in the content of "stat": the text between the first "(" and the last ")".
bool findName(std::string const& stat, std::string& name) {
    size_t const begin = stat.find('(');
    size_t const end = stat.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return false;
    }
    name = stat.substr(begin + 1, end - begin - 1);
    return true;
}

/// Returns the words after the name, none unless the kernel could have written them: a letter and small
/// numbers.
std::vector<std::string> getFields(std::string const& stat) {
    std::string const rest = stat.substr(std::min(stat.rfind(')') + 1, stat.size()));
    std::istringstream words(rest);
    std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    auto const is_number = [](std::string const& text) {
        return text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
    };
    bool const is_ordinary = fields.size() >= 18 && fields[0].size() == 1 &&
        rest.compare(0, 3, " " + fields[0] + " ") == 0 &&
        std::all_of(fields.begin() + 1, fields.begin() + 18, is_number);
    return is_ordinary ? fields : std::vector<std::string>();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const input(reinterpret_cast<char const*>(data), size);
    size_t const separator = std::min(input.find('\0'), size);
    std::string const stat = input.substr(0, std::min<size_t>(separator, 1023));
    std::string const statm = input.substr(std::min(separator + 1, size));
    fuzz::s_files[0] = {"/stat", stat, 0};
    fuzz::s_files[1] = {"/statm", statm, 0};

    ProcessInfo info(getpid());
    info.init();
    fuzz::check(fuzz::s_files[0].opened == 1 && fuzz::s_files[1].opened == 1, "both files are read");
    fuzz::check(info.valid != std::ErrorStorage::isError(true), "either a snapshot or a report");
    std::ErrorStorage::ack();

    std::string name;
    bool const has_name = findName(stat, name);
    fuzz::check(((info.available & ProcessInfo::NAME) != 0) == has_name, "the name is found where it is");
    fuzz::check(info.name == name, "the name is that of the reference");
    fuzz::check(!info.valid || info.available == 31, "a valid snapshot is complete");
    std::vector<std::string> const fields = getFields(stat);
    if (info.valid && !fields.empty()) {
        auto const milliseconds = static_cast<uint32_t>(1000U * std::stoul(fields[11])) /
            static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
        fuzz::check(info.user_time == milliseconds, "the user time is the twelfth field");
        fuzz::check(info.threads == std::stoul(fields[17]), "the threads are the eighteenth field");
    }
    fuzz::check(
        ProcessInfo::getCpuLoad(info, info) == (info.valid ? 0.0 : -1.0) ||
            (info.available & ProcessInfo::SYSTEM_TIME) != 0,
        "no time has passed between a snapshot and itself");
    std::ErrorStorage::ack();
    return 0;
}
