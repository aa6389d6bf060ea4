#include <vesk/Pipe.h>

#include "vesk/posix/detail/CloseFd.h"
#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Pipe";

constexpr ErrnoRow CREATION_ERRORS[] = {
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENOSPC}, SysErrorId::OUT_OF_MEMORY},
    {{ENOSYS}, SysErrorId::NOT_IMPLEMENTED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CLOSE_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// Closes an open descriptor. Returns true on failure, after a report.
bool closeEnd(int fd) {
    if (closeFd(fd) != 0) {
        classify(SOURCE, CLOSE_ERRORS, errno);
        return true;
    }
    return false;
}

} // namespace

Pipe::Pipe() {
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        classify(SOURCE, CREATION_ERRORS, errno);
        return;
    }
    read_end = ends[0];
    write_end = ends[1];
}

Pipe::~Pipe() {
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (closeReadEnd()) {
        std::ErrorStorage::ack();
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~Pipe", "Couldn't close unused pipe read end");
    }
    if (closeWriteEnd()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~Pipe", "Couldn't close unused pipe write end");
        std::ErrorStorage::ack();
    }
}

bool Pipe::closeReadEnd() {
    int const fd = takeReadEnd();
    return fd != -1 && closeEnd(fd);
}

bool Pipe::closeWriteEnd() {
    int const fd = takeWriteEnd();
    return fd != -1 && closeEnd(fd);
}

} // namespace vesk
