#include <vesk/SemaphoreCreator.h>

#include "IPCRemoval.h"
#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <fcntl.h>
#include <iterator>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SemaphoreCreator";

constexpr ErrnoRow CREATION_ERRORS[] = {
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
    {{EINVAL, ENAMETOOLONG}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    {{ENOSPC}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
    {OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow REMOVAL_ERRORS[] = {
    {{ENOENT}, NONE, NONE, Outcome::DONE},
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
};

/// The flags of `sem_open`, indexed by the strategy.
constexpr int FLAGS[] = {
    O_CREAT | O_EXCL,
    O_CREAT,
    O_CREAT | O_EXCL,
};
static_assert(Creatable::CREATE_NEW == 0 && Creatable::OPEN_OR_CREATE == 1 && Creatable::REPLACE == 2);

/// Removes a name from the system. Returns true on failure.
bool removeName(char const* name) {
    return sem_unlink(name) != 0 && classify(SOURCE, REMOVAL_ERRORS, errno, name) != Outcome::DONE;
}

} // namespace

SemaphoreCreator::~SemaphoreCreator() {
    KeptErrorChain const kept_chain;
    if (SemaphoreCreator::close()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~SemaphoreCreator", "error closing semaphore");
        std::ErrorStorage::ack();
    }
}

bool SemaphoreCreator::create(
    char const* client_name, unsigned int value, Creatable::CreationStrategy strategy) {
    if (isValid() && close()) {
        return true;
    }
    if (transformToIPCIdentifier(client_name, name, sizeof name)) {
        return true;
    }
    if (static_cast<unsigned int>(strategy) >= std::size(FLAGS)) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "Unsupported strategy passed");
        return true;
    }
    for (;;) {
        sem_t* const opened =
            retryOnEintr([&] { return sem_open(name, FLAGS[strategy], 0600, value); }, SEM_FAILED);
        if (opened != SEM_FAILED) {
            setSemaphore(opened);
            return false;
        }
        int const error = errno;
        classify(SOURCE, CREATION_ERRORS, error, name);
        if (error != EEXIST || strategy != REPLACE) {
            return true;
        }
        std::ErrorStorage::ack();
        if (removeName(name)) {
            return true;
        }
    }
}

bool SemaphoreCreator::close() {
    bool const kept = isUnlinkOnClose() && deleteName();
    return SemaphoreBase::close() || kept;
}

bool SemaphoreCreator::deleteName() {
    return isValid() && deleteOwnName<removeName>(name);
}

bool SemaphoreCreator::deleteName(char const* client_name) {
    return deleteNameOfClient<removeName>(client_name);
}

} // namespace vesk
