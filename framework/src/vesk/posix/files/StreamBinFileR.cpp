#include <vesk/StreamBinFileR.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/StreamBinFileR";

using StreamErrorId = std::IBinStreamBase::StreamErrorId;

constexpr ErrnoRow READ_ERRORS[] = {
    {{EAGAIN}, NONE, NONE, Outcome::BUSY},
    {{EIO}, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
    {{ENXIO}, SysErrorId::NO_DEVICE, StreamErrorId::UNUSABLE},
    {{EBADF, EINVAL, ECONNRESET, ENOTCONN, ETIMEDOUT},
     SysErrorId::SPOILED_INTEGRITY,
     StreamErrorId::UNUSABLE},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, StreamErrorId::TRANSFER_FAILED},
    {{EISDIR}, SysErrorId::INVALID_PATH, StreamErrorId::TRANSFER_FAILED},
    {{EOVERFLOW},
     SysErrorId::INVALID_PARAMETER,
     StreamErrorId::TRANSFER_FAILED,
     Outcome::FAILED,
     Further::OFFSET_TOO_LARGE},
    {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED},
};
static_assert(EAGAIN == EWOULDBLOCK);

} // namespace

StreamBinFileR::~StreamBinFileR() = default;

bool StreamBinFileR::isValid() const {
    return m_fd != -1 && isReadBufferSound();
}

/// Contains the steps that all forms of `open` share around the `open` of the base class.
template <typename Open>
bool StreamBinFileR::openBy(Open open) {
    if (!isReadBufferSound()) {
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

bool StreamBinFileR::open(Pipe& pipe) {
    if (openBy([&] { return BinFileBase::open(pipe, false); })) {
        return true;
    }
    // Also if the pipe no longer had this end; the flags are then those of the previous file.
    m_blocking = true;
    return false;
}

bool StreamBinFileR::open(char const* path, ReadFlags const& flags, FileAccess const& access) {
    return openBy([&] { return BinFileBase::open(path, flags, access); });
}

bool StreamBinFileR::open(UnicodeString const& path, ReadFlags flags, FileAccess const& access) {
    return open(path.c_str(), flags, access);
}

bool StreamBinFileR::openAt(
    Directory const& dir, char const* name, bool follow, ReadFlags const& flags, FileAccess const& access) {
    return openBy([&] { return BinFileBase::openAt(dir, name, follow, flags, access); });
}

bool StreamBinFileR::checkReadBufferConsistency() {
    m_had_error = false;
    return false;
}

bool StreamBinFileR::performRead(void* buffer, unsigned int size, unsigned int& read) {
    m_had_error = false;
    read = 0;
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "attempted read on invalid file object");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::UNUSABLE);
        m_had_error = true;
        return true;
    }
    if (size == 0) {
        return false;
    }
    ssize_t const count = retryOnEintr([&] { return ::read(m_fd, buffer, size); });
    if (count > 0) {
        read = static_cast<unsigned int>(count);
        return false;
    }
    if (count == 0) {
        report(SOURCE, Chain::NEW, StreamErrorId::END_OF_STREAM);
    } else if (classify(SOURCE, READ_ERRORS, errno) == Outcome::BUSY) {
        return false;
    }
    m_had_error = true;
    return true;
}

bool StreamBinFileR::seek(int offset, SeekDirection direction, unsigned int& position) {
    if (m_pos != m_end) {
        if (direction == Current) {
            // The position of the system is ahead of the reader by the bytes that are not consumed.
            offset = static_cast<int>(static_cast<unsigned int>(offset) - (m_end - m_pos));
        }
        m_pos = 0;
        m_end = 0;
    }
    return StreamBinFileBase::seek(offset, direction, position);
}

} // namespace vesk
