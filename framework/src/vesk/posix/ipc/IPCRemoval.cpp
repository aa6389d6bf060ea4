#include "IPCRemoval.h"

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

namespace vesk::detail {

namespace {

// A denied permission is reported as such first, and then as a failed removal like any other error.
constexpr ErrnoRow DENIED_ERRORS[] = {
    {{EACCES, EPERM}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {OTHERS, NONE, NONE, Outcome::DONE},
};

constexpr ErrnoRow ERRORS[] = {
    {{ENOENT}, NONE, NONE, Outcome::DONE},
    {OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
};

} // namespace

bool classifyRemoval(Place place, int result, char const* name) noexcept {
    if (result == 0) {
        return false;
    }
    int const error = errno;
    bool const denied = classify(place, DENIED_ERRORS, error, name) == Outcome::FAILED;
    return classify(place, ERRORS, error, name, denied ? Chain::ON_TOP : Chain::NEW) == Outcome::FAILED;
}

} // namespace vesk::detail
