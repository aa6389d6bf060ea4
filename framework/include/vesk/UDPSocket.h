#pragma once

#include <vesk/Export.h>
#include <vesk/IPSocket.h>

#include <cstdint>

namespace vesk {

/// A socket for datagrams to and from one peer, which may be a multicast group:
///
///     using vesk::IPSocket;
///     vesk::UDPSocket socket(true, 0, 0, {IPSocket::ANY_IP, 5000}, {"192.0.2.7", 5001}, IPSocket::IPV4);
///     if (socket.isValid()) {
///         socket.open();
///     }
///     if (!socket.isValid() || socket.hadError()) { ... }
///     if (socket.write(telegram, size, written) != 1) { ... }
///     if (socket.read(telegram, sizeof telegram, count) != 1) { ... }
///     socket.close(false);
///
/// The peer's address selects one of two modes.
///
/// *Unicast*: `open` connects the socket to the peer. It receives from this peer only. When the peer refuses
/// a datagram, the next `read` or `write` fails.
///
/// *Multicast*: `open` joins the group, and `write` sends to it. Datagrams of any sender to the group and the
/// local port are received, unless the local address is that of an interface: the system delivers to a bound
/// address only what was sent to that address. For IPv4, all peers from 224.0.0.0 to 255.255.255.255 are
/// groups here, even those that are none. For IPv6, a peer with a text that begins with "ff0" is a group; any
/// other group is treated as a unicast peer. The local address selects the interface:
///
/// | local address | sends and joins on | receives |
/// |---|---|---|
/// | any address | the interface of the route to the group | yes |
/// | address of an interface, for IPv6 with its scope ("fe80::1%eth0") | that interface | only what is sent to that address |
/// | IPv6: any address with the index of an interface ("::%2"), group with its name ("ff02::1:3%eth0") | that interface | yes |
///
/// The system leaves the group when the socket is closed.
///
/// An unbuffered stream sends a datagram with each `write`. With a write buffer, a datagram is the content of
/// the buffer when it is full or flushed. Each `read` that reaches the system takes one datagram and drops
/// the rest that does not fit. A `write` of 0 bytes sends nothing, and a `read` of 0 bytes takes nothing:
/// empty datagrams cannot be sent. Such a stream has no end, but an empty datagram of a peer is read as an
/// end.
///
/// See `Socket` for threads, and `IPSocket` for closing.
class VESK_API UDPSocket : public IPSocket {
public:
    /// The largest payload of a datagram in bytes: the limit of IP without the headers of IP and UDP.
    VESK_API_INLINE static constexpr uint32_t MAX_TEL_SIZE = 65507;

    /// Creates a socket that is neither bound nor connected (`socket`, close-on-exec). Resolves both
    /// addresses, see `IPSocket`.
    ///
    /// After a failure, which stays reported, it is invalid: the reports of the resolver;
    /// `SysErrorId::RESOURCES_EXHAUSTED` without a descriptor; `SysErrorId::PERMISSION_DENIED` without the
    /// permission; `SysErrorId::OUT_OF_MEMORY` without memory; `ErrorId::CREATE_FAILED` for a protocol that
    /// the system does not support; otherwise `SysErrorId::UNCLASSIFIED`.
    /// @param blocking      whether reading, writing and connecting block
    /// @param read_buffer   bytes to read ahead, at least the size of a datagram, since the rest of a longer
    ///                      one is lost; 0: unbuffered
    /// @param write_buffer  bytes to collect into one datagram, up to `MAX_TEL_SIZE`; 0: unbuffered
    /// @param local         the address to receive at; with multicast it selects the interface
    /// @param peer          the peer, or the group
    /// @param version       of both addresses
    UDPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
        IPAddress const& peer, IPProtocolVersion version);

    /// Destroys the socket as `IPSocket` does: an `OPEN` socket must be closed before.
    ~UDPSocket() override;

    /// Binds the local address, and connects the socket to its peer or joins the group. The socket is `OPEN`
    /// then. `hadError` returns whether it failed:
    ///
    /// | report | state | reason |
    /// |---|---|---|
    /// | `CommonErrorId::CONTRACT_BROKEN` | unchanged | the socket is not `INACTIVE` |
    /// | `CommonErrorId::INVALID_ARGUMENT`, after an assertion | `DEAD` | the socket has no descriptor |
    /// | `ErrorId::ADDRESS_IN_USE`, `ErrorId::ADDRESS_INVALID`, `SysErrorId::PERMISSION_DENIED`, `SysErrorId::OUT_OF_MEMORY`, `SysErrorId::RESOURCES_EXHAUSTED`, `SysErrorId::SPOILED_INTEGRITY`, `SysErrorId::UNCLASSIFIED` | `DEAD` | the address cannot be bound (`bind`) |
    /// | `ErrorId::INVALID_SOCKET`, `SysErrorId::INVALID_PATH`, `ErrorId::UNKNOWN_OPTION`, `SysErrorId::UNCLASSIFIED` | `INACTIVE` | the group cannot be shared or joined (`setsockopt`) |
    ///
    /// A socket that cannot be connected is `OPEN` nevertheless, since its peer may become reachable later.
    /// In this case there is a warning, `hadError` stays false, and the report of `connect` stays pending:
    /// acknowledge it.
    void open();

    /// Returns whether datagrams may be sent to the broadcast address (`getsockopt`, `SO_BROADCAST`). IPv6
    /// has no broadcast: always false.
    /// @return also false on failure, with `hadError` set: `ErrorId::INVALID_SOCKET` without a descriptor or
    ///         for one that is not a socket; `SysErrorId::PERMISSION_DENIED` without the permission;
    ///         `ErrorId::UNKNOWN_OPTION` for an unknown option; `SysErrorId::OUT_OF_MEMORY` without memory;
    ///         otherwise `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool getBroadcast() const;

    /// Permits or forbids datagrams to the broadcast address (`setsockopt`, `SO_BROADCAST`). Does nothing
    /// with IPv6. If it is permitted before `open`, the peer may be the broadcast address of an interface's
    /// network. To receive such datagrams, bind that address.
    ///
    /// `hadError` returns whether it failed: `ErrorId::INVALID_SOCKET` without a descriptor or for one that
    /// is not a socket; `SysErrorId::INVALID_PATH` for a value that the system rejects;
    /// `ErrorId::UNKNOWN_OPTION` for an unknown option; otherwise `SysErrorId::UNCLASSIFIED`.
    void setBroadcast(bool on);

    /// Returns the size of the largest datagram that can be sent, in bytes: the size of the system's send
    /// buffer, at most `MAX_TEL_SIZE`. Returns 0, with `hadError` set and no report pending, if the system
    /// call fails or the socket is closed.
    unsigned int maxTxSize() const override;

protected:
    /// Sends one datagram as `Socket` does, but to a group with `sendto`. Reports the same failures, with one
    /// exception for a group: a failure that `Socket` reports as `SysErrorId::UNCLASSIFIED` is
    /// `StreamErrorId::UNCLASSIFIED` without a cause.
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;

private:
    bool joinGroup();

    bool m_multicast = false;
};

} // namespace vesk
