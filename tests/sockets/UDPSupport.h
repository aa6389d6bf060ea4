#pragma once

#include "SocketRows.h"

#include <vesk/UDPSocket.h>

#include <netinet/in.h>

/// Support for tests of UDP sockets.

namespace support {

using vesk::IPSocket;
using vesk::Socket;
using vesk::UDPSocket;

/// A socket without buffers that exposes its hooks. Its destructor closes it.
class OpenUDPSocket : public UDPSocket {
public:
    using UDPSocket::UDPSocket;

    OpenUDPSocket(
        IPAddress const& local, IPAddress const& peer, IPProtocolVersion version = IPV4, bool blocking = true)
        : UDPSocket(blocking, 0, 0, local, peer, version) {}
    ~OpenUDPSocket() override {
        if (m_object_valid && getState() == OPEN && close(false)) {
            ADD_FAILURE() << "close";
        }
    }

    using UDPSocket::m_had_error;
    using UDPSocket::m_object_valid;
    using UDPSocket::performFlush;
    using UDPSocket::performRead;
    using UDPSocket::performWrite;
};

/// Checks that a socket opens without a report.
inline testing::AssertionResult opens(UDPSocket& socket) {
    socket.open();
    return succeeded(socket, Socket::OPEN);
}

/// Checks that a socket fails to open with these reports and has a state afterwards.
inline testing::AssertionResult failsToOpen(UDPSocket& socket, Socket::State state, Reports const& reports) {
    socket.open();
    return failed(socket, state, reports);
}

/// Waits for a datagram and returns it, or nothing if that fails.
inline std::optional<std::string> receive(UDPSocket& socket, unsigned int room = 70000) {
    std::string datagram(room, '\0');
    unsigned int count = 0;
    testing::AssertionResult const readable = awaitEvents(socket.getSocketFd(), POLLIN);
    EXPECT_TRUE(readable);
    if (!readable || socket.read(datagram.data(), room, count) != 1) {
        return std::nullopt;
    }
    datagram.resize(count);
    return datagram;
}
/// A UDP socket of plain system calls, bound to a free port of the loopback interface.
class Peer : private tarnbase::NonCopyable {
public:
    explicit Peer(IPSocket::IPProtocolVersion version = IPSocket::IPV4)
        : m_six(version == IPSocket::IPV6),
          m_fd(socket(m_six ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (setDestination({m_six ? IPSocket::LOOPBACK_IP6 : IPSocket::LOOPBACK_IP, 0}) &&
            bind(m_fd, m_other, m_length) == 0 && getsockname(m_fd, m_other, &m_length) == 0) {
            m_address = m_six ? IPSocket::IPAddress(reinterpret_cast<sockaddr_in6 const&>(m_storage))
                              : IPSocket::IPAddress(reinterpret_cast<sockaddr_in const&>(m_storage));
        }
    }
    ~Peer() { stop(); }

    IPSocket::IPAddress const& getAddress() const { return m_address; }

    /// Returns whether the machine supports this version.
    bool isThere() const { return m_address.port != 0; }

    /// Closes the socket, so that datagrams to its address are refused.
    void stop() {
        if (m_fd >= 0) {
            close(std::exchange(m_fd, -1));
        }
    }

    /// Waits for a datagram and returns it, or nothing if that fails. Answers go to its sender.
    std::optional<std::string> receive() {
        std::string datagram(70000, '\0');
        EXPECT_TRUE(awaitEvents(m_fd, POLLIN));
        m_length = sizeof m_storage;
        ssize_t const count =
            recvfrom(m_fd, datagram.data(), datagram.size(), MSG_DONTWAIT, m_other, &m_length);
        if (count < 0) {
            return std::nullopt;
        }
        datagram.resize(static_cast<size_t>(count));
        return datagram;
    }

    bool answer(std::string const& data) const {
        return sendto(m_fd, data.data(), data.size(), 0, m_other, m_length) ==
            static_cast<ssize_t>(data.size());
    }

    bool sendTo(IPSocket::IPAddress const& address, std::string const& data) {
        return setDestination(address) && answer(data);
    }

private:
    /// Makes an address the destination of answers.
    bool setDestination(IPSocket::IPAddress address) {
        m_length = m_six ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        return m_six ? !address.getBinary(reinterpret_cast<sockaddr_in6&>(m_storage))
                     : !address.getBinary(reinterpret_cast<sockaddr_in&>(m_storage));
    }

    bool m_six;
    int m_fd;
    IPSocket::IPAddress m_address;
    sockaddr_storage m_storage{};
    sockaddr* m_other = reinterpret_cast<sockaddr*>(&m_storage);
    socklen_t m_length = 0;
};

/// Returns whether a socket can name the interface of its groups. User-mode QEMU does not support the option.
inline bool mayNameInterfaces(IPSocket::IPProtocolVersion version) {
    bool const six = version == IPSocket::IPV6;
    int const fd = socket(six ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int const any = 0;
    bool const unknown = setsockopt(
                             fd, six ? IPPROTO_IPV6 : IPPROTO_IP, six ? IPV6_MULTICAST_IF : IP_MULTICAST_IF,
                             &any, sizeof any) != 0 &&
        errno == ENOPROTOOPT;
    close(fd);
    return !unknown;
}

} // namespace support

#define VESK_SKIP_WITHOUT_IPV6()                                                                             \
    if (!support::Peer(vesk::IPSocket::IPV6).isThere()) {                                                    \
        GTEST_SKIP() << "this machine has no IPv6";                                                          \
    }

#define VESK_SKIP_WITHOUT_GROUPS(version)                                                                    \
    if (!support::mayNameInterfaces(version)) {                                                              \
        GTEST_SKIP() << "the emulator does not know IP_MULTICAST_IF or IPV6_MULTICAST_IF";                   \
    }
