#pragma once

#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/UnixServerSocket.h>
#include <vesk/UnixSocket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

/// The system calls below the Unix sockets, replaced: a `support::Fault` makes them fail, and some tell what they were
/// called with. Include it in one file of a test program.

namespace support {

/// What the last calls were made with, and what some of them are to tell instead of the truth.
struct UnixCalls {
    int domain = -1;
    int type = -1;
    int protocol = -1;
    std::string bound; ///< The bytes of the address, those of its structure at most.
    socklen_t bind_length = 0;
    std::string connected;
    socklen_t connect_length = 0;
    int backlog = -1;
    socklen_t accept_room = 0;
    int accept_flags = 0;
    int how = -1;

    std::optional<sockaddr_un> peer_name; ///< For `getpeername`.
    socklen_t peer_length = 0;
    std::optional<ucred> credentials; ///< For `getsockopt`.
    socklen_t credentials_length = 0;
};

inline UnixCalls s_unix_calls;

/// Whether the call is to fail, with `errno` set if so.
VESK_UNWATCHED inline bool fails(Injected& function) {
    int error = 0;
    if (!function.fails(error)) {
        return false;
    }
    errno = error;
    return true;
}

inline std::string bytesOf(void const* address, socklen_t length) {
    return {static_cast<char const*>(address), std::min<size_t>(length, sizeof(sockaddr_un))};
}

} // namespace support

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))

support::Injected inject_socket("socket");
support::Injected inject_getfl("fcntl");
support::Injected inject_setfl("fcntl");
support::Injected inject_bind("bind");
support::Injected inject_connect("connect");
support::Injected inject_listen("listen");
support::Injected inject_accept4("accept4");
support::Injected inject_shutdown("shutdown");
support::Injected inject_getpeername("getpeername");
support::Injected inject_getsockopt("getsockopt");

extern "C" {

VESK_UNWATCHED int socket(int domain, int type, int protocol) {
    support::s_unix_calls.domain = domain;
    support::s_unix_calls.type = type;
    support::s_unix_calls.protocol = protocol;
    if (support::fails(inject_socket)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, int)>(inject_socket.getReal())(domain, type, protocol);
}

VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if ((command == F_GETFL && support::fails(inject_getfl)) ||
        (command == F_SETFL && support::fails(inject_setfl))) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, ...)>(inject_getfl.getReal())(fd, command, argument);
}

VESK_UNWATCHED int bind(int fd, sockaddr const* address, socklen_t length) {
    support::s_unix_calls.bound = support::bytesOf(address, length);
    support::s_unix_calls.bind_length = length;
    if (support::fails(inject_bind)) {
        return -1;
    }
    return reinterpret_cast<decltype(&bind)>(inject_bind.getReal())(fd, address, length);
}

VESK_UNWATCHED int connect(int fd, sockaddr const* address, socklen_t length) {
    support::s_unix_calls.connected = support::bytesOf(address, length);
    support::s_unix_calls.connect_length = length;
    if (support::fails(inject_connect)) {
        return -1;
    }
    return reinterpret_cast<decltype(&connect)>(inject_connect.getReal())(fd, address, length);
}

VESK_UNWATCHED int listen(int fd, int backlog) {
    support::s_unix_calls.backlog = backlog;
    if (support::fails(inject_listen)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, int)>(inject_listen.getReal())(fd, backlog);
}

VESK_UNWATCHED int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    support::s_unix_calls.accept_room = *length;
    support::s_unix_calls.accept_flags = flags;
    if (support::fails(inject_accept4)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, sockaddr*, socklen_t*, int)>(inject_accept4.getReal())(
        fd, address, length, flags);
}

VESK_UNWATCHED int shutdown(int fd, int how) {
    support::s_unix_calls.how = how;
    if (support::fails(inject_shutdown)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, int)>(inject_shutdown.getReal())(fd, how);
}

