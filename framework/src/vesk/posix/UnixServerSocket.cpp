#include <vesk/UnixServerSocket.h>

#include "SocketPosixCommon.h"

#include <tarncommon/error/CommonError.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/UnixServerSocket";

/// What an operation of a stream reports, which a server is none of. Always true.
bool refuse(Place place, char const* text) {
    report(place, Chain::NEW, std::CommonError, 1, text);
    report(place, Chain::ON_TOP, std::IBinStreamBase::StreamError, 3);
    return true;
}

} // namespace

UnixServerSocket::UnixServerSocket(Path const& local, bool blocking, NameSpace name_space)
    : UnixSocketBase(blocking, 0, 0, local, Path(), name_space) {
    if (!isValid()) {
        return;
    }
    if (local.empty()) {
        m_object_valid = false;
        return;
    }
    m_local_length = prepareAddress(m_local_binary, local);
    makeSocket(blocking, "error constructing, error closing");
}

void UnixServerSocket::enableListen(unsigned int backlog) {
    m_had_error = false;
    if (m_socket_state != INACTIVE) {
        report(SOURCE, Chain::NEW, std::CommonError, 1, "enableListen() called in state != INACTIVE");
        m_had_error = true;
        return;
    }
    bool failed = bindSocket(m_socket_handle.socket_fd, getLocalBinary(), m_local_length, false);
    if (!failed) {
        m_bound = true;
        failed = listenSocket(m_socket_handle.socket_fd, backlog);
    }
    if (failed) {
        closeKeepingChain([this] { return close(false); }, [] {});
        m_had_error = true;
        return;
    }
    m_socket_state = OPEN;
}

UnixSocket::Description UnixServerSocket::acceptConnection() {
    m_had_error = false;
    UnixSocket::Description description;
    if (m_socket_state != OPEN) {
        report(SOURCE, Chain::NEW, std::CommonError, 1, "acceptConnection() called in state != OPEN");
        m_had_error = true;
        return description;
    }
    int accepted = INVALID_SOCKET_FD;
    Outcome const outcome = acceptSocket(
        m_socket_handle.socket_fd, reinterpret_cast<sockaddr*>(&description.peer_binary),
        sizeof description.peer_binary, accepted);
    if (outcome == Outcome::DONE) {
        description.socket_fd = accepted;
        description.valid = true;
        description.local_path = m_local_path;
        description.name_space = m_name_space;
    }
    m_had_error = outcome == Outcome::FAILED;
    return description;
}

bool UnixServerSocket::performRead(void* /*buffer*/, unsigned int /*size*/, unsigned int& /*read*/) {
    m_had_error = true;
    return refuse(SOURCE, "read operation on server socket is invalid");
}

bool UnixServerSocket::performWrite(
    void const* /*buffer*/, unsigned int /*size*/, unsigned int& /*written*/) {
    m_had_error = true;
    return refuse(SOURCE, "write operation on server socket is invalid");
}

bool UnixServerSocket::performFlush() {
    m_had_error = true;
    return refuse(SOURCE, "flush operation on socket is invalid");
}

} // namespace vesk
