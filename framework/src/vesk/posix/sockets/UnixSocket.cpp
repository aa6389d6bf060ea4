#include <vesk/UnixSocket.h>

#include "SocketPosixCommon.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <utility>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/UnixSocket";

} // namespace

UnixSocket::Description::Description(Description&& other) noexcept {
    swap(other);
}

UnixSocket::Description& UnixSocket::Description::operator=(Description&& other) noexcept {
    Description taken(std::move(other));
    swap(taken);
    return *this;
}

UnixSocket::Description::~Description() {
    if (valid) {
        closeAccepted(SOURCE, socket_fd);
    }
}

void UnixSocket::Description::swap(Description& other) noexcept {
    swapAccepted(*this, other);
    std::swap(local_path, other.local_path);
    std::swap(name_space, other.name_space);
}

UnixSocket::UnixSocket(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, Path const& local, Path const& peer,
    NameSpace name_space)
    : UnixSocketBase(blocking, read_buffer, write_buffer, local, peer, name_space) {
    if (!isValid()) {
        return;
    }
    if (local.empty() && peer.empty()) {
        m_object_valid = false;
        return;
    }
    if (!local.empty()) {
        m_local_length = prepareAddress(m_local_binary, local);
    }
    if (!peer.empty()) {
        m_peer_length = prepareAddress(m_peer_binary, peer);
    }
    createDescriptor(blocking, [] {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "UnixSocket", "ctor error, close error");
    });
}

UnixSocket::UnixSocket(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, Description const& description)
    : UnixSocketBase(
          blocking, read_buffer, write_buffer, description.local_path, Path(), description.name_space) {
    if (!isValid() ||
        adopt(
            description.valid, description.socket_fd, blocking, SOURCE,
            "Tried to construct UnixSocket from invalid description")) {
        return;
    }
    m_local_binary = description.local_binary;
    m_peer_binary = description.peer_binary;
    description.valid = false;
    updatePeerAddress();
}

bool UnixSocket::connect() {
    m_had_error = false;
    if (m_socket_state != INACTIVE) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "connect called in state != INACTIVE");
        fail();
        // Together with hadError this distinguishes misuse from a failed attempt.
        return false;
    }
    if (!m_local_path.empty()) {
        if (bindSocket(m_socket_handle.socket_fd, getLocalBinary(), m_local_length, false)) {
            return fail();
        }
        m_bound = true;
    }
    int const result = connectSocket(m_socket_handle.socket_fd, getPeerBinary(), m_peer_length);
    if (result < 0) {
        return fail();
    }
    m_socket_state = OPEN;
    updatePeerAddress();
    return result == 1;
}

} // namespace vesk
