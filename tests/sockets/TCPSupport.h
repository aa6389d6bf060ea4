#pragma once

#include "support/Chain.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/SysError.h>
#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <ostream>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

/// What the tests of TCP sockets share: the calls that can be made to fail, the tables of what a number means, and both
/// ends of connections.

VESK_INJECT_ERRNO(int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
VESK_INJECT_ERRNO(int, -1, bind, (int fd, sockaddr const* address, socklen_t size), (fd, address, size))
VESK_INJECT_ERRNO(int, -1, connect, (int fd, sockaddr const* address, socklen_t size), (fd, address, size))
VESK_INJECT_ERRNO(
    int, -1, accept4, (int fd, sockaddr* address, socklen_t* size, int flags), (fd, address, size, flags))
VESK_INJECT_ERRNO(int, -1, shutdown, (int fd, int how), (fd, how))
VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(
    int, -1, getsockopt, (int fd, int level, int option, void* value, socklen_t* size),
    (fd, level, option, value, size))

namespace support {

/// The last arguments of calls that are not told by any result.
struct LastCalls {
    int status_flags = -1;             ///< Of `fcntl` with F_SETFL.
    int backlog = 0;                   ///< Of `listen`.
    std::vector<int> options;          ///< Of `setsockopt`: level, option and value of each call.
    bool records_options = false;      ///< Whether they are noted.
    static constexpr int NOTHING = -1; ///< What stands for a value that is no int.
};

inline LastCalls s_last;

} // namespace support

inline support::Injected inject_fcntl("fcntl");
extern "C" VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (command == F_SETFL) {
        support::s_last.status_flags = static_cast<int>(reinterpret_cast<intptr_t>(argument));
    }
    int error = 0;
    if (inject_fcntl.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, ...)>(inject_fcntl.getReal())(fd, command, argument);
}

inline support::Injected inject_listen("listen");
extern "C" VESK_UNWATCHED int listen(int fd, int backlog) {
    support::s_last.backlog = backlog;
    int error = 0;
    if (inject_listen.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, int)>(inject_listen.getReal())(fd, backlog);
}

inline support::Injected inject_setsockopt("setsockopt");
extern "C" VESK_UNWATCHED int setsockopt(int fd, int level, int option, void const* value, socklen_t size) {
    if (support::s_last.records_options) {
        int number = support::LastCalls::NOTHING;
        if (size == sizeof number) {
            memcpy(&number, value, sizeof number);
        }
        support::s_last.options.insert(support::s_last.options.end(), {level, option, number});
    }
    int error = 0;
    if (inject_setsockopt.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, int, void const*, socklen_t)>(inject_setsockopt.getReal())(
        fd, level, option, value, size);
}

