// Fuzzes Path, PathParts and WidePath. The input is a path.

#include "Check.h"

#include <vesk/Path.h>
#include <vesk/PathParts.h>
#include <vesk/WidePath.h>

#include <tarncommon/error/ErrorStorage.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <libgen.h>
#include <string>
#include <vector>

namespace {

using vesk::Path;
using vesk::PathParts;
using vesk::WidePath;

void checkParts(std::string const& path) {
    PathParts const parts(path);
    if (path.empty()) {
        fuzz::check(parts.directory.empty() && parts.name.empty(), "an empty path has no parts");
        return;
    }
    std::vector<char> for_name(path.c_str(), path.c_str() + path.size() + 1);
    std::vector<char> for_directory(for_name);
    fuzz::check(parts.name == basename(for_name.data()), "the name is that of basename");
    std::string const directory = dirname(for_directory.data());
    // The C library keeps two leading separators.
    fuzz::check(parts.directory == (directory == "//" ? "/" : directory), "the directory is that of dirname");
}

void checkAbsolute(Path const& path) {
    Path const absolute = path.getAbsolute();
    std::string const expected = !path.empty() && path[0] == '/'
        ? std::string(path)
        : std::filesystem::current_path().string() + "/" + path;
    fuzz::check(absolute == expected, "the absolute path begins at the root");
    WidePath const wide(path.c_str());
    if (wide.isValid()) {
        WidePath const wide_absolute = wide.getAbsolute();
        fuzz::check(wide_absolute.isValid(), "the working directory can be converted");
        fuzz::check(std::string(wide_absolute) == expected, "both kinds of path agree");
    }
}

void checkCanonical(Path const& path) {
    char buffer[PATH_MAX];
    char const* const real = realpath(path.c_str(), buffer);
    fuzz::check(path.getCanonicalized() == (real != nullptr ? real : ""), "the path is that of realpath");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static char const* const locale = setlocale(LC_ALL, "C.UTF-8");
    fuzz::check(locale != nullptr, "there is a locale with UTF-8");
    std::string const text(reinterpret_cast<char const*>(data), size);
    Path const path = text.substr(0, text.find('\0'));
    checkParts(path);
    checkAbsolute(path);
    checkCanonical(path);
    fuzz::check(!std::ErrorStorage::isError(true), "nothing is reported");
    return 0;
}
