#pragma once

#include <vesk/TCPSocket.h>

namespace vesk {

/// Listens for connections of TCP.
///
///     vesk::TCPServerSocket server({"", 8080}, true, true, vesk::IPSocket::IPV6);
///     server.enableListen(16);
///     while (!server.hadError()) {
///         vesk::TCPSocket::Description accepted = server.acceptConnection();
///         workers.push(std::move(accepted)); // A worker makes a TCPSocket of it.
///     }
///     server.close(false);
///
/// Reading, writing and flushing always fail, in any state: `CommonErrorId::CONTRACT_BROKEN` with `StreamErrorId::NOT_SUPPORTED` on top.
///
/// See `Socket` for threads. An open one must be closed before it is destroyed.
class VESK_API TCPServerSocket : public IPSocket {
public:
    /// Makes an `INACTIVE` socket, as the constructor of `TCPSocket` does.
    /// @param local     where to listen; an empty host stands for all addresses of this machine, port 0 for one that the
    ///                  system chooses
    /// @param blocking  whether `acceptConnection` waits
    /// @param reuse     whether `local` may be an address that closed connections still hold (`SO_REUSEADDR`)
    /// @param version   of the address
    TCPServerSocket(IPAddress const& local, bool blocking, bool reuse, IPProtocolVersion version);

    ~TCPServerSocket() override;

    /// Binds the socket to its address and listens (`bind`, `listen`). Does not block. The address is not looked up again:
    /// who listens on port 0 learns the port by `updateLocalAddress`.
    ///
    /// `hadError` tells a failure. Then `CommonErrorId::CONTRACT_BROKEN` is pending for a socket that is not `INACTIVE`, whose state stays.
    /// After any other failure the socket is `DEAD`: `CommonErrorId::INVALID_ARGUMENT`, after an assertion, without a descriptor; of `bind`
    /// what `TCPSocket::connect` tells; of `listen` `ErrorId::ADDRESS_IN_USE` for an address that is in use, `SysErrorId::RESOURCES_EXHAUSTED` without
    /// buffers, 7 without the right, 10 for a socket that cannot listen, else 19.
    /// @param backlog  how many connections may wait to be accepted; the system has a limit of its own
    void enableListen(unsigned int backlog);

    /// Takes the next waiting connection (`accept4`, repeated while a signal interrupts it), whose descriptor `exec`
    /// closes. Waits for one if the socket does.
    /// @return an empty description, with `hadError` false, if none waits and the socket does not wait either. An empty
    ///         one with `hadError` true on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket that is not `OPEN`; `SysErrorId::PERMISSION_DENIED` for a
    ///         connection that is not allowed, 1 without memory, 10 for a socket that does not listen, 0 without
    ///         descriptors, else 19; `ErrorId::NETWORK_UNAVAILABLE`, 10 and 11 for a network, a protocol and a peer that failed before the
    ///         connection was taken, 0 for a socket that cannot be used
    TCPSocket::Description acceptConnection();

    /// The size of the send buffer, at most `TCPSocket::MAX_SEGMENT_SIZE`. 0 on failure, with `hadError` set; nothing is
    /// pending then.
    unsigned int maxTxSize() const override;

protected:
    /// These always fail: a server has no traffic of its own.
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;
    bool performFlush() override;

private:
    bool refuse(char const* text);
};

} // namespace vesk
