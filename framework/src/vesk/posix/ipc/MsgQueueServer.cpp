#include <vesk/MsgQueueServer.h>

#include "IPCRemoval.h"
#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <fcntl.h>
#include <iterator>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/MsgQueueServer";

constexpr ErrnoRow CREATION_ERRORS[] = {
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
    {{EINVAL}, SysErrorId::INVALID_PARAMETER},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
    {{ENAMETOOLONG}, {SysErrorId::PATH_TOO_LONG, Telling::NAME_AND_LENGTH}, FileAccessErrorId::BAD_PATH},
    {OTHERS, SysErrorId::UNCLASSIFIED}, // Includes ENOENT: `create` does not need an existing queue.
};

/// The flags of `mq_open`, indexed by the strategy.
constexpr int FLAGS[] = {
    O_CREAT | O_EXCL | O_RDWR,
    O_CREAT | O_RDWR,
    O_CREAT | O_EXCL | O_RDWR,
};
static_assert(Creatable::CREATE_NEW == 0 && Creatable::OPEN_OR_CREATE == 1 && Creatable::REPLACE == 2);

/// Removes a name from the system. Returns true on failure.
bool removeName(char const* name) {
    return classifyRemoval(SOURCE, mq_unlink(name), name);
}

} // namespace

MsgQueueServer::~MsgQueueServer() = default;

bool MsgQueueServer::create(
    char const* client_name, unsigned int msg_size, unsigned int max_msgs,
    Creatable::CreationStrategy const& strategy) {
    if (isValid() && close()) {
        return true;
    }
    if (transformToIPCIdentifier(client_name, name, sizeof name)) {
        name[0] = '\0';
        return true;
    }
    if (static_cast<unsigned int>(strategy) >= std::size(FLAGS)) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "Unsupported strategy passed");
        name[0] = '\0';
        return true;
    }
    if (open(FLAGS[strategy], msg_size, max_msgs, strategy == REPLACE)) {
        // The name may belong to a queue that this object did not create.
        name[0] = '\0';
        return true;
    }
    return false;
}

bool MsgQueueServer::open(int flags, unsigned int msg_size, unsigned int max_msgs, bool replace) {
    mq_attr attributes{};
    attributes.mq_maxmsg = static_cast<long>(max_msgs);
    attributes.mq_msgsize = static_cast<long>(msg_size);
    for (;;) {
        queue = retryOnEintr([&] { return mq_open(name, flags, 0600, &attributes); });
        if (isValid()) {
            return false;
        }
        int const error = errno;
        classify(SOURCE, CREATION_ERRORS, error, name);
        if (error != EEXIST || !replace) {
            return true;
        }
        std::ErrorStorage::ack();
        if (removeName(name)) {
            return true;
        }
    }
}

bool MsgQueueServer::close() {
    bool const kept = isUnlinkOnClose() && deleteName();
    return MsgQueueBase::close() || kept;
}

bool MsgQueueServer::deleteName() {
    return deleteOwnName<removeName>(name);
}

bool MsgQueueServer::deleteName(char const* client_name) {
    return deleteNameOfClient<removeName>(client_name);
}

} // namespace vesk
