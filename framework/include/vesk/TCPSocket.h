#pragma once

#include <vesk/Export.h>
#include <vesk/IPSocket.h>

#include <cstdint>

namespace vesk {

/// One connection of TCP. Either it makes the connection itself:
///
///     vesk::TCPSocket socket(true, 0, 0, vesk::IPSocket::IPAddress(), {"device.local", 80}, false, vesk::IPSocket::IPV4);
///     if (socket.isValid() && !socket.connect()) {
///         socket.write(request, size, written);
///         socket.read(answer, sizeof answer, count);
///     }
///     socket.close(true);
///
/// or it takes over what a `TCPServerSocket` has accepted, in any thread and with its own blocking mode and buffers:
///
///     vesk::TCPSocket::Description const accepted = server.acceptConnection();
///     vesk::TCPSocket socket(true, 4096, 4096, accepted);
///
/// A peer that goes away is seen by the next `read` or `write`; nobody watches the connection.
///
/// It is not a class for two threads at a time, see `Socket`. An open one must be closed before it is destroyed.
class VESK_API TCPSocket : public IPSocket {
public:
    /// The largest segment, in bytes: a packet of 65535 less the headers of IP and TCP.
    VESK_API_INLINE static constexpr uint32_t MAX_SEGMENT_SIZE = 65495;

    /// How the system finds out that the peer of an idle connection is gone.
    struct KeepaliveSettings {
        bool enabled;               ///< Whether it looks at all; the others count only then.
        int idle_seconds;           ///< How long the connection is idle before the first probe.
        int probe_count;            ///< How many probes stay unanswered until the connection is given up.
        int probe_interval_seconds; ///< How long it waits for the answer to each.
    };

    /// An accepted connection that no socket has adopted yet. It closes its descriptor when it is destroyed, unless a
    /// `TCPSocket` has been made from it. It moves, also to another thread; one that was moved from is empty.
    ///
    /// An empty one has `valid` false, `socket_fd` -1, addresses of zeros, an empty text with port 0 and `IPV4`.
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
        BinaryAddress local_binary{};      ///< Zeros, also of an accepted connection.
        BinaryAddress peer_binary{};       ///< The address of the peer.
        IPAddress local_address;           ///< The listening address, as the server has it.
        IPProtocolVersion version = IPV4;  ///< The server's.
    };

    /// Makes an `INACTIVE` socket with a descriptor that `exec` closes (`socket`). Resolves both addresses, which may
    /// block. On failure it is invalid, and reported is what the resolver told; `SysErrorId::RESOURCES_EXHAUSTED` without descriptors, 7
    /// without the right, 1 without memory; `ErrorId::CREATE_FAILED` for a protocol that the system does not have; `SysErrorId::UNCLASSIFIED` if the
    /// descriptor cannot be made one that does not wait; what `setSendBuffer` tells for `reuse`; else `SysErrorId::UNCLASSIFIED`.
    /// @param blocking      whether operations wait
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    /// @param local         where to connect from; an empty one leaves both address and port to the system
    /// @param peer          where to connect to
    /// @param reuse         whether `local` may be an address that closed connections still hold (`SO_REUSEADDR`)
    /// @param version       of both addresses
    TCPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
        IPAddress const& peer, bool reuse, IPProtocolVersion version);

    /// Adopts an accepted connection: an `OPEN` socket, and `description.valid` false. The peer's address is the
    /// connection's; the local one stays the text of the listening address until `updateLocalAddress`.
    ///
    /// On failure the socket is invalid and the descriptor stays the description's: `CommonErrorId::CONTRACT_BROKEN` with "Tried to
    /// construct TCPSocket from invalid description" for one that is empty or was adopted before; `SysErrorId::UNCLASSIFIED` if the
    /// descriptor cannot be made one that does not wait. See the other constructor for the parameters.
    TCPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Description const& description);

    ~TCPSocket() override;

    /// Binds the socket to its local address (`bind`) and connects it to its peer (`connect`, repeated while a signal
    /// interrupts it). Blocks as long as the system tries, unless the socket does not wait. Afterwards both addresses
    /// tell what the connection really has.
    ///
    /// | result | `hadError()` | state | meaning |
    /// |---|---|---|---|
    /// | false | false | `OPEN` | connected |
    /// | true | false | `OPEN` | on its way, for a socket that does not wait: it is made, or has failed, when the socket
    ///   becomes writable; the next read or write tells which |
    /// | true | true | `INACTIVE` | failed, may be tried again |
    /// | true | true | `OPEN` | connected, but the subclass's `connected` has failed |
    /// | false | true | as it was | the socket was not `INACTIVE` |
    ///
    /// Reported are `CommonErrorId::CONTRACT_BROKEN` for the wrong state, and `CommonErrorId::INVALID_ARGUMENT`, after an assertion, without a descriptor.
    /// Of `bind`: `SysErrorId::SPOILED_INTEGRITY`, 1 without memory, 7 without the right, 0 without buffers, else 19; `ErrorId::ADDRESS_IN_USE` for an
    /// address that is in use, 5 for one that this machine does not have. Of `connect`: `SysErrorId::PERMISSION_DENIED` without the right,
    /// 10 also for a time-out, 0 without a free port, else 19; `ErrorId::ADDRESS_IN_USE` and 5 as before, 8 for a network that is down
    /// or has no way, 6 for a reset, 7 for a peer that refuses or cannot be reached.
    bool connect();

    /// Send small pieces at once instead of collecting them while the peer has not acknowledged what went before
    /// (`setsockopt`, `TCP_NODELAY`). Fails as `setSendBuffer`.
    bool setTCPNoDelay(bool on);

    /// Have the system probe an idle connection (`setsockopt`, `SO_KEEPALIVE`, `TCP_KEEPIDLE`, `TCP_KEEPCNT`,
    /// `TCP_KEEPINTVL`). Stops at the first of the options that fails. Fails as `setSendBuffer`.
    bool setKeepalive(KeepaliveSettings const& settings);

    /// The size of the send buffer, at most `MAX_SEGMENT_SIZE`. 0 on failure, with `hadError` set and a warning; nothing
    /// is pending then.
    unsigned int maxTxSize() const override;

    /// Called by `connect` when a connection has just been made, but not for one that is on its way. This one does
    /// nothing.
    /// @return true on failure, after a report; `connect` then fails, and the socket stays open
    virtual bool connected();
};

} // namespace vesk
