#pragma once

#include <vesk/UnixSocketBase.h>

namespace vesk {

/// A connection between two processes of one machine:
///
///     vesk::UnixSocket socket(true, 0, 0, "", "/run/clock", vesk::UnixSocketBase::FILESYSTEM);
///     if (socket.connect()) { ... }
///     socket.write(request, size, written);
///     socket.close(false);
///
/// `UnixServerSocket::acceptConnection` returns the other end. See `UnixSocketBase` for names, `Socket` for
/// states and threads.
class VESK_API UnixSocket : public UnixSocketBase {
public:
    /// An accepted connection that no socket has adopted yet. Its destructor closes the descriptor unless a
    /// `UnixSocket` was created from it. It can be moved, also to another thread; a moved-from description is
    /// empty.
    ///
    /// An empty description has `valid` false, `socket_fd` -1, addresses of zeros, an empty path and
    /// `FILESYSTEM`.
    class VESK_API Description {
    public:
        /// Creates an empty description.
        Description() noexcept = default;

        /// Takes the connection of another description.
        Description(Description&& other) noexcept;
        /// Closes the descriptor that this object owned before.
        Description& operator=(Description&& other) noexcept;

        Description(Description const&) = delete;
        Description& operator=(Description const&) = delete;

        /// Closes the descriptor that it owns (`close`, repeated until it succeeds). Each failure other than
        /// an interruption by a signal is a warning.
        ~Description();

        /// Exchanges two descriptions.
        void swap(Description& other) noexcept;

        /// Whether this object owns `socket_fd`. The socket that adopts it clears it.
        mutable bool valid = false;
        int socket_fd = INVALID_SOCKET_FD; ///< The accepted descriptor; not reset when a socket adopts it.
        sockaddr_un local_binary{};        ///< All zero, even for an accepted connection.
        sockaddr_un peer_binary{};         ///< The address of the peer, as the system returned it.
        Path local_path;                   ///< The name of the server.
        NameSpace name_space = FILESYSTEM; ///< The kind of the server's name.
    };

    /// Creates an `INACTIVE` socket (`socket`, close-on-exec).
    ///
    /// If both names are empty, it is invalid without a report. After a failure it is invalid with a report:
    /// `CommonErrorId::OUT_OF_MEMORY` without memory for a buffer; `SysErrorId::RESOURCES_EXHAUSTED` without
    /// a descriptor; `SysErrorId::PERMISSION_DENIED` without the permission; `SysErrorId::OUT_OF_MEMORY`
    /// without memory; `Socket::ErrorId::CREATE_FAILED` for a system without such sockets; otherwise
    /// `SysErrorId::UNCLASSIFIED`.
    /// @param blocking      whether operations block
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    /// @param local         the name to bind before connecting; empty: none
    /// @param peer          the name to connect to
    /// @param name_space    the kind of both names
    UnixSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Path const& local,
        Path const& peer, NameSpace name_space);

    /// Adopts an accepted connection; the socket is `OPEN`. `close` does not remove the server's file.
    ///
    /// It is invalid without memory for a buffer (`CommonErrorId::OUT_OF_MEMORY`), for a description that is
    /// empty or was already adopted (`CommonErrorId::CONTRACT_BROKEN`), and if the descriptor cannot be made
    /// non-blocking (`SysErrorId::UNCLASSIFIED`). The description then keeps its descriptor.
    UnixSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Description const& description);

    /// Connects an `INACTIVE` socket (`bind` if it has a name of its own, then `connect`, repeated while a
    /// signal interrupts it). A blocking socket blocks while the server's backlog is full. After a failure
    /// the socket is unchanged, except that it keeps a name that it has bound: create a new object to repeat
    /// the attempt with a name.
    ///
    /// | result | `hadError` | state | meaning |
    /// |---|---|---|---|
    /// | false | false | `OPEN` | connected |
    /// | true | false | `OPEN` | in progress |
    /// | true | true | `INACTIVE` | failed |
    /// | false | true | unchanged | `CommonErrorId::CONTRACT_BROKEN`: the socket is not `INACTIVE` |
    ///
    /// Reports `CommonErrorId::INVALID_ARGUMENT`, after an assertion, without a descriptor;
    /// `SysErrorId::PERMISSION_DENIED` without the permission; `SysErrorId::SPOILED_INTEGRITY` for a name
    /// that does not exist or is not usable; `SysErrorId::RESOURCES_EXHAUSTED` for a full backlog, and
    /// without resources; `SysErrorId::OUT_OF_MEMORY` without memory; `Socket::ErrorId::ADDRESS_IN_USE` if
    /// its own name is in use; `Socket::ErrorId::PEER_UNREACHABLE` if no socket listens at the peer's name;
    /// `Socket::ErrorId::ADDRESS_INVALID`, `Socket::ErrorId::CONNECTION_RESET` and
    /// `Socket::ErrorId::NETWORK_UNAVAILABLE` as the system returns them; otherwise
    /// `SysErrorId::UNCLASSIFIED`.
    [[nodiscard]] bool connect();
};

} // namespace vesk
