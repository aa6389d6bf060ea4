// Fuzzes ProcessTNG::getProcessId. The input is the content of /proc/PID/cmdline of this process.

#include "Check.h"
#include "Replaced.h"

#include <vesk/PathParts.h>
#include <vesk/ProcessTNG.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

bool isFound(std::string const& name, bool exact) {
    fuzz::s_files[0].opened = 0;
    std::vector<int> pids;
    vesk::ProcessTNG::getProcessId(name, pids, exact);
    fuzz::check(fuzz::s_files[0].opened == 1, "the file is read");
    fuzz::check(!std::ErrorStorage::isError(true), "nothing is reported");
    return std::find(pids.begin(), pids.end(), getpid()) != pids.end();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static std::string const suffix = "/" + std::to_string(getpid()) + "/cmdline";
    std::string const text(reinterpret_cast<char const*>(data), size);
    fuzz::s_files[0] = {suffix.c_str(), text, 0};

    // A line break ends the text at an unspecified position.
    std::string const command = text.substr(0, text.find('\0'));
    if (command.find('\n') != std::string::npos) {
        isFound(command, true);
        return 0;
    }
    fuzz::check(isFound(command, true) == !command.empty(), "the first argument finds the process");
    fuzz::check(!isFound(command + "x", true), "another text does not");
    std::string const name = vesk::PathParts(command).name;
    fuzz::check(isFound(name, false) == !command.empty(), "so does its last component");
    return 0;
}
