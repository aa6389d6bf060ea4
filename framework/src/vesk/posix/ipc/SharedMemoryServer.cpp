#include <vesk/SharedMemoryServer.h>

#include "IPCRemoval.h"
#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SharedMemoryServer";

constexpr ErrnoRow CREATE_ERRORS[] = {
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
    {{EINVAL, ENOTSUP}, SysErrorId::NOT_IMPLEMENTED},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
    {{EPIPE, ENOSYS}, SysErrorId::NO_DEVICE},
    {{ENAMETOOLONG}, {SysErrorId::PATH_TOO_LONG, Telling::NAME_AND_LENGTH}, FileAccessErrorId::BAD_PATH},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SIZE_ERRORS[] = {
    {{EINVAL, EFBIG}, SysErrorId::INVALID_PARAMETER},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

int flagsOf(Creatable::CreationStrategy strategy) noexcept {
    switch (strategy) {
    case Creatable::CREATE_NEW:
    case Creatable::REPLACE:
        return O_CREAT | O_EXCL | O_RDWR;
    case Creatable::TRUNCATE:
        return O_CREAT | O_TRUNC | O_RDWR;
    case Creatable::OPEN_OR_CREATE:
        break;
    }
    return O_CREAT | O_RDWR;
}

/// Removes a name from the system. Returns true on failure.
bool removeName(char const* name) {
    return classifyRemoval(SOURCE, shm_unlink(name), name);
}

} // namespace

SharedMemoryServer::~SharedMemoryServer() {
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (isValid() && SharedMemoryServer::close()) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "~SharedMemoryServer", "Error closing SharedMemory");
        std::ErrorStorage::ack();
    }
}

bool SharedMemoryServer::close() {
    bool const unlinking_failed = isUnlinkOnClose() && deleteName();
    bool const closing_failed = SharedMemoryBase::close();
    return unlinking_failed || closing_failed;
}

bool SharedMemoryServer::create(
    char const* client_name, unsigned int size, CreationStrategy const& strategy) {
    if (isValid() && close()) {
        return true;
    }
    if (transformToIPCIdentifier(client_name, name, sizeof name) || openObject(strategy)) {
        *name = '\0'; // The name may belong to memory that this object did not create.
        return true;
    }
    if (strategy == OPEN_OR_CREATE && getSize() != 0) {
        return false;
    }
    return setSize(size);
}

bool SharedMemoryServer::openObject(CreationStrategy strategy) {
    int const flags = flagsOf(strategy);
    for (;;) {
        descriptor = retryOnEintr([&] { return shm_open(name, flags, 0600); });
        if (descriptor != -1) {
            return false;
        }
        int const error = errno;
        classify(SOURCE, CREATE_ERRORS, error, name);
        if (error != EEXIST || strategy != REPLACE) {
            return true;
        }
        std::ErrorStorage::ack();
        if (removeName(name)) {
            return true;
        }
    }
}

bool SharedMemoryServer::setSize(unsigned int size) {
    // A size is a signed 32-bit number in every build: one that is too large is negative, and `ftruncate`
    // rejects it.
    auto const length = static_cast<int32_t>(size);
    if (retryOnEintr([&] { return ftruncate(descriptor, length); }) == 0) {
        return false;
    }
    classify(SOURCE, SIZE_ERRORS, errno);
    if (close()) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "create", "shm_open() okay, ftruncate() failed, close() failed!");
    }
    return true;
}

bool SharedMemoryServer::deleteName() {
    return deleteOwnName<removeName>(name);
}

bool SharedMemoryServer::deleteName(char const* client_name) {
    return deleteNameOfClient<removeName>(client_name);
}

} // namespace vesk
