#pragma once

#include <vesk/Export.h>
#include <vesk/IPSocket.h>

#include <cstdint>

namespace vesk {

/// A TCP connection. It either connects to a server:
///
///     vesk::TCPSocket socket(
///         true, 0, 0, vesk::IPSocket::IPAddress(), {"device.local", 80}, false, vesk::IPSocket::IPV4);
///     if (socket.isValid() && !socket.connect()) {
///         socket.write(request, size, written);
///         socket.read(answer, sizeof answer, count);
///     }
///     socket.close(true);
///
/// or adopts a connection that a `TCPServerSocket` has accepted, in any thread and with its own blocking mode
/// and buffers:
///
///     vesk::TCPSocket::Description const accepted = server.acceptConnection();
///     vesk::TCPSocket socket(true, 4096, 4096, accepted);
///
/// The next `read` or `write` detects that the peer is gone; the connection is not monitored in the
/// background.
///
/// See `Socket` for threads. An open socket must be closed before it is destroyed.
class VESK_API TCPSocket : public IPSocket {
public:
    /// The largest segment in bytes: a packet of 65535 bytes less the headers of IP and TCP.
    VESK_API_INLINE static constexpr uint32_t MAX_SEGMENT_SIZE = 65495;

    /// How the system detects that the peer of an idle connection is gone.
    struct KeepaliveSettings {
        bool enabled;     ///< Whether the system probes at all; the other fields have an effect only then.
        int idle_seconds; ///< The idle time before the first probe, in seconds.
        int probe_count;  ///< The number of unanswered probes after which the connection fails.
        int probe_interval_seconds; ///< The time between two probes, in seconds.
    };

    /// An accepted connection that no socket has adopted yet. Its destructor closes the descriptor unless a
    /// `TCPSocket` was created from it. It can be moved, also to another thread; a moved-from description is
    /// empty.
    ///
    /// An empty description has `valid` false, `socket_fd` -1, addresses of zeros, an empty text with port 0,
    /// and `IPV4`.
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
        BinaryAddress local_binary{};      ///< All zero, even for an accepted connection.
        BinaryAddress peer_binary{};       ///< The address of the peer.
        IPAddress local_address;           ///< The listening address, as the server holds it.
        IPProtocolVersion version = IPV4;  ///< The version of the server.
    };

    /// Creates an `INACTIVE` socket with a close-on-exec descriptor (`socket`). Resolves both addresses,
    /// which may block.
    ///
    /// After a failure the socket is invalid. Reports the failures of the resolver;
    /// `SysErrorId::RESOURCES_EXHAUSTED` without descriptors; `SysErrorId::PERMISSION_DENIED` without the
    /// permission; `SysErrorId::OUT_OF_MEMORY` without memory; `ErrorId::CREATE_FAILED` for a protocol that
    /// the system does not support; `SysErrorId::UNCLASSIFIED` if the descriptor cannot be made non-blocking;
    /// the reports of `setSendBuffer` if `reuse` fails; otherwise `SysErrorId::UNCLASSIFIED`.
    /// @param blocking      whether operations block
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    /// @param local         the address to connect from; empty: the system selects address and port
    /// @param peer          the address to connect to
    /// @param reuse         whether `local` may be an address that closed connections still hold
    ///                      (`SO_REUSEADDR`)
    /// @param version       of both addresses
    TCPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
        IPAddress const& peer, bool reuse, IPProtocolVersion version);

    /// Adopts an accepted connection: the socket is `OPEN`, and `description.valid` becomes false. The peer's
    /// address is that of the connection; the local address is the listening address until
    /// `updateLocalAddress`.
    ///
    /// After a failure the socket is invalid, and the description keeps the descriptor. Reports
    /// `CommonErrorId::CONTRACT_BROKEN` with "Tried to construct TCPSocket from invalid description" for a
    /// description that is empty or was already adopted; `SysErrorId::UNCLASSIFIED` if the descriptor cannot
    /// be made non-blocking. See the other constructor for the parameters.
    TCPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Description const& description);

    ~TCPSocket() override;

    /// Binds the socket to its local address (`bind`) and connects it to its peer (`connect`, repeated while
    /// a signal interrupts it). A blocking socket blocks as long as the system tries. Afterwards both
    /// addresses are those of the connection.
    ///
    /// | result | `hadError()` | state | meaning |
    /// |---|---|---|---|
    /// | false | false | `OPEN` | connected |
    /// | true | false | `OPEN` | in progress, for a non-blocking socket: it has succeeded or failed when the socket becomes writable, and the next read or write shows which |
    /// | true | true | `INACTIVE` | failed; may be repeated |
    /// | true | true | `OPEN` | connected, but the subclass's `connected` has failed |
    /// | false | true | unchanged | the socket was not `INACTIVE` |
    ///
    /// Reports `CommonErrorId::CONTRACT_BROKEN` for the wrong state; `CommonErrorId::INVALID_ARGUMENT`, after
    /// an assertion, without a descriptor.
    ///
    /// `bind` reports `ErrorId::ADDRESS_IN_USE` for an address in use; `ErrorId::ADDRESS_INVALID` for an
    /// address that this machine does not have; `SysErrorId::PERMISSION_DENIED` without the permission;
    /// `SysErrorId::RESOURCES_EXHAUSTED` without buffers; `SysErrorId::OUT_OF_MEMORY` without memory;
    /// `SysErrorId::SPOILED_INTEGRITY` for an unusable socket or address; otherwise
    /// `SysErrorId::UNCLASSIFIED`.
    ///
    /// `connect` reports `ErrorId::NETWORK_UNAVAILABLE` for a network that is down or has no route;
    /// `ErrorId::CONNECTION_RESET` for a reset; `ErrorId::PEER_UNREACHABLE` for a peer that refuses or cannot
    /// be reached; `ErrorId::ADDRESS_IN_USE` and `ErrorId::ADDRESS_INVALID` as `bind` does;
    /// `SysErrorId::PERMISSION_DENIED` without the permission; `SysErrorId::RESOURCES_EXHAUSTED` without a
    /// free port or buffers; `SysErrorId::SPOILED_INTEGRITY` for a time-out and for an unusable socket or
    /// address; otherwise `SysErrorId::UNCLASSIFIED`.
    [[nodiscard]] bool connect();

    /// Selects whether small pieces of data are sent immediately, instead of being collected until the peer
    /// has acknowledged earlier data (`setsockopt`, `TCP_NODELAY`). Fails as `setSendBuffer` does.
    [[nodiscard]] bool setTCPNoDelay(bool on);

    /// Selects whether and how the system probes an idle connection (`setsockopt`, `SO_KEEPALIVE`,
    /// `TCP_KEEPIDLE`, `TCP_KEEPCNT`, `TCP_KEEPINTVL`). Stops at the first option that fails. Fails as
    /// `setSendBuffer` does.
    [[nodiscard]] bool setKeepalive(KeepaliveSettings const& settings);

    /// Returns the size of the send buffer in bytes, at most `MAX_SEGMENT_SIZE`. Returns 0 on failure, after
    /// a warning, with `hadError` set and no report pending.
    unsigned int maxTxSize() const override;

    /// Called by `connect` when a connection has been established, but not for a connection in progress. The
    /// default does nothing.
    /// @return true on failure, after a report; `connect` then fails, and the socket stays open
    virtual bool connected();
};

} // namespace vesk
