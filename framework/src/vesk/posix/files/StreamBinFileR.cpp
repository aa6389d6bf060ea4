#include <vesk/StreamBinFileR.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/StreamBinFileR";

constexpr std::ErrorType const& StreamError = std::IBinStreamBase::StreamError;

constexpr ErrnoRow READ_ERRORS[] = {
    {{EAGAIN}, NONE, NONE, Outcome::NOT_NOW},
    {{EIO}, {SysError, 11}, {StreamError, 1}},
    {{ENXIO}, {SysError, 16}, {StreamError, 0}},
    {{EBADF, EINVAL, ECONNRESET, ENOTCONN, ETIMEDOUT}, {SysError, 10}, {StreamError, 0}},
    {{ENOMEM}, {SysError, 1}, {StreamError, 1}},
    {{EISDIR}, {SysError, 2}, {StreamError, 1}},
    {{EOVERFLOW}, {SysError, 8}, {StreamError, 1}, Outcome::FAILED, "file-offset is too large"},
    {{ENOBUFS}, {SysError, 0}, {StreamError, 1}},
    {OTHERS, {SysError, 19}, {StreamError, 4}},
};
static_assert(EAGAIN == EWOULDBLOCK);

} // namespace

StreamBinFileR::~StreamBinFileR() = default;

bool StreamBinFileR::isValid() const {
    return m_fd != -1 && isReadBufferSound();
}

/// What all forms of `open` have in common around the `open` of the base.
template <typename Open>
bool StreamBinFileR::openBy(Open open) {
    if (!isReadBufferSound()) {
        report(SOURCE, Chain::NEW, std::CommonError, 1, "Attempted open on invalid object");
        m_had_error = true;
        return true;
    }
    bool const failed = open();
    if (failed && m_fd != -1) {
        return true; // The file before is still open.
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
    // Also where the pipe had no such end, and the flags are those of the file before.
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
        report(SOURCE, Chain::NEW, std::CommonError, 1, "attempted read on invalid file object");
        report(SOURCE, Chain::ON_TOP, StreamError, 0);
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
        report(SOURCE, Chain::NEW, StreamError, 2);
    } else if (classify(SOURCE, READ_ERRORS, errno) == Outcome::NOT_NOW) {
        return false;
    }
    m_had_error = true;
    return true;
}

bool StreamBinFileR::seek(int offset, SeekDirection direction, unsigned int& position) {
    if (m_pos != m_end) {
        if (direction == Current) {
            // The system is ahead of the reader by what is not consumed.
            offset = static_cast<int>(static_cast<unsigned int>(offset) - (m_end - m_pos));
        }
        m_pos = 0;
        m_end = 0;
    }
    return StreamBinFileBase::seek(offset, direction, position);
}

} // namespace vesk