VESK_UNWATCHED int getpeername(int fd, sockaddr* address, socklen_t* length) {
    if (support::fails(inject_getpeername)) {
        return -1;
    }
    if (support::s_unix_calls.peer_name) {
        memcpy(address, &*support::s_unix_calls.peer_name, std::min<size_t>(*length, sizeof(sockaddr_un)));
        *length = support::s_unix_calls.peer_length;
        return 0;
    }
    return reinterpret_cast<int (*)(int, sockaddr*, socklen_t*)>(inject_getpeername.getReal())(
        fd, address, length);
}

VESK_UNWATCHED int getsockopt(int fd, int level, int option, void* value, socklen_t* length) {
    if (support::fails(inject_getsockopt)) {
        return -1;
    }
    if (support::s_unix_calls.credentials && level == SOL_SOCKET && option == SO_PEERCRED) {
        memcpy(value, &*support::s_unix_calls.credentials, std::min<size_t>(*length, sizeof(ucred)));
        *length = support::s_unix_calls.credentials_length;
        return 0;
    }
    return reinterpret_cast<int (*)(int, int, int, void*, socklen_t*)>(inject_getsockopt.getReal())(
        fd, level, option, value, length);
}
}

namespace support {

/// A number of the system and the report that it becomes.
struct SystemRow {
    constexpr SystemRow(int row_error, std::ErrorType const& row_family, int row_id)
        : error(row_error), family(&row_family), id(row_id) {}

    int error;
    std::ErrorType const* family;
    int id;
};

inline void PrintTo(SystemRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

inline ExpectedReport expected(SystemRow const& row) {
    return {*row.family, row.id, rowText(*row.family, row.id, systemText(row.error))};
}

/// Whether that report alone is pending. Acknowledges it.
inline testing::AssertionResult failureIs(SystemRow const& row) {
    return chainIs({expected(row)});
}

/// Whether a misuse with this text is pending. Acknowledges it.
inline testing::AssertionResult misuseIs(std::string const& text) {
    return chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN, rowText(std::CommonErrorId::CONTRACT_BROKEN, text)}});
}

/// The name of a test that makes one of the two calls of `fcntl` fail.
inline std::string flagCallName(testing::TestParamInfo<Injected*> const& info) {
    return info.param == &inject_getfl ? "F_GETFL" : "F_SETFL";
}

