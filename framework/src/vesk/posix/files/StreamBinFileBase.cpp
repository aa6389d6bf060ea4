#include <vesk/StreamBinFileBase.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/StreamBinFileBase";

constexpr ErrnoRow SEEK_ERRORS[] = {
    {{EBADF, ESPIPE, EOVERFLOW}, SysErrorId::SPOILED_INTEGRITY},
    {{EINVAL}, SysErrorId::INVALID_PARAMETER},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

int getWhence(StreamBinFileBase::SeekDirection direction) {
    switch (direction) {
    case StreamBinFileBase::Current:
        return SEEK_CUR;
    case StreamBinFileBase::Begin:
        return SEEK_SET;
    case StreamBinFileBase::End:
        return SEEK_END;
    }
    std::GlobalErrorHandler::doAbort(
        SOURCE, __LINE__, "seek", "BinFileBase::seek(): Invalid value for direction");
    return SEEK_CUR;
}

} // namespace

/// Reports a failed seek for an error number of the system. Always returns true.
bool StreamBinFileBase::failSeek(int error) {
    errno = error;
    classify(SOURCE, SEEK_ERRORS, error);
    m_had_error = true;
    return true;
}

bool StreamBinFileBase::seek(int offset, SeekDirection direction, unsigned int& position) {
    m_had_error = false;
    position = 0;
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "Attempt to seek on invalid file object");
        m_had_error = true;
        return true;
    }
    off_t const result = lseek(m_fd, offset, getWhence(direction));
    if (result == -1) {
        return failSeek(errno);
    }
    if (result != static_cast<int32_t>(result)) {
        // The system has moved the position, as it has on a 32-bit system, where `lseek` itself fails in this
        // way.
        return failSeek(EOVERFLOW);
    }
    position = static_cast<unsigned int>(result);
    return false;
}

} // namespace vesk
