#include <vesk/Socket.h>

#include "SocketPosixCommon.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/common/UniqueFd.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <exception>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/select.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Socket";

using StreamErrorId = std::IBinStreamBase::StreamErrorId;

constexpr std::ErrorID ROWS[] = {
    {0, "Invalid socket encountered: %s", 1}, {1, "Unknown socket option: %s", 1},
    {2, "Invalid socket option: %s", 1},      {3, "Creating socket failed: %s", 1},
    {4, "Socket address busy: %s", 1},        {5, "Socket address invalid: %s", 1},
    {6, "Connection has been reset: %s", 1},  {7, "Peer is not reachable: %s", 1},
    {8, "Network is unavailable: %s", 1},     {9, "Resolve operation failed: %s", 1},
    {10, "Communication failed: %s", 1},      {11, "Connection closed: %s", 1},
    {12, "Message too big: %s", 1},
};

constexpr ErrnoRow RECEIVE_ERRORS[] = {
    {{EAGAIN}, NONE, NONE, Outcome::BUSY},
    {{ECONNRESET}, Socket::ErrorId::CONNECTION_RESET, StreamErrorId::UNUSABLE},
    {{EINVAL}, Socket::ErrorId::INVALID_SOCKET, StreamErrorId::UNUSABLE},
    {{EIO, EBADF, ENOTSOCK, EOPNOTSUPP}, SysErrorId::SPOILED_INTEGRITY, StreamErrorId::UNUSABLE},
    {{ENOTCONN, ECONNREFUSED}, Socket::ErrorId::PEER_UNREACHABLE, StreamErrorId::UNUSABLE},
    {{ETIMEDOUT}, Socket::ErrorId::COMMUNICATION_FAILED, StreamErrorId::TRANSFER_FAILED},
    {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, StreamErrorId::TRANSFER_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED},
};
static_assert(EAGAIN == EWOULDBLOCK);

constexpr SendErrors SEND_ERRORS = makeSendErrors(SysErrorId::UNCLASSIFIED);

constexpr ErrnoRow SELECT_ERRORS[] = {
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {{EINVAL, EBADF}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// Adds the descriptors of the sockets to a mask. Returns true, after a report, if a socket has none.
bool enter(std::set<Socket const*> const& sockets, fd_set& marks, int& highest) {
    for (Socket const* const socket : sockets) {
        int const fd = socket != nullptr ? socket->getSocketFd() : Socket::INVALID_SOCKET_FD;
        if (fd == Socket::INVALID_SOCKET_FD) {
            report(SOURCE, Chain::NEW, Socket::ErrorId::INVALID_SOCKET, SystemErrorText().get());
            return true;
        }
        if (fd >= FD_SETSIZE) {
            std::GlobalErrorHandler::doAbort(
                SOURCE, __LINE__, "selectSockets", "descriptor %d is beyond what select can watch", fd);
            return true;
        }
        FD_SET(fd, &marks);
        highest = std::max(highest, fd);
    }
    return false;
}

/// Removes the sockets with unmarked descriptors.
void keepMarked(std::set<Socket const*>& sockets, fd_set const& marks) {
    for (auto it = sockets.begin(); it != sockets.end();) {
        it = FD_ISSET((*it)->getSocketFd(), &marks) ? std::next(it) : sockets.erase(it);
    }
}

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Socket::Error(ROWS, std::size(ROWS), SysError);

Socket::Socket(bool blocking, unsigned int read_buffer, unsigned int write_buffer)
    : IBinInOutStream(blocking, read_buffer, write_buffer) {
    m_object_valid = isReadBufferSound() && isWriteBufferSound();
}

Socket::~Socket() {
    if (!m_object_valid) {
        return;
    }
    // A constructor of a subclass has thrown: the destructor of that class, which closes the socket, did not run.
    if (m_socket_state != DEAD && std::uncaught_exceptions() != 0) {
        UniqueFd const unused(m_socket_handle.socket_fd);
        return;
    }
    std::GlobalErrorHandler::doAssert(
        m_socket_handle.socket_fd == INVALID_SOCKET_FD, "m_socket_handle.socket_fd == INVALID_SOCKET_FD",
        SOURCE, __LINE__, "~Socket", nullptr);
    std::GlobalErrorHandler::doAssert(
        m_socket_state == DEAD, "m_socket_state == DEAD", SOURCE, __LINE__, "~Socket", nullptr);
}

bool Socket::isValid() const {
    return isReadBufferSound() && isWriteBufferSound() && m_object_valid && m_socket_state != DEAD;
}

bool Socket::checkValidSocket() const {
    m_had_error = false;
    if (m_socket_handle.socket_fd == INVALID_SOCKET_FD) {
        report(SOURCE, Chain::NEW, ErrorId::INVALID_SOCKET, SystemErrorText().get());
        return fail();
    }
    return false;
}

bool Socket::adopt(bool is_valid, int fd, bool blocking, char const* file, char const* misuse, int line) {
    if (!is_valid) {
        report(Place(file, line), Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, misuse);
        m_object_valid = false;
        return true;
    }
    if (!blocking && setNonBlocking(fd)) {
        // Not closed here: the description stays valid, and would later close a number that may belong to
        // another file.
        m_object_valid = false;
        m_socket_state = DEAD;
        return true;
    }
    m_socket_handle.socket_fd = fd;
    m_socket_state = OPEN;
    return false;
}

bool Socket::performRead(void* buffer, unsigned int size, unsigned int& read) {
    m_had_error = false;
    if (m_socket_state != OPEN) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "called read on non-OPEN socket");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::UNUSABLE);
        return fail();
    }
    read = 0;
    // With 0 bytes, `recv` waits for data and drops a datagram, and its result looks like the end of the
    // connection.
    if (size == 0) {
        return false;
    }
    ssize_t const count = retryOnEintr([&] { return recv(m_socket_handle.socket_fd, buffer, size, 0); });
    if (count > 0) {
        if (static_cast<size_t>(count) > size) {
            // `read` is limited to the size of the buffer. The object is consistent, so hadError stays false.
            read = size;
            report(SOURCE, Chain::NEW, ErrorId::MESSAGE_TOO_BIG, SystemErrorText().get());
            report(SOURCE, Chain::ON_TOP, StreamErrorId::TRANSFER_FAILED);
            return true;
        }
        read = static_cast<unsigned int>(count);
        return false;
    }
    if (count == 0) {
        report(SOURCE, Chain::NEW, ErrorId::CONNECTION_CLOSED, "Connection closed normally");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::END_OF_STREAM);
        return fail();
    }
    // LCOV_EXCL_BR_LINE: the last function always returns true
    return classify(SOURCE, RECEIVE_ERRORS, errno) != Outcome::BUSY && fail();
}

