#include <vesk/TCPSocket.h>

#include "SocketPosixCommon.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <utility>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/TCPSocket";

/// Returns whether the resolver would return an address unchanged. A listening socket has already resolved
/// its own address, so only an address that the caller changed in the description needs the resolver again.
bool isResolved(IPSocket::IPAddress const& address, IPSocket::IPProtocolVersion version) {
    in_addr binary{};
    return version == IPSocket::IPV4 && inet_pton(AF_INET, address.host.c_str(), &binary) == 1;
}

} // namespace

TCPSocket::Description::Description(Description&& other) noexcept {
    swap(other);
}

TCPSocket::Description& TCPSocket::Description::operator=(Description&& other) noexcept {
    Description taken(std::move(other));
    swap(taken);
    return *this;
}

TCPSocket::Description::~Description() {
    if (valid) {
        closeAccepted(SOURCE, socket_fd);
    }
}

void TCPSocket::Description::swap(Description& other) noexcept {
    swapAccepted(*this, other);
    std::swap(local_address, other.local_address);
    std::swap(version, other.version);
}

TCPSocket::TCPSocket(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
    IPAddress const& peer, bool reuse, IPProtocolVersion version)
    : IPSocket(blocking, read_buffer, write_buffer, local, peer, version) {
    createDescriptor(SOCK_STREAM, blocking, reuse, [] {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "TCPSocket", "ctor error, close error");
    });
}

TCPSocket::TCPSocket(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, Description const& description)
    : IPSocket(
          blocking, read_buffer, write_buffer,
          isResolved(description.local_address, description.version) ? IPAddress()
                                                                     : description.local_address,
          IPAddress(), description.version) {
    if (m_local_address.host.empty()) {
        m_local_address = description.local_address;
    }
    if (!isValid() ||
        adopt(
            description.valid, description.socket_fd, blocking, SOURCE,
            "Tried to construct TCPSocket from invalid description")) {
        return;
    }
    m_local_binary = description.local_binary;
    m_peer_binary = description.peer_binary;
    description.valid = false;
    updatePeerAddress();
}

TCPSocket::~TCPSocket() = default;

bool TCPSocket::connect() {
    m_had_error = false;
    if (m_socket_state != INACTIVE) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "connect called in state != INACTIVE");
        fail();
        // Together with hadError this distinguishes misuse from a failed attempt.
        return false;
    }
    int const fd = m_socket_handle.socket_fd;
    // After a failed attempt the socket may already be bound.
    if (bindSocket(fd, getLocalBinary(), getBinaryLength(), true)) {
        return fail();
    }
    int const result = connectSocket(fd, getPeerBinary(), getBinaryLength());
    if (result == -1) {
        return fail();
    }
    m_socket_state = OPEN;
    updatePeerAddress();
    updateLocalAddress();
    if (result == 1) {
        return true;
    }
    return connected() && fail();
}

bool TCPSocket::setTCPNoDelay(bool on) {
    if (checkValidSocket()) {
        return true;
    }
    // LCOV_EXCL_BR_LINE: the last function always returns true
    return setOption(m_socket_handle.socket_fd, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0) && fail();
}

bool TCPSocket::setKeepalive(KeepaliveSettings const& settings) {
    if (checkValidSocket()) {
        return true;
    }
    int const fd = m_socket_handle.socket_fd;
    if (setOption(fd, SOL_SOCKET, SO_KEEPALIVE, settings.enabled ? 1 : 0)) {
        return fail();
    }
    if (!settings.enabled) {
        return false;
    }
    struct {
        int option;
        int value;
    } const steps[] = {
        {TCP_KEEPIDLE, settings.idle_seconds},
        {TCP_KEEPIDLE, settings.idle_seconds}, // Twice on purpose: the call sequence is part of the contract.
        {TCP_KEEPCNT, settings.probe_count},
        {TCP_KEEPINTVL, settings.probe_interval_seconds},
    };
    return std::any_of(
               std::begin(steps), std::end(steps),
               [fd](auto const& step) { return setOption(fd, IPPROTO_TCP, step.option, step.value); }) &&
        // LCOV_EXCL_BR_LINE: the last function always returns true
        fail();
}

unsigned int TCPSocket::maxTxSize() const {
    unsigned int const size = getSendBuffer();
    if (m_had_error) {
        std::ErrorStorage::ack();
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "maxTxSize", "error getting buffer size");
    }
    return std::min(size, MAX_SEGMENT_SIZE);
}

bool TCPSocket::connected() {
    return false;
}

} // namespace vesk
