#include "IPCRemoval.h"

#include "ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

namespace vesk::detail {

namespace {

constexpr ErrnoRow DENIED_ERRORS[] = {
    {OTHERS, {SysError, 7}, {FileAccessError, 3}},
};

constexpr ErrnoRow ERRORS[] = {
    {OTHERS, {SysError, 19}, {FileAccessError, 9}},
};

} // namespace

bool classifyRemoval(Place place, int result, char const* name) noexcept {
    if (result == 0) {
        return false;
    }
    int const error = errno;
    if (error == ENOENT) {
        return false;
    }
    bool const denied = error == EACCES || error == EPERM;
    if (denied) {
        classify(place, DENIED_ERRORS, error, name);
    }
    classify(place, ERRORS, error, name, denied ? Chain::ON_TOP : Chain::NEW);
    return true;
}

} // namespace vesk::detail
