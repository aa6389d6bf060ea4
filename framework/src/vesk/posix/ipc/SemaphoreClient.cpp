#include <vesk/SemaphoreClient.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SysError.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SemaphoreClient";

constexpr ErrnoRow ATTACH_ERRORS[] = {
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{ENOENT, EINVAL, ENAMETOOLONG}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    {{EEXIST, ENOSPC}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
    {OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
};

} // namespace

bool SemaphoreClient::attach(char const* name) {
    if (isValid() && close()) {
        return true;
    }
    char system_name[IPC_NAME_SIZE];
    if (transformToIPCIdentifier(name, system_name, sizeof system_name)) {
        return true;
    }
    sem_t* const opened = retryOnEintr([&] { return sem_open(system_name, 0); }, SEM_FAILED);
    if (opened == SEM_FAILED) {
        classify(SOURCE, ATTACH_ERRORS, errno, name);
        return true;
    }
    setSemaphore(opened);
    return false;
}

} // namespace vesk
