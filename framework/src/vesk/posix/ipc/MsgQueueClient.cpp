#include <vesk/MsgQueueClient.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/IPCIdentifier.h>
#include <vesk/SysError.h>

#include <fcntl.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/MsgQueueClient";

constexpr ErrnoRow ATTACH_ERRORS[] = {
    {{ENOENT}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    // Not `PERMISSION_DENIED` as in `MsgQueueServer`: a client without the permission has asked for the wrong
    // queue.
    {{EACCES}, SysErrorId::INVALID_PARAMETER, FileAccessErrorId::ACCESS_DENIED},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENAMETOOLONG}, {SysErrorId::PATH_TOO_LONG, Telling::NAME_AND_LENGTH}, FileAccessErrorId::BAD_PATH},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

} // namespace

bool MsgQueueClient::attach(char const* name) {
    if (isValid() && close()) {
        return true;
    }
    char system_name[IPC_NAME_SIZE];
    if (transformToIPCIdentifier(name, system_name, sizeof system_name)) {
        return true;
    }
    queue = retryOnEintr([&] { return mq_open(system_name, O_RDWR); });
    if (!isValid()) {
        classify(SOURCE, ATTACH_ERRORS, errno, system_name);
        return true;
    }
    return false;
}

} // namespace vesk
