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
    {{ENOENT}, {SysError, 2}, {FileAccessError, 0}},
    // Not row 7 as for the server: a client without the right asked for the wrong queue.
    {{EACCES}, {SysError, 8}, {FileAccessError, 3}},
    {{ENFILE, EMFILE}, {SysError, 0}},
    {{ENAMETOOLONG}, {SysError, 4, Telling::NAME_AND_LENGTH}, {FileAccessError, 0}},
    {OTHERS, {SysError, 19}},
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
