#include <vesk/UnixServerSocket.h>

#include "SocketPosixCommon.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/UnixServerSocket";

} // namespace

UnixServerSocket::UnixServerSocket(Path const& local, bool blocking, NameSpace name_space)
    : UnixSocketBase(blocking, 0, 0, local, Path(), name_space) {
    if (!isValid()) {
        return; // LCOV_EXCL_LINE: a socket without buffers is valid
    }
    if (local.empty()) {
        m_object_valid = false;
        return;
    }
    m_local_length = prepareAddress(m_local_binary, local);
    createDescriptor(blocking, [] {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "UnixServerSocket", "error constructing, error closing");
    });
}

void UnixServerSocket::enableListen(unsigned int backlog) {
    m_had_error = false;
    if (m_socket_state != INACTIVE) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "enableListen() called in state != INACTIVE");
        fail();
        return;
    }
    int const fd = m_socket_handle.socket_fd;
    bool failed = bindSocket(fd, getLocalBinary(), m_local_length, false);
    if (!failed) {
        m_bound = true;
        failed = listenSocket(fd, backlog);
    }
    if (failed) {
        closeKeepingChain([this] { return close(false); }, [] {});
        fail();
        return;
    }
    m_socket_state = OPEN;
}

UnixSocket::Description UnixServerSocket::acceptConnection() {
    m_had_error = false;
    UnixSocket::Description description;
    if (m_socket_state != OPEN) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "acceptConnection() called in state != OPEN");
        fail();
        return description;
    }
    auto* const peer = reinterpret_cast<sockaddr*>(&description.peer_binary);
    Outcome const outcome =
        acceptSocket(m_socket_handle.socket_fd, peer, sizeof description.peer_binary, description.socket_fd);
    if (outcome == Outcome::DONE) {
        description.valid = true;
        description.local_path = m_local_path;
        description.name_space = m_name_space;
    } else if (outcome == Outcome::FAILED) {
        fail();
    }
    return description;
}

bool UnixServerSocket::refuse(char const* text) {
    reportNoTraffic(SOURCE, text);
    return fail();
}

bool UnixServerSocket::performRead(void* /*buffer*/, unsigned int /*size*/, unsigned int& /*read*/) {
    return refuse("read operation on server socket is invalid");
}

bool UnixServerSocket::performWrite(
    void const* /*buffer*/, unsigned int /*size*/, unsigned int& /*written*/) {
    return refuse("write operation on server socket is invalid");
}

bool UnixServerSocket::performFlush() {
    return refuse("flush operation on socket is invalid");
}

} // namespace vesk
