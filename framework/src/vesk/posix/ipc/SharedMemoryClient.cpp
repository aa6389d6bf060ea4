#include <vesk/SharedMemoryClient.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SysError.h>

#include <fcntl.h>
#include <sys/mman.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SharedMemoryClient";

constexpr ErrnoRow ATTACH_ERRORS[] = {
    {{ENOENT}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{EINVAL, ENOTSUP}, SysErrorId::NOT_IMPLEMENTED},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENAMETOOLONG}, {SysErrorId::PATH_TOO_LONG, Telling::NAME_AND_LENGTH}, FileAccessErrorId::BAD_PATH},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

static_assert(O_RDONLY == 0 && O_RDWR == MemMapping::WRITE);

} // namespace

bool SharedMemoryClient::attach(char const* name, MemMapping::MemAccessFlags const& flags) {
    if (isValid() && close()) {
        return true;
    }
    char system_name[IPC_NAME_SIZE];
    if (transformToIPCIdentifier(name, system_name, sizeof system_name)) {
        return true;
    }
    int const direction = static_cast<int>(flags.getWord() & MemMapping::WRITE);
    descriptor = retryOnEintr([&] { return shm_open(system_name, direction, 0); });
    if (descriptor == -1) {
        classify(SOURCE, ATTACH_ERRORS, errno, system_name);
        return true;
    }
    return false;
}

} // namespace vesk