inline constexpr SystemRow CREATION_ROWS[] = {
    {EMFILE, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {ENFILE, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EACCES, vesk::SysError, vesk::SysErrorId::PERMISSION_DENIED},
    {EINVAL, vesk::Socket::Error, vesk::Socket::ErrorId::CREATE_FAILED},
    {EPROTOTYPE, vesk::Socket::Error, vesk::Socket::ErrorId::CREATE_FAILED},
    {EPROTONOSUPPORT, vesk::Socket::Error, vesk::Socket::ErrorId::CREATE_FAILED},
    {EAFNOSUPPORT, vesk::Socket::Error, vesk::Socket::ErrorId::CREATE_FAILED},
    {ENOMEM, vesk::SysError, vesk::SysErrorId::OUT_OF_MEMORY},
    {ENOBUFS, vesk::SysError, vesk::SysErrorId::OUT_OF_MEMORY},
    {EPERM, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {EINTR, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {EIO, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
};

inline constexpr SystemRow BIND_ROWS[] = {
    {EINVAL, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOENT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EIO, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EBADF, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EFAULT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTDIR, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EISDIR, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EROFS, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENAMETOOLONG, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ELOOP, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTSOCK, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EDESTADDRREQ, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EOPNOTSUPP, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EAFNOSUPPORT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EISCONN, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOMEM, vesk::SysError, vesk::SysErrorId::OUT_OF_MEMORY},
    {EACCES, vesk::SysError, vesk::SysErrorId::PERMISSION_DENIED},
    {EADDRINUSE, vesk::Socket::Error, vesk::Socket::ErrorId::ADDRESS_IN_USE},
    {EADDRNOTAVAIL, vesk::Socket::Error, vesk::Socket::ErrorId::ADDRESS_INVALID},
    {ENOBUFS, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EPERM, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {EINTR, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {ENOSPC, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
};

inline constexpr SystemRow CONNECT_ROWS[] = {
    {EPERM, vesk::SysError, vesk::SysErrorId::PERMISSION_DENIED},
    {EACCES, vesk::SysError, vesk::SysErrorId::PERMISSION_DENIED},
    {ENOENT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EBADF, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EFAULT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTDIR, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EINVAL, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENAMETOOLONG, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ELOOP, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTSOCK, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EPROTOTYPE, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EOPNOTSUPP, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EAFNOSUPPORT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EISCONN, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ETIMEDOUT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EAGAIN, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {ENOBUFS, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EADDRINUSE, vesk::Socket::Error, vesk::Socket::ErrorId::ADDRESS_IN_USE},
    {EADDRNOTAVAIL, vesk::Socket::Error, vesk::Socket::ErrorId::ADDRESS_INVALID},
    {ENETDOWN, vesk::Socket::Error, vesk::Socket::ErrorId::NETWORK_UNAVAILABLE},
    {ENETUNREACH, vesk::Socket::Error, vesk::Socket::ErrorId::NETWORK_UNAVAILABLE},
    {ECONNRESET, vesk::Socket::Error, vesk::Socket::ErrorId::CONNECTION_RESET},
    {ECONNREFUSED, vesk::Socket::Error, vesk::Socket::ErrorId::PEER_UNREACHABLE},
    {EHOSTUNREACH, vesk::Socket::Error, vesk::Socket::ErrorId::PEER_UNREACHABLE},
    {ENOMEM, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {EIO, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
};

inline constexpr SystemRow LISTEN_ROWS[] = {
    {EADDRINUSE, vesk::Socket::Error, vesk::Socket::ErrorId::ADDRESS_IN_USE},
    {ENOBUFS, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EACCES, vesk::SysError, vesk::SysErrorId::PERMISSION_DENIED},
    {EBADF, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EINVAL, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTSOCK, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EDESTADDRREQ, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EOPNOTSUPP, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EINTR, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {ENOMEM, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {EPERM, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
};

inline constexpr SystemRow ACCEPT_ROWS[] = {
    {EPERM, vesk::SysError, vesk::SysErrorId::PERMISSION_DENIED},
    {ESRCH, vesk::Socket::Error, vesk::Socket::ErrorId::NETWORK_UNAVAILABLE},
    {EBADF, vesk::Socket::Error, vesk::Socket::ErrorId::INVALID_SOCKET},
    {EINVAL, vesk::Socket::Error, vesk::Socket::ErrorId::INVALID_SOCKET},
    {ENOMEM, vesk::SysError, vesk::SysErrorId::OUT_OF_MEMORY},
    {ENOBUFS, vesk::SysError, vesk::SysErrorId::OUT_OF_MEMORY},
    {EFAULT, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTSOCK, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EOPNOTSUPP, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENFILE, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EMFILE, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EPROTO, vesk::Socket::Error, vesk::Socket::ErrorId::COMMUNICATION_FAILED},
    {ETIMEDOUT, vesk::Socket::Error, vesk::Socket::ErrorId::COMMUNICATION_FAILED},
    {ECONNABORTED, vesk::Socket::Error, vesk::Socket::ErrorId::CONNECTION_CLOSED},
    {EACCES, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {EIO, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
    {ENETDOWN, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
};

inline constexpr SystemRow SHUTDOWN_ROWS[] = {
    {EBADF, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {EINVAL, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTSOCK, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOTCONN, vesk::SysError, vesk::SysErrorId::SPOILED_INTEGRITY},
    {ENOBUFS, vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED},
    {EIO, vesk::SysError, vesk::SysErrorId::UNCLASSIFIED},
};

/// A name in the abstract name space that no other test has.
inline std::string makeAbstractName() {
    static int count = 0;
    return "vesk-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

/// The binary form of an abstract name, without anything behind it.
inline std::string abstractAddress(std::string const& name) {
    sa_family_t const family = AF_UNIX;
    return std::string(reinterpret_cast<char const*>(&family), sizeof family) + '\0' + name;
}

/// The address that a descriptor has, as the system tells it.
inline std::string addressOf(int fd) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
    return bytesOf(&address, length);
}

/// Whether abstract names are exact. Some emulators put a zero behind them, and shorten addresses that are too long.
inline bool keepsAddresses() {
    static bool const keeps = [] {
        std::string const address = abstractAddress(makeAbstractName());
        sockaddr_un binary{};
        memcpy(&binary, address.data(), address.size());
        int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&binary), static_cast<socklen_t>(address.size())));
        bool const same = addressOf(fd) == address;
        close(fd);
        return same;
    }();
    return keeps;
}

inline bool isSocketFile(std::string const& path) {
    struct stat data {};
    return lstat(path.c_str(), &data) == 0 && S_ISSOCK(data.st_mode);
}

inline bool isOpenDescriptor(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Takes a number away from the library's objects that only believed to have closed it.
inline void closeForReal(int fd) {
    EXPECT_TRUE(isOpenDescriptor(fd)) << fd;
    close(fd);
}

/// Both ends of a connection, and the server that they came from. Closes what the test has left open.
struct UnixConnection {
    explicit UnixConnection(
        bool blocking = true, unsigned int buffers = 0, std::string const& server_name = makeAbstractName(),
        vesk::UnixSocketBase::NameSpace name_space = vesk::UnixSocketBase::ABSTRACT,
        std::string const& client_name = "")
        : server(server_name, true, name_space),
          client(blocking, buffers, buffers, client_name, server_name, name_space) {
        server.enableListen(4);
        EXPECT_FALSE(server.hadError());
        EXPECT_FALSE(client.connect());
        accepted = std::make_unique<vesk::UnixSocket>(blocking, buffers, buffers, server.acceptConnection());
        EXPECT_TRUE(accepted->isValid());
        EXPECT_TRUE(chainIs({}));
    }
    ~UnixConnection() {
        for (vesk::UnixSocketBase* const socket :
             {static_cast<vesk::UnixSocketBase*>(accepted.get()), static_cast<vesk::UnixSocketBase*>(&client),
              static_cast<vesk::UnixSocketBase*>(&server)}) {
            if (socket != nullptr && socket->getState() != vesk::Socket::DEAD) {
                EXPECT_FALSE(socket->close(false));
            }
        }
    }

    vesk::UnixServerSocket server;
    vesk::UnixSocket client;
    std::unique_ptr<vesk::UnixSocket> accepted;
};

/// Sends a text in one go.
inline testing::AssertionResult sends(vesk::Socket& socket, std::string const& text) {
    unsigned int count = 0;
    int const result = socket.write(text.data(), static_cast<unsigned int>(text.size()), count);
    if (result == 1 && count == text.size() && !socket.flush(false)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << result << ", " << count << " bytes";
}

/// Receives until a text of the same length is there.
inline testing::AssertionResult receives(vesk::Socket& socket, std::string const& text) {
    std::string got;
    while (got.size() < text.size()) {
        char block[4096];
        unsigned int count = 0;
        int const result = socket.read(
            block, static_cast<unsigned int>(std::min(sizeof block, text.size() - got.size())), count);
        if (result != 1) {
            return testing::AssertionFailure() << result << " after " << got.size() << " bytes";
        }
        got.append(block, count);
    }
    return got == text ? testing::AssertionSuccess() : testing::AssertionFailure() << got;
}

/// Whether the connection is at its end, and says so as such.
inline testing::AssertionResult isAtEnd(vesk::Socket& socket) {
    char byte = 0;
    unsigned int count = 99;
    int const result = socket.read(&byte, 1, count);
    if (result != 0 || count != 0 || !socket.hadError()) {
        return testing::AssertionFailure() << result << ", " << count << " bytes";
    }
    return chainIs(
        {{vesk::Socket::ErrorId::CONNECTION_CLOSED, "Connection closed: Connection closed normally"},
         {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::END_OF_STREAM}});
}

} // namespace support
