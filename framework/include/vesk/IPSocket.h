#pragma once

#include <vesk/Export.h>
#include <vesk/Socket.h>

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

struct addrinfo;

namespace vesk {

/// The root of the TCP and UDP sockets: a socket with a local and a peer address of one protocol version.
///
/// An address is given as text, and may be a host name. A socket's constructor resolves both addresses, on the caller's
/// thread and for as long as the system's resolver takes; from then on the texts are numeric. A name that leads to nothing
/// makes the object invalid.
///
/// A socket that is open must be closed before it is destroyed. See `Socket` for threads.
class VESK_API IPSocket : public Socket {
public:
    enum IPProtocolVersion : uint32_t { IPV4 = 0, IPV6 = 1 };

    VESK_API_INLINE static constexpr char const* ANY_IP = "0.0.0.0";
    VESK_API_INLINE static constexpr char const* ANY_IP6 = "::";
    VESK_API_INLINE static constexpr char const* LOOPBACK_IP = "127.0.0.1";
    VESK_API_INLINE static constexpr char const* LOOPBACK_IP6 = "::1";

    /// An address as text with a port.
    ///
    ///     vesk::IPSocket::IPAddress const server("device.local", 80);
    class VESK_API IPAddress {
    public:
        /// The any address and port 0, built when the library is loaded: not for the initialisers of other global objects.
        static IPAddress const ANY_ADDRESS;
        static IPAddress const ANY_ADDRESS6;

        /// The any address of either version, with port 0.
        IPAddress() = default;

        /// @param host_text    a numeric address or a host name, checked by nobody yet; empty: the any address
        /// @param port_number  the port
        IPAddress(std::string const& host_text, unsigned short port_number)
            : host(host_text), port(port_number) {}

        /// The numeric text of a binary address; of one of IPv6 with its scope, as in "fe80::1%eth0". Empty with port 0 if the
        /// address is not of that family, or its text with the name of the interface takes more than 45 characters. Reports
        /// nothing.
        explicit IPAddress(sockaddr_in const& binary);
        explicit IPAddress(sockaddr_in6 const& binary);

        /// The binary form. A host that is not empty goes through the resolver, and `host` becomes the first result, in
        /// numeric form, also if what comes then fails. May block as long as the resolver does. All forms that the system takes
        /// for numeric are, "127.1" among them.
        /// @return true on failure: what `IPResolver` reported; `CommonErrorId::INVALID_ARGUMENT` if the name has no address of this version;
        ///         no report if the system contradicts itself
        bool getBinary(sockaddr_in& out);
        bool getBinary(sockaddr_in6& out);

        /// A binary address from an address and a port in the byte order of the machine.
        static sockaddr_in makeHandle(unsigned int ip, unsigned int port_number);
        /// @param scope  index of the interface of a link-local address, else 0
        static sockaddr_in6 makeHandle(in6_addr const& ip, unsigned int port_number, unsigned int scope);

        /// The parts of a binary address, address and port in the byte order of the machine.
        static void getBinary(sockaddr_in const& in, unsigned int& ip, unsigned int& port_number);
        static void
        getBinary(sockaddr_in6 const& in, in6_addr& ip, unsigned int& port_number, unsigned int& scope);

        std::string host;        ///< A numeric address or a host name; empty: the any address.
        unsigned short port = 0; ///< In the byte order of the machine.
    };

    /// The system's resolver.
    ///
    ///     vesk::IPSocket::IPResolver resolver;
    ///     if (resolver.resolveName("device.local", vesk::IPSocket::IPV6) > 0) {
    ///         use(resolver.getItem(0));
    ///     }
    ///
    /// An object belongs to one thread at a time. All three ways of resolving (`getaddrinfo`, `getnameinfo`) block as long as
    /// the system takes, replace the results of the one before, and give how many there are in the system's order: 0 for a
    /// name or an address that has none, which is not reported, and -1 on failure, with no results.
    ///
    /// They report `SysErrorId::OUT_OF_MEMORY` without memory; `Socket::ErrorId::RESOLVE_FAILED` for a resolver that does not answer, and for arguments
    /// that it refuses; `SysErrorId::SPOILED_INTEGRITY` for a name that is too long; else `SysErrorId::UNCLASSIFIED`. The argument is the resolver's own
    /// text (`gai_strerror`), or that of `errno` where it names the system as the reason.
    class VESK_API IPResolver : private tarnbase::NonCopyable {
    public:
        IPResolver();
        ~IPResolver();

