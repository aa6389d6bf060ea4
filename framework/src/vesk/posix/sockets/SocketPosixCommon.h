#pragma once

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/IPSocket.h>
#include <vesk/SavedErrorChain.h>
#include <vesk/SysError.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

/// The shared implementation of the socket classes. Unless stated otherwise, a true result is a failure that
/// has been reported.

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(Socket::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::SOCKET;
}

} // namespace vesk

namespace vesk::detail {

/// The rows of `send` and `sendto`, which differ only in the cause of an unlisted error number.
struct SendErrors {
    ErrnoRow rows[10];
};

constexpr SendErrors makeSendErrors(RowReport unlisted) noexcept {
    using StreamErrorId = std::IBinStreamBase::StreamErrorId;
    return {{
        {{EAGAIN}, NONE, NONE, Outcome::BUSY},
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

/// Makes the descriptor non-blocking. Clears all other status flags: a new socket has none.
bool setNonBlocking(int fd);

/// Permits or forbids an address that closed connections still hold (`SO_REUSEADDR`).
bool setReuse(int fd, bool on);

/// @param tolerate_einval  whether `EINVAL`, as for a socket that is already bound, counts as success
bool bindSocket(int fd, sockaddr const* address, socklen_t length, bool tolerate_einval);

bool listenSocket(int fd, unsigned int backlog);

/// @param address   room for `length` bytes, for the address of the peer
/// @param accepted  the new descriptor, close-on-exec
/// @return `BUSY` if no connection waits on a non-blocking descriptor
Outcome acceptSocket(int fd, sockaddr* address, socklen_t length, int& accepted);

/// Swaps what the descriptions of TCP and Unix connections have in common.
template <typename Description>
void swapAccepted(Description& one, Description& other) noexcept {
    std::swap(one.valid, other.valid);
    std::swap(one.socket_fd, other.socket_fd);
    std::swap(one.local_binary, other.local_binary);
    std::swap(one.peer_binary, other.peer_binary);
}

/// Closes an accepted descriptor that no socket has adopted (`close`, repeated until it succeeds). A failure
/// other than an interruption is a warning.
void closeAccepted(Place place, int fd);

/// Reports that a listening socket transfers no data.
void reportNoTraffic(Place place, char const* text);

/// @return 0 connected, 1 in progress, -1 failure
int connectSocket(int fd, sockaddr const* address, socklen_t length);

/// Ends both directions of a connection.
bool shutdownSocket(int fd);

/// Closes a descriptor. It must not be used again, whatever the result is. Fails without a report if it was
/// not open.
bool closeSocket(int fd);

/// Reports the failure of a `getsockopt`, `setsockopt` or `socket` by `errno`. Always returns true.
bool classifyGetOptError();
bool classifySetOptError();
bool classifySocketCreateError();

/// Sets an option. The value is an integer or a structure of the system.
template <typename Value>
bool setOption(int fd, int level, int option, Value const& value) {
    // LCOV_EXCL_BR_LINE: the last function always returns true
    return setsockopt(fd, level, option, &value, sizeof value) != 0 && classifySetOptError();
}

/// Converts the host to the address in `out`, with the resolver if it is a name. Leaves family and port
/// unchanged. Fails without a report if the system cannot read the numeric form that it returned.
bool convertAddrToBinary(IPSocket::IPAddress const& address, sockaddr_in& out);
bool convertAddrToBinary(IPSocket::IPAddress const& address, sockaddr_in6& out);

/// Closes after a failure and preserves the pending reports. Calls `on_failure` if the close fails as well.
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
