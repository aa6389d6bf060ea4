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
/// The peer's address alone decides how it works.
///
/// *Unicast*: `open` connects the socket to the peer. It receives from nobody else, and is told when the peer refuses a
/// datagram: by the next `read` or `write`, which fails in its place.
///
/// *Multicast*: `open` joins the group, and `write` sends to it. Anybody's datagrams to the group and the local port are
/// received, if the local address is not that of an interface: the system delivers to a bound address only what was sent
/// to it. Of IPv4 these are all peers from 224.0.0.0 up to 255.255.255.255, also those that are no groups; of IPv6 those
/// whose text begins with "ff0", any other group being taken for a single peer. The interface is named by the local address:
///
/// | local address | sends and joins on | receives |
/// |---|---|---|
/// | any address | what the route to the group says | yes |
/// | address of an interface, of IPv6 with its scope ("fe80::1%eth0") | that interface | only what is sent to that address |
/// | IPv6: any address with the index of an interface ("::%2"), group with its name ("ff02::1:3%eth0") | that interface | yes |
///
/// The system leaves the group when the socket is closed.
///
/// A stream without buffers sends a datagram with each `write`. With a write buffer a datagram is what the buffer holds when
/// it is full or flushed. Each `read` that reaches the system takes one datagram and drops what of it does not fit. A `write`
/// of 0 bytes sends nothing, and a `read` of 0 bytes takes nothing: empty datagrams cannot be sent. There is no end of such
/// a stream, but an empty datagram that a peer sends reads as one.
///
/// See `Socket` for threads, and `IPSocket` for closing.
class VESK_API UDPSocket : public IPSocket {
public:
    /// What fits into one datagram, in bytes: what IP allows without the headers of IP and UDP.
    VESK_API_INLINE static constexpr uint32_t MAX_TEL_SIZE = 65507;

    /// Makes a socket that is neither bound nor connected (`socket`, closed by `exec`). Both addresses are resolved, see
    /// `IPSocket`.
    ///
    /// It is invalid after a failure, which stays reported: what the addresses report; `SysErrorId::RESOURCES_EXHAUSTED` without a descriptor
    /// left, 7 without the right, 1 without memory; `ErrorId::CREATE_FAILED` for a protocol that the system does not have; else
    /// `SysErrorId::UNCLASSIFIED`.
    /// @param blocking      whether reading, writing and connecting wait
    /// @param read_buffer   bytes to read ahead, enough for a datagram or what does not fit is lost; 0: unbuffered
    /// @param write_buffer  bytes to collect into one datagram, up to `MAX_TEL_SIZE`; 0: unbuffered
    /// @param local         where to receive; with multicast it names the interface
    /// @param peer          the one peer, or the group
    /// @param version       of both addresses
    UDPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
        IPAddress const& peer, IPProtocolVersion version);

    /// Hands over to the destructor of `IPSocket`: a socket that is `OPEN` must be closed before.
    ~UDPSocket() override;

    /// Binds the local address, and connects the socket to its peer or joins the group. It is `OPEN` then. `hadError` tells
    /// of a failure:
    ///
    /// | report | socket | for |
    /// |---|---|---|
    /// | `CommonErrorId::CONTRACT_BROKEN` | as it was | a socket that is not `INACTIVE` |
    /// | `SysErrorId::SPOILED_INTEGRITY`, 1, 7, 0, 19, `ErrorId::ADDRESS_IN_USE` or 5 | `DEAD` | an address that cannot be bound (`bind`) |
    /// | `ErrorId::INVALID_SOCKET`, `SysErrorId::INVALID_PATH`, `ErrorId::UNKNOWN_OPTION`, `SysErrorId::UNCLASSIFIED` | `INACTIVE` | a group that cannot be shared or joined (`setsockopt`) |
    ///
    /// A socket that cannot be connected is `OPEN` all the same, since its peer may become reachable: there is a warning,
    /// and `hadError` stays false, while what `connect` reported stays pending: acknowledge it.
    void open();

    /// Whether datagrams may go to the broadcast address (`getsockopt`, `SO_BROADCAST`). IPv6 has none: always false.
    /// @return false also on failure, with `hadError` set: `ErrorId::INVALID_SOCKET` without a descriptor or for one that is no socket;
    ///         `SysErrorId::PERMISSION_DENIED` without the right; `ErrorId::UNKNOWN_OPTION` for an unknown option; `SysErrorId::OUT_OF_MEMORY` without memory; else 19
    bool getBroadcast() const;

    /// Allows or forbids datagrams to the broadcast address (`setsockopt`, `SO_BROADCAST`). Does nothing with IPv6. The peer
    /// may be the broadcast address of an interface's network if it is allowed before `open`; who wants to receive such
    /// datagrams binds that address.
    ///
    /// `hadError` tells of a failure: `ErrorId::INVALID_SOCKET` without a descriptor or for one that is no socket; `SysErrorId::INVALID_PATH` for a
    /// value that the system refuses; `ErrorId::UNKNOWN_OPTION` for an unknown option; else `SysErrorId::UNCLASSIFIED`.
    void setBroadcast(bool on);

    /// The largest datagram that can be sent: what the system's buffer holds, and `MAX_TEL_SIZE` at most. 0, with
    /// `hadError` set and nothing reported, if the system does not tell or the socket is closed.
    unsigned int maxTxSize() const override;

protected:
    /// Sends one datagram: as `Socket` does, but to a group with `sendto`. The same failures are reported; one that `Socket`
    /// has only `SysErrorId::UNCLASSIFIED` for reports `StreamErrorId::UNCLASSIFIED` alone.
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;

private:
    bool joinGroup();

    bool m_multicast = false;
};

} // namespace vesk
