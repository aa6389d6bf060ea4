#include <vesk/PathParts.h>

namespace vesk {

namespace {

void trimSeparators(std::string& directory, size_t root_length) {
    size_t const last = directory.find_last_not_of('/');
    size_t const length = last == std::string::npos ? 0 : last + 1;
    directory.resize(length > root_length ? length : root_length);
}

} // namespace

PathParts::PathParts(std::string const& path) : directory(path) {
    if (path.empty()) {
        return;
    }
    size_t const root_length = path.front() == '/' ? 1 : 0;
    trimSeparators(directory, root_length);
    if (directory.length() == root_length) {
        name = directory;
        return;
    }
    size_t const separator = directory.rfind('/');
    if (separator == std::string::npos) {
        name.swap(directory);
        directory = ".";
        return;
    }
    name = directory.substr(separator + 1);
    directory.resize(separator + 1);
    trimSeparators(directory, root_length);
}

} // namespace vesk