        /// From a name to numeric addresses of one version.
        /// @param name  null has no addresses
        int resolveName(char const* name, IPProtocolVersion version);

        /// From a numeric address to its names. A text that is not numeric has none.
        /// @param fqdn  whether to tell the names with their domains
        int resolveIP(char const* ip, bool fqdn, IPProtocolVersion version);

        /// Both in one.
        /// @param reverse  from an address to names; `fqdn` counts only then
        int resolveAddr(char const* addr, bool fqdn, bool reverse, IPProtocolVersion version);

        /// How many results the last resolve had.
        VESK_API_INLINE unsigned int getCount() const noexcept {
            return static_cast<unsigned int>(m_resolve_handle.entries.size());
        }

        /// A result, valid until the next resolve. An index that is not below the count is a broken invariant; should the
        /// assertion return, the result is an empty text.
        std::string const& getItem(unsigned int index) const;

    private:
        struct ResolveHandle {
            addrinfo* results = nullptr;
            std::vector<std::string> entries;
        };

        int giveUp();

        ResolveHandle m_resolve_handle;
    };

    /// The binary form of an address; the version of the socket tells which.
    union BinaryAddress {
        sockaddr_in6 v6; // First, so that an initialiser clears all of it.
        sockaddr_in v4;
    };

    /// Closes a socket that was never open; one that is open is closed after an assertion.
    ~IPSocket() override;

    /// The addresses as text. They are what the constructor made of its arguments until they are updated.
    IPAddress const& getLocalAddress() const noexcept { return m_local_address; }
    IPAddress const& getPeerAddress() const noexcept { return m_peer_address; }
    IPProtocolVersion getVersion() const noexcept { return m_version; }

    /// The largest piece that one send can take, in bytes.
    virtual unsigned int maxTxSize() const = 0;

    /// Called by `close` just before the connection is shut down. This one does nothing.
    /// @return true on failure, after a report, which `close` acknowledges
    virtual bool closing();

    /// Sends what the stream still holds, calls `closing`, and closes the descriptor (`close`, repeated while a signal
    /// interrupts it). Neither unsent data nor `closing` nor the shutdown can stop it: afterwards the socket is `DEAD`.
    /// @param do_shutdown  whether to end the connection also for other descriptors of it (`shutdown`)
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket that is `DEAD` already; what the system says of the `close`:
    ///         `SysErrorId::SPOILED_INTEGRITY`, or no report for a descriptor that was not open, as of a subclass that never made one
    bool close(bool do_shutdown);

    /// Ask the system for the address that an open socket has (`getsockname`), or that its peer has (`getpeername`). The
    /// address stays as it was, without a report, if the system does not tell one, and if what it tells cannot be converted
    /// to text.
    void updateLocalAddress();
    void updatePeerAddress();

    /// The name of this machine (`gethostname`). Callable from any thread.
    /// @return true on failure, the name being untouched: `CommonErrorId::OUT_OF_MEMORY` without memory; `SysErrorId::SPOILED_INTEGRITY` for a name of more
    ///         than 63 bytes, else 19
    static bool getHostname(std::string& name);

protected:
    /// Resolves both addresses; makes no descriptor. The socket is invalid after a failure, which stays reported.
    /// See `Socket` for the buffers.
    IPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
        IPAddress const& peer, IPProtocolVersion version);

    /// Makes the descriptor of a valid socket, which `exec` closes (`socket`): the last step of a subclass's constructor. On
    /// failure the socket is invalid, and what failed is reported.
    /// @param type          such as `SOCK_STREAM`
    /// @param blocking      false: it does not wait
    /// @param reuse         true: `SO_REUSEADDR` is set
    /// @param close_failed  called if a descriptor that is of no use cannot be closed either
    void createDescriptor(int type, bool blocking, bool reuse, void (*close_failed)());

    sockaddr const* getLocalBinary() const noexcept;
    sockaddr const* getPeerBinary() const noexcept;
    /// The length of the binary addresses, in bytes.
    socklen_t getBinaryLength() const noexcept {
        return m_version == IPV6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    }

    IPAddress m_local_address;
    IPAddress m_peer_address;
    BinaryAddress m_local_binary{};
    BinaryAddress m_peer_binary{};
    IPProtocolVersion m_version;
};

} // namespace vesk
