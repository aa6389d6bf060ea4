#include <vesk/Path.h>

#include "MallocedText.h"

#include <vesk/FileSys.h>

#include <tarncommon/error/ErrorStorage.h>

namespace vesk {

using namespace detail;

Path Path::getAbsolute() const {
    if (!empty() && front() == '/') {
        return *this;
    }
    Path result;
    if (FileSys::currentWD(result)) {
        std::ErrorStorage::ack();
        return result;
    }
    result += '/';
    result += *this;
    return result;
}

Path Path::getCanonicalized() const {
    MallocedText const resolved(realpath(c_str(), nullptr));
    return resolved != nullptr ? Path(resolved.get()) : Path();
}

} // namespace vesk