namespace support {

using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::TCPServerSocket;
using vesk::TCPSocket;
using IPAddress = vesk::IPSocket::IPAddress;

/// What one number of a call is reported as.
struct ErrorRow {
    int error;
    std::ErrorType const* family;
    int id;
};

inline void PrintTo(ErrorRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

using ErrorRows = std::vector<ErrorRow>;

/// The rows of several numbers with the same report.
inline void add(ErrorRows& rows, std::vector<int> const& errors, std::ErrorType const& family, int id) {
    for (int const error : errors) {
        rows.push_back({error, &family, id});
    }
}

inline ErrorRows getCreationRows() {
    ErrorRows rows;
    add(rows, {EMFILE, ENFILE}, SysError, SysErrorId::RESOURCES_EXHAUSTED);
    add(rows, {EACCES}, SysError, SysErrorId::PERMISSION_DENIED);
    add(rows, {EINVAL, EPROTOTYPE, EPROTONOSUPPORT, EAFNOSUPPORT}, Socket::Error,
        Socket::ErrorId::CREATE_FAILED);
    add(rows, {ENOMEM, ENOBUFS}, SysError, SysErrorId::OUT_OF_MEMORY);
    add(rows, {EIO, EINTR, EPERM, EAGAIN}, SysError, SysErrorId::UNCLASSIFIED);
    return rows;
}

inline ErrorRows getSetOptionRows() {
    ErrorRows rows;
    add(rows, {EBADF, ENOTSOCK}, Socket::Error, Socket::ErrorId::INVALID_SOCKET);
    add(rows, {EFAULT, EINVAL, EDOM, EISCONN}, SysError, SysErrorId::INVALID_PATH);
    add(rows, {ENOPROTOOPT}, Socket::Error, Socket::ErrorId::UNKNOWN_OPTION);
    add(rows, {EPERM, ENOMEM, EINTR, EIO}, SysError, SysErrorId::UNCLASSIFIED);
    return rows;
}

inline ErrorRows getGetOptionRows() {
    ErrorRows rows;
    add(rows, {EBADF, EINVAL, ENOTSOCK}, Socket::Error, Socket::ErrorId::INVALID_SOCKET);
    add(rows, {EACCES}, SysError, SysErrorId::PERMISSION_DENIED);
    add(rows, {ENOPROTOOPT}, Socket::Error, Socket::ErrorId::UNKNOWN_OPTION);
    add(rows, {ENOBUFS}, SysError, SysErrorId::OUT_OF_MEMORY);
    add(rows, {EFAULT, ENOMEM, EINTR}, SysError, SysErrorId::UNCLASSIFIED);
    return rows;
}

inline ErrorRows getStatusFlagRows() {
    ErrorRows rows;
    add(rows, {EBADF, EACCES, EAGAIN, EINTR, EINVAL, EPERM}, SysError, SysErrorId::UNCLASSIFIED);
    return rows;
}

/// Without EINVAL, which does not mean the same everywhere.
inline ErrorRows getBindRows() {
    ErrorRows rows;
    add(rows,
        {ENOENT, EIO, EBADF, EFAULT, ENOTDIR, EISDIR, EROFS, ENAMETOOLONG, ELOOP, ENOTSOCK, EDESTADDRREQ,
         EOPNOTSUPP, EAFNOSUPPORT, EISCONN},
        SysError, SysErrorId::SPOILED_INTEGRITY);
    add(rows, {ENOMEM}, SysError, SysErrorId::OUT_OF_MEMORY);
    add(rows, {EACCES}, SysError, SysErrorId::PERMISSION_DENIED);
    add(rows, {EADDRINUSE}, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE);
    add(rows, {EADDRNOTAVAIL}, Socket::Error, Socket::ErrorId::ADDRESS_INVALID);
    add(rows, {ENOBUFS}, SysError, SysErrorId::RESOURCES_EXHAUSTED);
    add(rows, {EPERM, EINTR, EAGAIN}, SysError, SysErrorId::UNCLASSIFIED);
    return rows;
}

inline ErrorRows getCloseRows() {
    ErrorRows rows;
    add(rows, {EIO, ENOSPC, EDQUOT, EAGAIN}, SysError, SysErrorId::SPOILED_INTEGRITY);
    return rows;
}

inline testing::AssertionResult failureIs(ErrorRow const& row) {
    return chainIs({{*row.family, row.id, rowText(*row.family, row.id, systemText(row.error))}});
}

inline testing::AssertionResult failureIs(std::ErrorType const& family, int id, int error) {
    return failureIs({error, &family, id});
}

/// The same below a report of the stream.
inline testing::AssertionResult streamFailureIs(std::ErrorType const& family, int id, int error, int on_top) {
    return chainIs(
        {{family, id, rowText(family, id, systemText(error))}, {std::IBinStreamBase::StreamError, on_top}});
}

inline ExpectedReport getMisuse(std::string const& text) {
    return {
        std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
        rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}

inline testing::AssertionResult misuseIs(std::string const& text) {
    return chainIs({getMisuse(text)});
}

inline testing::AssertionResult streamMisuseIs(std::string const& text, int on_top) {
    return chainIs({getMisuse(text), {std::IBinStreamBase::StreamError, on_top}});
}

/// That the peer has ended the connection in order.
inline testing::AssertionResult endIs() {
    return chainIs(
        {{Socket::ErrorId::CONNECTION_CLOSED, "Connection closed: Connection closed normally"},
         {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::END_OF_STREAM}});
}

inline bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// The number that the next descriptor will have.
inline int getNextDescriptor() {
    int const fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

/// Waits for what `poll` calls `events`, but not for ever.
inline testing::AssertionResult awaitEvents(int fd, short events) {
    pollfd look{fd, events, 0};
    int result = -1;
    do {
        result = poll(&look, 1, 60000);
    } while (result < 0 && errno == EINTR);
    return result == 1 ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << "nothing happened on the descriptor";
}

inline bool isReady(int fd, short events) {
    pollfd look{fd, events, 0};
    return poll(&look, 1, 0) == 1;
}

/// Writes all of it.
inline void writeTo(Socket& socket, std::string const& bytes) {
    unsigned int written = 12345;
    EXPECT_EQ(1, socket.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written));
    EXPECT_EQ(bytes.size(), written);
    EXPECT_FALSE(socket.hadError());
}

/// Reads until `size` bytes are there; a socket that does not wait is waited for.
inline std::string readFrom(Socket& socket, size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
        char block[65536];
        unsigned int count = 0;
        size_t const room = std::min(sizeof block, size - bytes.size());
        if (!awaitEvents(socket.getSocketFd(), POLLIN) ||
            socket.read(block, static_cast<unsigned int>(room), count) != 1) {
            ADD_FAILURE() << "only " << bytes.size() << " of " << size << " bytes have come";
            break;
        }
        bytes.append(block, count);
    }
    return bytes;
}

/// Reads once from a connection whose peer has ended it.
inline testing::AssertionResult isAtItsEnd(Socket& socket) {
    char byte = 0;
    unsigned int count = 12345;
    if (!awaitEvents(socket.getSocketFd(), POLLIN)) {
        return testing::AssertionFailure() << "nothing happened";
    }
    if (socket.read(&byte, 1, count) != 0 || count != 0 || !socket.hadError()) {
        return testing::AssertionFailure() << "it is not at its end";
    }
    return endIs();
}

inline char const* getLoopback(IPSocket::IPProtocolVersion version) {
    return version == IPSocket::IPV6 ? IPSocket::LOOPBACK_IP6 : IPSocket::LOOPBACK_IP;
}

constexpr IPSocket::IPProtocolVersion VERSIONS[] = {IPSocket::IPV4, IPSocket::IPV6};

inline std::string getVersionName(testing::TestParamInfo<IPSocket::IPProtocolVersion> const& info) {
    return info.param == IPSocket::IPV6 ? "IPv6" : "IPv4";
}

/// A socket that closes itself, which the library leaves to its users.
template <typename Base>
class Closing : public Base {
public:
    using Base::Base;
    ~Closing() override {
        if (Base::isValid()) {
            Base::close(false);
        }
    }

    using Base::getBinaryLength;
    using Base::m_local_binary;
    using Base::m_peer_binary;
};

using Client = Closing<TCPSocket>;

/// A server that listens on the loopback, on a port that the system has chosen.
class Listener : public Closing<TCPServerSocket> {
public:
    explicit Listener(
        IPSocket::IPProtocolVersion version = IPSocket::IPV4, bool blocking = true, unsigned int backlog = 64)
        : Closing<TCPServerSocket>(IPAddress(getLoopback(version), 0), blocking, false, version) {
        listenAndLookUp(backlog);
    }

    Listener(IPAddress const& address, IPSocket::IPProtocolVersion version, bool blocking = true)
        : Closing<TCPServerSocket>(address, blocking, false, version) {
        listenAndLookUp(64);
    }

    /// A socket that is to connect to it.
    Client makeClient(bool blocking = true, unsigned int read_buffer = 0, unsigned int write_buffer = 0) {
        return {blocking, read_buffer, write_buffer, IPAddress(), getLocalAddress(), false, getVersion()};
    }

private:
    void listenAndLookUp(unsigned int backlog) {
        enableListen(backlog);
        EXPECT_FALSE(hadError());
        updateLocalAddress();
        EXPECT_NE(0, getLocalAddress().port);
    }
};

/// Both ends of a connection over the loopback. The arguments are those of the client's end; the server's end waits and has
/// no buffers.
struct Connection {
    explicit Connection(
        bool blocking = true, unsigned int read_buffer = 0, unsigned int write_buffer = 0,
        IPSocket::IPProtocolVersion version = IPSocket::IPV4)
        : listener(version),
          client(listener.makeClient(blocking, read_buffer, write_buffer)),
          server(true, 0, 0, connectAndAccept(blocking)) {}

    TCPSocket::Description connectAndAccept(bool blocking) {
        EXPECT_EQ(!blocking, client.connect());
        EXPECT_FALSE(client.hadError());
        EXPECT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
        return listener.acceptConnection();
    }

    Listener listener;
    Client client;
    Client server;
};

/// A socket of the system alone, bound to the loopback: until it listens, who connects to it is refused.
class BoundSocket {
public:
    explicit BoundSocket(IPSocket::IPProtocolVersion version = IPSocket::IPV4)
        : m_version(version), m_fd(socket(version == IPSocket::IPV6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0)) {
        sockaddr_storage storage{};
        auto* const address = reinterpret_cast<sockaddr*>(&storage);
        socklen_t size = sizeof(sockaddr_in);
        if (version == IPSocket::IPV6) {
            size = sizeof(sockaddr_in6);
            reinterpret_cast<sockaddr_in6&>(storage) = IPAddress::makeHandle(in6addr_loopback, 0, 0);
        } else {
            reinterpret_cast<sockaddr_in&>(storage) = IPAddress::makeHandle(INADDR_LOOPBACK, 0);
        }
        EXPECT_EQ(0, bind(m_fd, address, size));
        EXPECT_EQ(0, getsockname(m_fd, address, &size));
        m_port = ntohs(reinterpret_cast<sockaddr_in&>(storage).sin_port);
    }
    ~BoundSocket() { close(m_fd); }

    BoundSocket(BoundSocket const&) = delete;
    BoundSocket& operator=(BoundSocket const&) = delete;

    int getFd() const { return m_fd; }
    IPAddress getAddress() const { return {getLoopback(m_version), m_port}; }

private:
    IPSocket::IPProtocolVersion m_version;
    int m_fd;
    unsigned short m_port = 0;
};

/// Ends the connection of a descriptor with a reset.
inline void makeCloseReset(int fd) {
    linger const at_once{1, 0};
    EXPECT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once));
}

} // namespace support
