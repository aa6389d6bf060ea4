#pragma once

#include "support/Testing.h"

#include <vesk/IPSocket.h>

#include <netinet/in.h>
#include <sys/socket.h>

/// Support for tests of the socket base class.
namespace support {

/// A socket that takes any descriptor and state, and exposes its hooks.
class TestSocket : public vesk::Socket {
public:
    TestSocket() : TestSocket(-1, INACTIVE) {}
    explicit TestSocket(int fd, State state = OPEN) : TestSocket(true, 0, 0) { set(fd, state); }
    TestSocket(bool blocking, unsigned int read_buffer, unsigned int write_buffer)
        : Socket(blocking, read_buffer, write_buffer) {}
    ~TestSocket() override {
        if (m_object_valid) {
            close();
        }
    }

    void set(int fd, State state) {
        m_socket_handle.socket_fd = fd;
        m_socket_state = state;
    }

    void close() {
        if (m_socket_handle.socket_fd != INVALID_SOCKET_FD) {
            EXPECT_EQ(0, ::close(m_socket_handle.socket_fd)) << strerror(errno);
        }
        set(INVALID_SOCKET_FD, DEAD);
    }

    /// Makes the socket dead without closing the descriptor, which has another owner.
    void forget() { set(INVALID_SOCKET_FD, DEAD); }

    bool isBlocking() const { return m_blocking; }
    void setValid(bool valid) { m_object_valid = valid; }
    void setHadError() { m_had_error = true; }

    using Socket::performFlush;
    using Socket::performRead;
    using Socket::performWrite;
};

/// Owns two connected descriptors until they are taken.
class Ends {
public:
    Ends(int mine, int peer) : m_ends{mine, peer} {}
    Ends(Ends&& other) noexcept : m_ends{other.takeMine(), std::exchange(other.m_ends[1], -1)} {}
    Ends& operator=(Ends&&) = delete;
    ~Ends() {
        closeEnd(0);
        closePeer();
    }

    int takeMine() { return std::exchange(m_ends[0], -1); }
    int getPeer() const { return m_ends[1]; }
    void closePeer() { closeEnd(1); }

    void send(std::string const& text) const {
        EXPECT_EQ(
            static_cast<ssize_t>(text.size()), ::send(m_ends[1], text.data(), text.size(), MSG_NOSIGNAL));
    }

    /// Receives at most `size` bytes at the peer.
    std::string receive(size_t size) const {
        std::string text(size, '\0');
        ssize_t const count = ::recv(m_ends[1], &text[0], size, 0);
        EXPECT_LE(0, count) << strerror(errno);
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

    /// Closes the peer so that the other end is reset.
    void resetByPeer() {
        linger const at_once{1, 0};
        EXPECT_EQ(0, setsockopt(m_ends[1], SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once));
        closePeer();
    }

private:
    void closeEnd(int end) {
        if (m_ends[end] >= 0) {
            ::close(std::exchange(m_ends[end], -1));
        }
    }

    int m_ends[2];
};

/// Returns the ends of a pair of local sockets.
inline Ends makeEnds(int type = SOCK_STREAM) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends)) << strerror(errno);
    return {ends[0], ends[1]};
}

/// Returns the ends of a TCP connection over loopback.
inline Ends makeTcpEnds() {
    int const listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = vesk::IPSocket::IPAddress::makeHandle(INADDR_LOOPBACK, 0);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, bind(listener, generic, length)) << strerror(errno);
    EXPECT_EQ(0, listen(listener, 1)) << strerror(errno);
    EXPECT_EQ(0, getsockname(listener, generic, &length)) << strerror(errno);
    int const mine = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, connect(mine, generic, length)) << strerror(errno);
    int const peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_LE(0, peer) << strerror(errno);
    close(listener);
    return {mine, peer};
}

/// An open socket and its peer.
class ConnectedSocket : public TestSocket {
public:
    explicit ConnectedSocket(
        Ends connected = makeEnds(), bool blocking = true, unsigned int read_buffer = 0,
        unsigned int write_buffer = 0)
        : TestSocket(blocking, read_buffer, write_buffer), ends(std::move(connected)) {
        set(ends.takeMine(), OPEN);
    }

    Ends ends;
};

} // namespace support
