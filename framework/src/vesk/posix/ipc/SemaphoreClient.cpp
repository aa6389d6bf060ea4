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
    {{EINTR}, NONE, NONE, Outcome::REPEAT},
    {{EACCES}, {SysError, 7}, {FileAccessError, 3}},
    {{ENOENT, EINVAL, ENAMETOOLONG}, {SysError, 2}, {FileAccessError, 0}},
    {{ENFILE, EMFILE}, {SysError, 0}, {FileAccessError, 6}},
    {{EEXIST, ENOSPC}, {SysError, 10}, {FileAccessError, 9}},
    {OTHERS, {SysError, 19}, {FileAccessError, 9}},
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
    for (;;) {
        sem_t* const opened = sem_open(system_name, 0);
        if (opened != SEM_FAILED) {
            setSemaphore(opened);
            return false;
        }
        if (classify(SOURCE, ATTACH_ERRORS, errno, name) != Outcome::REPEAT) {
            return true;
        }
    }
}

} // namespace vesk
