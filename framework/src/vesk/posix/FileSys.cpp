#include <vesk/FileSys.h>

#include "ErrnoTable.h"

#include <vesk/SysError.h>

#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/FileSys";

constexpr ErrnoRow CURRENT_WD_ERRORS[] = {
    {{ENOENT}, {SysError, 2}}, {{ENOMEM}, {SysError, 1}},
    {{EACCES}, {SysError, 7}}, {{EFAULT, EINVAL, ERANGE}, {SysError, 10}},
    {OTHERS, {SysError, 19}},
};

} // namespace

bool FileSys::currentWD(std::string& result) {
    char directory[4096];
    if (getcwd(directory, sizeof directory) == nullptr) {
        classify(SOURCE, CURRENT_WD_ERRORS, errno);
        return true;
    }
    result = directory;
    return false;
}

} // namespace vesk
