#pragma once

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/IPSocket.h>
#include <vesk/SavedErrorChain.h>
#include <vesk/SysError.h>

#include <netinet/in.h>
#include <sys/socket.h>

/// What the classes of sockets share below their interfaces. Where nothing else is told, a true result is a failure,
/// which has been reported.

namespace vesk::detail {

/// The rows of `send` and `sendto`, which only differ in what they tell of a number that no row has.
struct SendErrors {
    ErrnoRow rows[10];
};

constexpr SendErrors makeSendErrors(RowReport unlisted) noexcept {
    using StreamErrorId = std::IBinStreamBase::StreamErrorId;
    return {{
        {{EAGAIN}, NONE, NONE, Outcome::NOT_NOW},
        {{EPERM, EACCES}, SysErrorId::PERMISSION_DENIED, StreamErrorId::UNUSABLE},
        {{EIO, EBADF, ENOTSOCK, EOPNOTSUPP, ENOTCONN},
         SysErrorId::SPOILED_INTEGRITY,
         StreamErrorId::UNUSABLE},
        {{EPIPE}, Socket::ErrorId::INVALID_SOCKET, StreamErrorId::UNUSABLE},
        {{EDESTADDRREQ}, Socket::ErrorId::ADDRESS_INVALID, StreamErrorId::UNUSABLE},
        {{ENETDOWN, ENETUNREACH}, Socket::ErrorId::NETWORK_UNAVAILABLE, StreamErrorId::UNUSABLE},
        {{ECONNRESET}, Socket::ErrorId::CONNECTION_RESET, StreamErrorId::UNUSABLE},
        {{EMSGSIZE}, Socket::ErrorId::MESSAGE_TOO_BIG, StreamErrorId::TRANSFER_FAILED},
        {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED},
        {OTHERS, unlisted, StreamErrorId::UNCLASSIFIED},
    }};
}

/// Makes the descriptor one that does not wait. Every other status flag is dropped: a socket starts with none.
bool setNonBlocking(int fd);

/// Allows or forbids an address that closed connections still hold (`SO_REUSEADDR`).
bool setReuse(int fd, bool on);

/// @param tolerate_einval  whether a socket that is bound already counts as success
bool bindSocket(int fd, sockaddr const* address, socklen_t length, bool tolerate_einval);

bool listenSocket(int fd, unsigned int backlog);

/// @param address   room for `length` bytes, for the address of the peer
/// @param accepted  the new descriptor, closed by `exec`
/// @return `NOT_NOW` if no connection waits and the descriptor does not either
Outcome acceptSocket(int fd, sockaddr* address, socklen_t length, int& accepted);

/// The end of an accepted descriptor that no socket has adopted: closes it, whatever it takes. A failure is a warning.
void closeAccepted(Place place, int fd);

/// Reports that a server has no traffic of its own.
void reportNoTraffic(Place place, char const* text);

/// @return 0 connected, 1 on its way, -1 failure
int connectSocket(int fd, sockaddr const* address, socklen_t length);

/// Ends both directions of a connection.
bool shutdownSocket(int fd);

/// Closes a descriptor for good: whatever the system says, it is not to be used again.
bool closeSocket(int fd);

/// Report why a `getsockopt`, `setsockopt` or `socket` failed, by `errno`. Always true.
bool classifyGetOptError();
bool classifySetOptError();
bool classifySocketCreateError();

/// Turn the host into the address of `out`, by the resolver if it is a name. Family and port are left alone.
bool convertAddrToBinary(IPSocket::IPAddress const& address, sockaddr_in& out);
bool convertAddrToBinary(IPSocket::IPAddress const& address, sockaddr_in6& out);

/// Closes after a failure without losing its reports. `on_failure` is called if the close fails as well.
template <typename Close, typename OnFailure>
void closeKeepingChain(Close close, OnFailure on_failure) {
    SavedErrorChain const saved;
    if (close()) {
        on_failure();
        std::ErrorStorage::ack();
    }
    saved.restore();
}

} // namespace vesk::detail
