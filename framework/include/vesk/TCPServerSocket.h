#pragma once

#include <vesk/TCPSocket.h>

namespace vesk {

/// A socket that listens for TCP connections.
///
///     vesk::TCPServerSocket server({"", 8080}, true, true, vesk::IPSocket::IPV6);
///     server.enableListen(16);
///     while (!server.hadError()) {
///         vesk::TCPSocket::Description accepted = server.acceptConnection();
///         workers.push(std::move(accepted)); // A worker makes a TCPSocket of it.
///     }
///     server.close(false);
///
/// Reading, writing and flushing always fail, in any state: `CommonErrorId::CONTRACT_BROKEN` with
/// `StreamErrorId::NOT_SUPPORTED` on top.
///
/// See `Socket` for threads. An open socket must be closed before it is destroyed.
class VESK_API TCPServerSocket : public IPSocket {
public:
    /// Creates an `INACTIVE` socket, as the constructor of `TCPSocket` does.
    /// @param local     the address to listen at; an empty host stands for all addresses of this machine,
    ///                  port 0 for a port that the system selects
    /// @param blocking  whether `acceptConnection` blocks
    /// @param reuse     whether `local` may be an address that closed connections still hold (`SO_REUSEADDR`)
    /// @param version   of the address
    TCPServerSocket(IPAddress const& local, bool blocking, bool reuse, IPProtocolVersion version);

    ~TCPServerSocket() override;

    /// Binds the socket to its address and starts to listen (`bind`, `listen`). Does not block. The local
    /// address is not updated: after listening on port 0, call `updateLocalAddress` to get the selected port.
    ///
    /// `hadError` returns whether it failed. For a socket that is not `INACTIVE`,
    /// `CommonErrorId::CONTRACT_BROKEN` is pending and the state is unchanged. After any other failure the
    /// socket is `DEAD`: `CommonErrorId::INVALID_ARGUMENT`, after an assertion, without a descriptor; the
    /// reports of `bind` in `TCPSocket::connect`; of `listen` `ErrorId::ADDRESS_IN_USE` for an address in
    /// use, `SysErrorId::RESOURCES_EXHAUSTED` without buffers, `SysErrorId::PERMISSION_DENIED` without the
    /// permission, `SysErrorId::SPOILED_INTEGRITY` for a socket that cannot listen, otherwise
    /// `SysErrorId::UNCLASSIFIED`.
    /// @param backlog  the number of connections that may wait to be accepted, within the system's limit
    void enableListen(unsigned int backlog);

    /// Accepts the next waiting connection (`accept4`, repeated while a signal interrupts it). Its descriptor
    /// is close-on-exec. On a blocking socket it blocks until a connection arrives.
    /// @return the connection. Empty, with `hadError` false, if the socket is non-blocking and no connection
    ///         waits. Empty, with `hadError` true, on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket
    ///         that is not `OPEN`; `SysErrorId::PERMISSION_DENIED` for a connection that is not permitted;
    ///         `SysErrorId::OUT_OF_MEMORY` without memory; `SysErrorId::RESOURCES_EXHAUSTED` without
    ///         descriptors; `ErrorId::INVALID_SOCKET` for a closed descriptor and for a socket that does not
    ///         listen; `SysErrorId::SPOILED_INTEGRITY` for a descriptor that is not a stream socket;
    ///         `ErrorId::NETWORK_UNAVAILABLE` (`ESRCH`), `ErrorId::COMMUNICATION_FAILED` (`EPROTO`,
    ///         `ETIMEDOUT`) and `ErrorId::CONNECTION_CLOSED` (`ECONNABORTED`) for a connection that failed
    ///         before it was accepted; otherwise `SysErrorId::UNCLASSIFIED`
    TCPSocket::Description acceptConnection();

    /// Returns the size of the send buffer in bytes, at most `TCPSocket::MAX_SEGMENT_SIZE`. Returns 0 on
    /// failure, with `hadError` set and no report pending.
    unsigned int maxTxSize() const override;

protected:
    /// Always fails: a listening socket transfers no data.
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;
    bool performFlush() override;

private:
    bool refuse(char const* text);
};

} // namespace vesk
