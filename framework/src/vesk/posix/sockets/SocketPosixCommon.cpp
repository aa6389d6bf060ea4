#include "SocketPosixCommon.h"

#include "vesk/posix/detail/CloseFd.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/Unwindable.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

namespace vesk::detail {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SocketPosixCommon";

constexpr ErrnoRow FLAG_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow GET_OPTION_ERRORS[] = {
    {{EBADF, EINVAL, ENOTSOCK}, Socket::ErrorId::INVALID_SOCKET},
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{ENOPROTOOPT}, Socket::ErrorId::UNKNOWN_OPTION},
    {{ENOBUFS}, SysErrorId::OUT_OF_MEMORY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SET_OPTION_ERRORS[] = {
    {{EBADF, ENOTSOCK}, Socket::ErrorId::INVALID_SOCKET},
    // Required by callers: the id of the system's family, although its text mentions a path.
    {{EFAULT, EINVAL, EDOM, EISCONN}, SysErrorId::INVALID_PATH},
    {{ENOPROTOOPT}, Socket::ErrorId::UNKNOWN_OPTION},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CREATION_ERRORS[] = {
    {{EMFILE, ENFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{EINVAL, EPROTOTYPE, EPROTONOSUPPORT, EAFNOSUPPORT}, Socket::ErrorId::CREATE_FAILED},
    {{ENOMEM, ENOBUFS}, SysErrorId::OUT_OF_MEMORY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow BIND_ERRORS[] = {
    {{EINVAL, ENOENT, EIO, EBADF, EFAULT, ENOTDIR, EISDIR, EROFS, ENAMETOOLONG, ELOOP, ENOTSOCK, EDESTADDRREQ,
      EOPNOTSUPP, EAFNOSUPPORT, EISCONN},
     SysErrorId::SPOILED_INTEGRITY},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{EADDRINUSE}, Socket::ErrorId::ADDRESS_IN_USE},
    {{EADDRNOTAVAIL}, Socket::ErrorId::ADDRESS_INVALID},
    {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow LISTEN_ERRORS[] = {
    {{EADDRINUSE}, Socket::ErrorId::ADDRESS_IN_USE},
    {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED},
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{EBADF, EINVAL, ENOTSOCK, EDESTADDRREQ, EOPNOTSUPP}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow ACCEPT_ERRORS[] = {
    {{EAGAIN}, NONE, NONE, Outcome::BUSY},
    {{EPERM}, SysErrorId::PERMISSION_DENIED},
    {{ESRCH}, Socket::ErrorId::NETWORK_UNAVAILABLE},
    {{EBADF, EINVAL}, Socket::ErrorId::INVALID_SOCKET},
    {{ENOMEM, ENOBUFS}, SysErrorId::OUT_OF_MEMORY},
    {{EFAULT, ENOTSOCK, EOPNOTSUPP}, SysErrorId::SPOILED_INTEGRITY},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{EPROTO, ETIMEDOUT}, Socket::ErrorId::COMMUNICATION_FAILED},
    {{ECONNABORTED}, Socket::ErrorId::CONNECTION_CLOSED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};
static_assert(EAGAIN == EWOULDBLOCK);

constexpr ErrnoRow CONNECT_ERRORS[] = {
    {{EALREADY, EINPROGRESS}, NONE, NONE, Outcome::BUSY},
    {{EPERM, EACCES}, SysErrorId::PERMISSION_DENIED},
    {{ENOENT, EBADF, EFAULT, ENOTDIR, EINVAL, ENAMETOOLONG, ELOOP, ENOTSOCK, EPROTOTYPE, EOPNOTSUPP,
      EAFNOSUPPORT, EISCONN, ETIMEDOUT},
     SysErrorId::SPOILED_INTEGRITY},
    {{EAGAIN, ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED},
    {{EADDRINUSE}, Socket::ErrorId::ADDRESS_IN_USE},
    {{EADDRNOTAVAIL}, Socket::ErrorId::ADDRESS_INVALID},
    {{ENETDOWN, ENETUNREACH}, Socket::ErrorId::NETWORK_UNAVAILABLE},
    {{ECONNRESET}, Socket::ErrorId::CONNECTION_RESET},
    {{ECONNREFUSED, EHOSTUNREACH}, Socket::ErrorId::PEER_UNREACHABLE},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SHUTDOWN_ERRORS[] = {
    {{EBADF, EINVAL, ENOTSOCK, ENOTCONN}, SysErrorId::SPOILED_INTEGRITY},
    {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CLOSE_ERRORS[] = {
    // The descriptor is closed anyway, and the caller could not react to a report.
    {{EBADF}, NONE},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

/// Returns true, after an assertion and a report, if there is no descriptor.
bool isMissing(int fd, int line, char const* function) {
    if (fd != Socket::INVALID_SOCKET_FD) {
        return false;
    }
    std::GlobalErrorHandler::doAssert(
        false, "p_socket_fd != INVALID_SOCKET_FD", SOURCE, line, function, nullptr);
    report(
        {SOURCE, line}, Chain::NEW, std::CommonError, std::CommonErrorId::INVALID_ARGUMENT,
        "p_socket_fd is invalid");
    return true;
}

/// Returns the first numeric address of a host name; null, after a report, if it has none.
char const*
resolveFirst(IPSocket::IPResolver& resolver, char const* host, IPSocket::IPProtocolVersion version) {
    int const count = resolver.resolveName(host, version);
    if (count == 0) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::INVALID_ARGUMENT,
            "Given hostname doesn't resolve into any IP addresses");
    }
    return count > 0 ? resolver.getItem(0).c_str() : nullptr;
}

} // namespace

bool setNonBlocking(int fd) {
    int const flags = fcntl(fd, F_GETFL);
    if (flags == -1 || fcntl(fd, F_SETFL, (flags & O_ACCMODE) | O_NONBLOCK) == -1) {
        classify(SOURCE, FLAG_ERRORS, errno);
        return true;
    }
    return false;
}

bool setReuse(int fd, bool on) {
    if (isMissing(fd, __LINE__, "setReuse")) {
        return true;
    }
    return setOption(fd, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}

bool bindSocket(int fd, sockaddr const* address, socklen_t length, bool tolerate_einval) {
    if (isMissing(fd, __LINE__, "bindSocket")) {
        return true;
    }
    if (bind(fd, address, length) == 0 || (errno == EINVAL && tolerate_einval)) {
        return false;
    }
    classify(SOURCE, BIND_ERRORS, errno);
    return true;
}

bool listenSocket(int fd, unsigned int backlog) {
    if (listen(fd, static_cast<int>(backlog)) == 0) {
        return false;
    }
    classify(SOURCE, LISTEN_ERRORS, errno);
    return true;
}

Outcome acceptSocket(int fd, sockaddr* address, socklen_t length, int& accepted) {
    accepted = retryOnEintr([&] {
        socklen_t room = length;
        return unwindable([&] { return accept4(fd, address, &room, SOCK_CLOEXEC); });
    });
    return accepted >= 0 ? Outcome::DONE : classify(SOURCE, ACCEPT_ERRORS, errno);
}

void closeAccepted(Place place, int fd) {
    CancellationOff const cancellation_off;
    // Not only after an interruption: the descriptor must not leak, whatever the failure.
    while (close(fd) != 0) {
        if (errno != EINTR) {
            std::GlobalErrorHandler::doWarning(
                place.file, place.line, "~Description", "unknown error closing socket FD");
        }
    }
}

void reportNoTraffic(Place place, char const* text) {
    report(place, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, text);
    report(place, Chain::ON_TOP, std::IBinStreamBase::StreamErrorId::NOT_SUPPORTED);
}

int connectSocket(int fd, sockaddr const* address, socklen_t length) {
    if (isMissing(fd, __LINE__, "connectSocket")) {
        return -1;
    }
    if (retryOnEintr([&] { return connect(fd, address, length); }) == 0) {
        return 0;
    }
    return toResult(classify(SOURCE, CONNECT_ERRORS, errno));
}

bool shutdownSocket(int fd) {
    if (isMissing(fd, __LINE__, "shutdownSocket")) {
        return true;
    }
    if (shutdown(fd, SHUT_RDWR) == 0) {
        return false;
    }
    classify(SOURCE, SHUTDOWN_ERRORS, errno);
    return true;
}

bool closeSocket(int fd) {
    if (retryOnEintr([&] { return closeFd(fd); }) == 0) {
        return false;
    }
    classify(SOURCE, CLOSE_ERRORS, errno);
    return true;
}

bool classifyGetOptError() {
    classify(SOURCE, GET_OPTION_ERRORS, errno);
    return true;
}

bool classifySetOptError() {
    classify(SOURCE, SET_OPTION_ERRORS, errno);
    return true;
}

bool classifySocketCreateError() {
    classify(SOURCE, CREATION_ERRORS, errno);
    return true;
}

bool convertAddrToBinary(IPSocket::IPAddress const& address, sockaddr_in& out) {
    if (address.host.empty()) {
        out.sin_addr.s_addr = htonl(INADDR_ANY);
        return false;
    }
    if (inet_pton(AF_INET, address.host.c_str(), &out.sin_addr) == 1) {
        return false;
    }
    IPSocket::IPResolver resolver;
    char const* const numeric = resolveFirst(resolver, address.host.c_str(), IPSocket::IPV4);
    if (numeric == nullptr) {
        return true;
    }
    int const conv_res = inet_pton(AF_INET, numeric, &out.sin_addr);
    std::GlobalErrorHandler::doAssert(
        conv_res == 1, "conv_res == 1", SOURCE, __LINE__, "convertAddrToBinary", nullptr);
    return conv_res != 1;
}

bool convertAddrToBinary(IPSocket::IPAddress const& address, sockaddr_in6& out) {
    if (address.host.empty()) {
        out.sin6_addr = in6addr_any;
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    // Not inet_pton: only the resolver reads the interface after a link-local address.
    if (getaddrinfo(address.host.c_str(), nullptr, &hints, &list) == 0) {
        addrinfo const* entry = list;
        while (entry != nullptr && entry->ai_family != AF_INET6) {
            entry = entry->ai_next;
        }
        if (entry != nullptr) {
            auto const& found = *reinterpret_cast<sockaddr_in6 const*>(entry->ai_addr);
            out.sin6_addr = found.sin6_addr;
            out.sin6_scope_id = found.sin6_scope_id;
        }
        freeaddrinfo(list);
        return entry == nullptr;
    }
    IPSocket::IPResolver resolver;
    char const* const numeric = resolveFirst(resolver, address.host.c_str(), IPSocket::IPV6);
    return numeric == nullptr || inet_pton(AF_INET6, numeric, &out.sin6_addr) != 1;
}

} // namespace vesk::detail
