#include <vesk/UDPSocket.h>

#include "SocketPosixCommon.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/UDPSocket";

// Unlike `send`, without a cause for an unlisted error number: the stream's own report stands alone.
constexpr SendErrors SEND_TO_ERRORS = makeSendErrors(NONE);

/// Returns whether to join the peer instead of connecting to it.
bool isMulticast(sockaddr_in const& peer) {
    constexpr unsigned int MASK = 0xE0000000;
    // Wider than the range of groups: the limited broadcast address cannot be connected to, either.
    return (ntohl(peer.sin_addr.s_addr) & MASK) == MASK;
}

bool isMulticast(IPSocket::IPAddress const& peer) {
    // Only the well-known groups; transient groups and those with other flags are treated as unicast peers.
    return peer.host.compare(0, 3, "ff0") == 0;
}

} // namespace

UDPSocket::UDPSocket(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
    IPAddress const& peer, IPProtocolVersion version)
    : IPSocket(blocking, read_buffer, write_buffer, local, peer, version) {
    createDescriptor(SOCK_DGRAM, blocking, false, [] {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "UDPSocket", "close error");
    });
    if (!isValid()) {
        return;
    }
    m_multicast = version == IPV6 ? isMulticast(m_peer_address) : isMulticast(m_peer_binary.v4);
}

UDPSocket::~UDPSocket() = default;

void UDPSocket::open() {
    m_had_error = false;
    if (m_socket_state != INACTIVE) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "open() called in state != INACTIVE");
        fail();
        return;
    }
    // Members of a group on the same machine share its port.
    if (m_multicast && setReuse(m_socket_handle.socket_fd, true)) {
        fail();
        return;
    }
    if (bindSocket(m_socket_handle.socket_fd, getLocalBinary(), getBinaryLength(), false)) {
        closeKeepingChain(
            [this] { return close(false); },
            [] { std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "open", "error closing"); });
        fail();
        return;
    }
    if (m_multicast) {
        if (joinGroup()) {
            fail();
            return;
        }
    } else if (connectSocket(m_socket_handle.socket_fd, getPeerBinary(), getBinaryLength()) != 0) {
        // Not a failure: the peer of a datagram may become reachable later.
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "open", "error connecting");
    }
    m_socket_state = OPEN;
}

/// Selects the interface to send through, and joins the group on it. Returns true, after a report, on
/// failure.
bool UDPSocket::joinGroup() {
    int const fd = m_socket_handle.socket_fd;
    if (m_version == IPV6) {
        uint32_t const scope = m_local_binary.v6.sin6_scope_id;
        ipv6_mreq const group{m_peer_binary.v6.sin6_addr, scope};
        static_assert(sizeof scope == 4 && sizeof group == 20);
        return setOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, scope) ||
            setOption(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, group);
    }
    in_addr const interface = m_local_binary.v4.sin_addr;
    ip_mreq const group{m_peer_binary.v4.sin_addr, interface};
    static_assert(sizeof interface == 4 && sizeof group == 8);
    return setOption(fd, IPPROTO_IP, IP_MULTICAST_IF, interface) ||
        setOption(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, group);
}

bool UDPSocket::performWrite(void const* buffer, unsigned int size, unsigned int& written) {
    if (!m_multicast) {
        return IPSocket::performWrite(buffer, size, written);
    }
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
    ssize_t const count = retryOnEintr([&] {
        return sendto(
            m_socket_handle.socket_fd, buffer, size, MSG_NOSIGNAL, getPeerBinary(), getBinaryLength());
    });
    if (count >= 0) {
        written = static_cast<unsigned int>(count);
        return false;
    }
    if (classify(SOURCE, SEND_TO_ERRORS.rows, errno) != Outcome::BUSY) {
        return fail();
    }
    endWithoutRoom();
    return false;
}

bool UDPSocket::getBroadcast() const {
    if (m_version == IPV6 || checkValidSocket()) {
        return false;
    }
    int value = 0;
    socklen_t ret_size = sizeof value;
    if (getsockopt(m_socket_handle.socket_fd, SOL_SOCKET, SO_BROADCAST, &value, &ret_size) != 0) {
        classifyGetOptError();
        fail();
        return false;
    }
    std::GlobalErrorHandler::doAssert(
        ret_size == sizeof(int), "ret_size == sizeof(int)", SOURCE, __LINE__, "getBroadcast", nullptr);
    return value != 0;
}

void UDPSocket::setBroadcast(bool on) {
    if (m_version == IPV6 || checkValidSocket()) {
        return;
    }
    int const value = on ? 1 : 0;
    if (setOption(m_socket_handle.socket_fd, SOL_SOCKET, SO_BROADCAST, value)) {
        fail();
    }
}

unsigned int UDPSocket::maxTxSize() const {
    unsigned int const size = getSendBuffer();
    if (m_had_error) {
        std::ErrorStorage::ack();
        return 0;
    }
    return std::min<unsigned int>(size, MAX_TEL_SIZE);
}

} // namespace vesk
