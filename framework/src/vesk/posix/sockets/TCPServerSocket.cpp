#include <vesk/TCPServerSocket.h>

#include "SocketPosixCommon.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/TCPServerSocket";

} // namespace

TCPServerSocket::TCPServerSocket(IPAddress const& local, bool blocking, bool reuse, IPProtocolVersion version)
    : IPSocket(blocking, 0, 0, local, IPAddress(), version) {
    createDescriptor(SOCK_STREAM, blocking, reuse, [] {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "TCPServerSocket", "error constructing, error closing");
    });
}

TCPServerSocket::~TCPServerSocket() = default;

void TCPServerSocket::enableListen(unsigned int backlog) {
    m_had_error = false;
    if (m_socket_state != INACTIVE) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "enableListen() called in state != INACTIVE");
        fail();
        return;
    }
    int const fd = m_socket_handle.socket_fd;
    if (bindSocket(fd, getLocalBinary(), getBinaryLength(), false) || listenSocket(fd, backlog)) {
        closeKeepingChain([this] { return close(false); }, [] {});
        fail();
        return;
    }
    m_socket_state = OPEN;
}

TCPSocket::Description TCPServerSocket::acceptConnection() {
    m_had_error = false;
    TCPSocket::Description description;
    if (m_socket_state != OPEN) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "acceptConnection() called in state != OPEN");
        fail();
        return description;
    }
    auto* const peer = reinterpret_cast<sockaddr*>(&description.peer_binary);
    Outcome const outcome =
        acceptSocket(m_socket_handle.socket_fd, peer, getBinaryLength(), description.socket_fd);
    if (outcome == Outcome::DONE) {
        description.valid = true;
        description.local_address = m_local_address;
        description.version = m_version;
    } else if (outcome == Outcome::FAILED) {
        fail();
    }
    return description;
}

unsigned int TCPServerSocket::maxTxSize() const {
    unsigned int const size = getSendBuffer();
    if (m_had_error) {
        std::ErrorStorage::ack();
    }
    return std::min(size, TCPSocket::MAX_SEGMENT_SIZE);
}

bool TCPServerSocket::refuse(char const* text) {
    reportNoTraffic(SOURCE, text);
    return fail();
}

bool TCPServerSocket::performRead(void* /*buffer*/, unsigned int /*size*/, unsigned int& /*read*/) {
    return refuse("read operation on server socket is invalid");
}

bool TCPServerSocket::performWrite(void const* /*buffer*/, unsigned int /*size*/, unsigned int& /*written*/) {
    return refuse("write operation on server socket is invalid");
}

bool TCPServerSocket::performFlush() {
    return refuse("flush operation on socket is invalid");
}

} // namespace vesk