bool Socket::performWrite(void const* buffer, unsigned int size, unsigned int& written) {
    m_had_error = false;
    if (m_socket_state != OPEN) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "called write on non-OPEN socket");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::UNUSABLE);
        return fail();
    }
    written = 0;
    if (size == 0) {
        return false;
    }
    ssize_t const count =
        retryOnEintr([&] { return send(m_socket_handle.socket_fd, buffer, size, MSG_NOSIGNAL); });
    if (count >= 0) {
        written = static_cast<unsigned int>(count);
        return false;
    }
    if (classify(SOURCE, SEND_ERRORS.rows, errno) != Outcome::BUSY) {
        return fail();
    }
    endWithoutRoom();
    return false;
}

void Socket::endWithoutRoom() {
    if (!m_blocking) {
        m_had_error = m_flushing;
        return;
    }
    int const fd = m_socket_handle.socket_fd;
    int const flags = fcntl(fd, F_GETFL);
    // A blocking descriptor has already waited, up to its own time limit (SO_SNDTIMEO).
    if (flags != -1 && (flags & O_NONBLOCK) != 0) {
        // The next send reports a failure.
        pollfd entry{fd, POLLOUT, 0};
        poll(&entry, 1, -1);
    }
}

bool Socket::performFlush() {
    m_had_error = false;
    return false;
}

bool Socket::setBuffer(int option, unsigned int bytes) {
    if (checkValidSocket()) {
        return true;
    }
    int const value = static_cast<int>(bytes);
    if (setsockopt(m_socket_handle.socket_fd, SOL_SOCKET, option, &value, sizeof value) == 0) {
        return false;
    }
    classifySetOptError();
    return fail();
}

unsigned int Socket::getBuffer(int option, char const* operation) const {
    if (checkValidSocket()) {
        return 0;
    }
    int value = 0;
    socklen_t retsize = sizeof value;
    if (getsockopt(m_socket_handle.socket_fd, SOL_SOCKET, option, &value, &retsize) != 0) {
        classifyGetOptError();
        fail();
        return 0;
    }
    std::GlobalErrorHandler::doAssert(
        retsize == sizeof(int), "retsize == sizeof(int)", SOURCE, __LINE__, operation, nullptr);
    return static_cast<unsigned int>(value / 2);
}

bool Socket::setSendBuffer(unsigned int bytes) {
    return setBuffer(SO_SNDBUF, bytes);
}

bool Socket::setRecvBuffer(unsigned int bytes) {
    return setBuffer(SO_RCVBUF, bytes);
}

unsigned int Socket::getSendBuffer() const {
    return getBuffer(SO_SNDBUF, "getSendBuffer");
}

unsigned int Socket::getRecvBuffer() const {
    return getBuffer(SO_RCVBUF, "getRecvBuffer");
}

int Socket::selectSockets(
    std::set<Socket const*>& read, std::set<Socket const*>& write, std::set<Socket const*>& except,
    unsigned int timeout_ms, bool use_timeout) {
    fd_set read_marks;
    fd_set write_marks;
    fd_set except_marks;
    FD_ZERO(&read_marks);
    FD_ZERO(&write_marks);
    FD_ZERO(&except_marks);
    int highest = -1;
    if (enter(read, read_marks, highest) || enter(write, write_marks, highest) ||
        enter(except, except_marks, highest)) {
        return -1;
    }
    timeval time_left{};
    time_left.tv_sec = static_cast<time_t>(timeout_ms / 1000);
    time_left.tv_usec = static_cast<suseconds_t>(timeout_ms % 1000 * 1000);
    int const count = retryOnEintr([&] {
        return select(
            highest + 1, &read_marks, &write_marks, &except_marks, use_timeout ? &time_left : nullptr);
    });
    if (count > 0) {
        keepMarked(read, read_marks);
        keepMarked(write, write_marks);
        keepMarked(except, except_marks);
        return count;
    }
    int const error = errno; // Saved before the sets release memory, which may change it.
    read.clear();
    write.clear();
    except.clear();
    if (count == -1) {
        classify(SOURCE, SELECT_ERRORS, error);
    }
    return count;
}

} // namespace vesk
