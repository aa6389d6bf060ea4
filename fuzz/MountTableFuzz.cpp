// Fuzzes FileSys::getMountPoints. The input is the content of /proc/mounts.

#include "Check.h"
#include "Replaced.h"

#include <vesk/FileSys.h>

#include <tarncommon/error/ErrorStorage.h>

#include <list>
#include <string>

namespace {

/// Reference implementation: a device up to a blank, a mount point up to a blank, and the rest of the line.
std::list<std::string> getMountPoints(std::string const& text) {
    std::list<std::string> result;
    for (size_t at = 0;;) {
        size_t const device_end = text.find(' ', at);
        if (device_end == std::string::npos) {
            return result;
        }
        size_t const end = text.find(' ', device_end + 1);
        std::string const mount_point = text.substr(device_end + 1, end - device_end - 1);
        if (!mount_point.empty()) {
            result.push_back(mount_point);
        }
        size_t const line_end = end == std::string::npos ? end : text.find('\n', end + 1);
        if (line_end == std::string::npos) {
            return result;
        }
        at = line_end + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    // The kernel returns whole lines; a longer text would be read in two parts that end anywhere.
    if (size > 4096) {
        return 0;
    }
    std::string const text(reinterpret_cast<char const*>(data), size);
    fuzz::s_files[0] = {"/mounts", text, 0};
    std::list<std::string> const result = vesk::FileSys::getMountPoints();
    fuzz::check(fuzz::s_files[0].opened == 1, "the file is read");
    fuzz::check(result == getMountPoints(text), "the mount points are those of the reference");
    fuzz::check(!std::ErrorStorage::isError(true), "nothing is reported");
    return 0;
}
