#include <vesk/UserFS.h>

#include "vesk/common/Report.h"

#include <vesk/SysError.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/UserFS";

} // namespace

bool UserFS::mount(char const*, IFileSystem*) {
    report(SOURCE, Chain::NEW, SysErrorId::NOT_IMPLEMENTED, "No FUSE available");
    return true;
}

} // namespace vesk
