#include <vesk/StreamBinFileW.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <poll.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/StreamBinFileW";

using StreamErrorId = std::IBinStreamBase::StreamErrorId;

constexpr ErrnoRow WRITE_ERRORS[] = {
    {{EAGAIN}, NONE, NONE, Outcome::BUSY},
    {{EIO}, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
    {{ENXIO}, SysErrorId::NO_DEVICE, StreamErrorId::UNUSABLE},
    {{EBADF, EINVAL, EPIPE, ERANGE, ENETDOWN, ENETUNREACH, ECONNRESET},
     SysErrorId::SPOILED_INTEGRITY,
     StreamErrorId::UNUSABLE},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, StreamErrorId::TRANSFER_FAILED},
    {{EACCES}, SysErrorId::PERMISSION_DENIED, StreamErrorId::TRANSFER_FAILED},
    {{EFBIG},
     SysErrorId::INVALID_PARAMETER,
     StreamErrorId::TRANSFER_FAILED,
     Outcome::FAILED,
     Further::OFFSET_OR_SIZE_TOO_LARGE},
    {{ENOSPC}, SysErrorId::NO_SPACE, StreamErrorId::TRANSFER_FAILED},
    {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, StreamErrorId::TRANSFER_FAILED},
};

constexpr ErrnoRow FLUSH_ERRORS[] = {
    // A file that does not support synchronization has nothing to flush.
    {{EINVAL, ENOSYS}, NONE, NONE, Outcome::DONE},
    {{EIO}, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
    {{EBADF}, SysErrorId::SPOILED_INTEGRITY, StreamErrorId::UNUSABLE},
    {OTHERS, SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED},
};

} // namespace

StreamBinFileW::~StreamBinFileW() {
    if (m_fd == -1 || !isWriteBufferSound()) {
        return;
    }
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (flushAndClose()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~StreamBinFileW", "Error closing BinFileW");
        std::ErrorStorage::ack();
    }
}

bool StreamBinFileW::isValid() const {
    return m_fd != -1 && isWriteBufferSound();
}

/// Contains the steps that all forms of `open` share around the `open` of the base class.
template <typename Open>
bool StreamBinFileW::openBy(Open open) {
    if (!isWriteBufferSound()) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "Attempted open on invalid object");
        m_had_error = true;
        return true;
    }
    bool const failed = open();
    if (failed && m_fd != -1) {
        return true; // The previous file is still open.
    }
    m_pos = 0;
    m_end = 0;
    if (failed) {
        return true;
    }
    m_blocking = !m_flags.has(NON_BLOCK);
    return false;
}

bool StreamBinFileW::open(Pipe& pipe) {
    if (openBy([&] { return BinFileBase::open(pipe, true); })) {
        return true;
    }
    // Also if the pipe no longer had this end; the flags are then those of the previous file.
    m_blocking = true;
    return false;
}

bool StreamBinFileW::open(char const* path, WriteFlags const& flags, FileAccess const& access) {
    return openBy([&] { return BinFileBase::open(path, flags, access); });
}

bool StreamBinFileW::open(UnicodeString const& path, WriteFlags const& flags, FileAccess const& access) {
    return open(path.c_str(), flags, access);
}

bool StreamBinFileW::openAt(
    Directory const& dir, char const* name, bool follow, WriteFlags const& flags, FileAccess const& access) {
    return openBy([&] { return BinFileBase::openAt(dir, name, follow, flags, access); });
}

bool StreamBinFileW::checkWriteBufferConsistency() {
    m_had_error = false;
    return false;
}

bool StreamBinFileW::performWrite(void const* buffer, unsigned int size, unsigned int& written) {
    m_had_error = false;
    written = 0;
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "attempted write on invalid file object");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::UNUSABLE);
        m_had_error = true;
        return true;
    }
    if (size == 0) {
        return false;
    }
    ssize_t const count = retryOnEintr([&] { return ::write(m_fd, buffer, size); });
    if (count >= 0) {
        written = static_cast<unsigned int>(count);
        return false;
    }
    if (classify(SOURCE, WRITE_ERRORS, errno) == Outcome::BUSY) {
        if (m_blocking) {
            waitForRoom();
        } else {
            m_had_error = m_flushing;
        }
        return false;
    }
    m_had_error = true;
    return true;
}

/// Blocks until the descriptor accepts data again: another owner of the open file may have made it
/// non-blocking. The next `write` reports a failure.
void StreamBinFileW::waitForRoom() const {
    pollfd entry{m_fd, POLLOUT, 0};
    poll(&entry, 1, -1);
}

bool StreamBinFileW::performFlush() {
    m_had_error = false;
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "attempted flush on invalid file object");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::UNUSABLE);
        m_had_error = true;
        return true;
    }
    if (retryOnEintr([&] { return fsync(m_fd); }) == 0) {
        return false;
    }
    m_had_error = classify(SOURCE, FLUSH_ERRORS, errno) == Outcome::FAILED;
    return m_had_error;
}

bool StreamBinFileW::passOnWritten() {
    if (m_pos != m_end && flush(false)) {
        if (m_pos != m_end) {
            return true;
        }
        std::ErrorStorage::ack();
    }
    return false;
}

bool StreamBinFileW::flushAndClose() {
    bool const flush_failed = flush(false);
    bool const close_failed = BinFileBase::close();
    m_had_error = m_had_error || flush_failed;
    if (m_fd == -1) {
        // Discards the data that the file did not take, so that the next file does not receive it.
        m_pos = 0;
        m_end = 0;
    }
    return close_failed || flush_failed;
}

bool StreamBinFileW::close() {
    m_had_error = false;
    return isValid() && flushAndClose();
}

bool StreamBinFileW::seek(int offset, SeekDirection direction, unsigned int& position) {
    return passOnWritten() || StreamBinFileBase::seek(offset, direction, position);
}

} // namespace vesk
