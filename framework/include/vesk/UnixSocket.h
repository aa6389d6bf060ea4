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
/// The other end comes from `UnixServerSocket::acceptConnection`. See `UnixSocketBase` for names, `Socket` for states and
/// threads.
class VESK_API UnixSocket : public UnixSocketBase {
public:
    /// An accepted connection that no socket has adopted yet. It closes its descriptor when it is destroyed, unless a
    /// `UnixSocket` has been made from it. It moves, also to another thread; one that was moved from is empty.
    ///
    /// An empty one has `valid` false, `socket_fd` -1, addresses of zeros, an empty path and `FILESYSTEM`.
    class VESK_API Description {
    public:
        /// An empty one.
        Description() noexcept = default;

        Description(Description&& other) noexcept;
        /// Closes what it has had so far.
        Description& operator=(Description&& other) noexcept;

        Description(Description const&) = delete;
        Description& operator=(Description const&) = delete;

        /// Closes the descriptor that it owns (`close`, repeated until it succeeds). Each failure other than an
        /// interruption by a signal is a warning.
        ~Description();

        void swap(Description& other) noexcept;

        /// Whether this object owns `socket_fd`. The socket that adopts it clears it.
        mutable bool valid = false;
        int socket_fd = INVALID_SOCKET_FD; ///< The accepted descriptor; not reset when a socket adopts it.
        sockaddr_un local_binary{};        ///< Zeros, also of an accepted connection.
        sockaddr_un peer_binary{};         ///< The address of the peer, as the system told it.
        Path local_path;                   ///< The name of the server.
        NameSpace name_space = FILESYSTEM; ///< The server's.
    };

    /// Makes an `INACTIVE` socket (`socket`, closed by `exec`).
    ///
    /// It is invalid without a report if both names are empty, and otherwise with one: `CommonErrorId::OUT_OF_MEMORY` without memory for
    /// a buffer; `SysErrorId::RESOURCES_EXHAUSTED` without a descriptor, 7 without the right, 1 without memory; `Socket::ErrorId::CREATE_FAILED` for a system
    /// without such sockets; else `SysErrorId::UNCLASSIFIED`.
    /// @param blocking      whether operations wait
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    /// @param local         the name to bind before connecting; empty: none
    /// @param peer          the name to connect to
    /// @param name_space    what kind of names both are
    UnixSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Path const& local,
        Path const& peer, NameSpace name_space);

    /// Adopts an accepted connection; the socket is `OPEN`. The name that it has in common with the server stays the
    /// server's: no file is removed at the end.
    ///
    /// It is invalid without memory for a buffer (`CommonErrorId::OUT_OF_MEMORY`), for a description that is empty or was adopted before
    /// (`CommonErrorId::CONTRACT_BROKEN`), and if the descriptor cannot be made one that does not wait (`SysErrorId::UNCLASSIFIED`). The description
    /// then keeps its descriptor.
    UnixSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Description const& description);

    /// Connects an `INACTIVE` socket (`bind` if it has a name of its own, then `connect`, repeated while a signal
    /// interrupts it). Waits on a blocking socket while the server has its backlog full. After a failure the socket is
    /// as it was, except that it keeps a name that it has bound: make a new object to try again with a name.
    ///
    /// | result | `hadError` | state | meaning |
    /// |---|---|---|---|
    /// | false | false | `OPEN` | connected |
    /// | true | false | `OPEN` | on its way |
    /// | true | true | `INACTIVE` | failed |
    /// | false | true | as it was | `CommonErrorId::CONTRACT_BROKEN`: the socket is not `INACTIVE` |
    ///
    /// Reports `SysErrorId::PERMISSION_DENIED` without the right; `SysErrorId::SPOILED_INTEGRITY` for names that lead nowhere or are not usable; `SysErrorId::RESOURCES_EXHAUSTED`
    /// for a full backlog, and without resources; `Socket::ErrorId::ADDRESS_IN_USE` for a name of its own that is taken, `Socket::ErrorId::PEER_UNREACHABLE`
    /// if nobody listens; `Socket::ErrorId::ADDRESS_INVALID`, 6, 8 and `SysErrorId::OUT_OF_MEMORY` as the system names them; else `SysErrorId::UNCLASSIFIED`.
    bool connect();
};

} // namespace vesk
