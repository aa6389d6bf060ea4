#pragma once

#include <vesk/Export.h>
#include <vesk/Socket.h>

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

struct addrinfo;

namespace vesk {

/// The base class of the TCP and UDP sockets: a socket with a local and a peer address of one protocol
/// version.
///
/// An address is given as text, and may be a host name. A socket's constructor resolves both addresses in the
/// calling thread, and blocks as long as the system's resolver does. Afterwards the texts are numeric. A name
/// without an address makes the object invalid.
///
/// An open socket must be closed before it is destroyed. See `Socket` for threads.
class VESK_API IPSocket : public Socket {
public:
    /// The versions of the Internet Protocol.
    enum IPProtocolVersion : uint32_t { IPV4 = 0, IPV6 = 1 };

    /// @{
    /// The texts of the addresses that stand for all interfaces, and for the machine itself.
    VESK_API_INLINE static constexpr char const* ANY_IP = "0.0.0.0";
    VESK_API_INLINE static constexpr char const* ANY_IP6 = "::";
    VESK_API_INLINE static constexpr char const* LOOPBACK_IP = "127.0.0.1";
    VESK_API_INLINE static constexpr char const* LOOPBACK_IP6 = "::1";
    /// @}

    /// An address as text with a port.
    ///
    ///     vesk::IPSocket::IPAddress const server("device.local", 80);
    class VESK_API IPAddress {
    public:
        /// @{
        /// The any address and port 0. They are constructed when the library is loaded, so initializers of
        /// other global objects must not use them.
        static IPAddress const ANY_ADDRESS;
        static IPAddress const ANY_ADDRESS6;
        /// @}

        /// Creates the any address of either version, with port 0.
        IPAddress() = default;

        /// @param host_text    a numeric address or a host name, not checked here; empty: the any address
        /// @param port_number  the port
        IPAddress(std::string const& host_text, unsigned short port_number)
            : host(host_text), port(port_number) {}

        /// @{
        /// Converts a binary address to its numeric text. The text of an IPv6 address includes its scope, as
        /// in "fe80::1%eth0". The result is empty with port 0 if the address is not of that family, or if its
        /// text with the name of the interface exceeds 45 characters. Reports nothing.
        explicit IPAddress(sockaddr_in const& binary);
        explicit IPAddress(sockaddr_in6 const& binary);
        /// @}

        /// @{
        /// Returns the binary form. A host that is not empty is resolved, and `host` becomes the first result
        /// in numeric form, even if the conversion fails afterwards. Blocks as long as the resolver does.
        /// Every form that the system accepts as numeric is numeric, for example "127.1".
        /// @return true on failure: the reports of `IPResolver`; `CommonErrorId::INVALID_ARGUMENT` if the
        ///         name has no address of this version; no report if the system cannot read the numeric form
        ///         that it returned
        [[nodiscard]] bool getBinary(sockaddr_in& out);
        [[nodiscard]] bool getBinary(sockaddr_in6& out);
        /// @}

        /// Returns the binary form of an address and a port in host byte order.
        static sockaddr_in makeHandle(unsigned int ip, unsigned int port_number);
        /// @param scope  the index of the interface of a link-local address, otherwise 0
        static sockaddr_in6 makeHandle(in6_addr const& ip, unsigned int port_number, unsigned int scope);

        /// @{
        /// Returns the parts of a binary address. The port and an IPv4 address are in host byte order.
        static void getBinary(sockaddr_in const& in, unsigned int& ip, unsigned int& port_number);
        static void
        getBinary(sockaddr_in6 const& in, in6_addr& ip, unsigned int& port_number, unsigned int& scope);
        /// @}

        std::string host;        ///< A numeric address or a host name; empty: the any address.
        unsigned short port = 0; ///< In host byte order.
    };

    /// The system's resolver.
    ///
    ///     vesk::IPSocket::IPResolver resolver;
    ///     if (resolver.resolveName("device.local", vesk::IPSocket::IPV6) > 0) {
    ///         use(resolver.getItem(0));
    ///     }
    ///
    /// An object must be used by one thread at a time. All three resolve operations (`getaddrinfo`,
    /// `getnameinfo`) block as long as the system does. They replace the previous results, keep the system's
    /// order, and return the number of results. A name or an address without results gives 0 without a
    /// report. A failure gives -1, with no results.
    ///
    /// They report `SysErrorId::OUT_OF_MEMORY` without memory; `Socket::ErrorId::RESOLVE_FAILED` for a
    /// resolver that does not answer and for arguments that it rejects; `SysErrorId::SPOILED_INTEGRITY` for a
    /// name that is too long; otherwise `SysErrorId::UNCLASSIFIED`. The argument is the resolver's text
    /// (`gai_strerror`), or the text of `errno` if the resolver reports a system error (`EAI_SYSTEM`).
    class VESK_API IPResolver : private tarnbase::NonCopyable {
    public:
        IPResolver();
        ~IPResolver();

        /// Resolves a name to numeric addresses of one version.
        /// @param name  the name; null has no addresses
        [[nodiscard]] int resolveName(char const* name, IPProtocolVersion version);

        /// Resolves a numeric address to its names. A text that is not numeric has none.
        /// @param fqdn  whether to return the names with their domains
        [[nodiscard]] int resolveIP(char const* ip, bool fqdn, IPProtocolVersion version);

        /// Resolves in either direction.
        /// @param reverse  whether to resolve an address to names; `fqdn` has an effect only then
        [[nodiscard]] int resolveAddr(char const* addr, bool fqdn, bool reverse, IPProtocolVersion version);

        /// Returns the number of results of the last resolve operation.
        VESK_API_INLINE unsigned int getCount() const noexcept {
            return static_cast<unsigned int>(m_resolve_handle.entries.size());
        }

        /// Returns a result, valid until the next resolve operation. Asserts that the index is below the
        /// count; if the assertion returns, the result is an empty text.
        std::string const& getItem(unsigned int index) const;

    private:
        struct ResolveHandle {
            addrinfo* results = nullptr;
            std::vector<std::string> entries;
        };

        int giveUp();

        ResolveHandle m_resolve_handle;
    };

    /// The binary form of an address. The version of the socket selects the member.
    union BinaryAddress {
        /// An IPv6 address, or the memory of either.
        sockaddr_in6 v6; // First, so that an initializer clears the whole union.
        /// An IPv4 address.
        sockaddr_in v4;
    };

    /// Closes a socket that was never open. Asserts that the socket is not open, and closes an open one
    /// afterwards.
    ~IPSocket() override;

    /// @{
    /// Returns an address as text: the resolved argument of the constructor until it is updated.
    IPAddress const& getLocalAddress() const noexcept { return m_local_address; }
    IPAddress const& getPeerAddress() const noexcept { return m_peer_address; }
    IPProtocolVersion getVersion() const noexcept { return m_version; }
    /// @}

    /// Returns the largest size in bytes that a single send can take.
    virtual unsigned int maxTxSize() const = 0;

    /// Called by `close` just before the connection is shut down. The default does nothing.
    /// @return true on failure, after a report, which `close` acknowledges
    virtual bool closing();

    /// Sends the rest of the stream's buffer, calls `closing`, and closes the descriptor (`close`, repeated
    /// while a signal interrupts it). Failures of the flush, of `closing` and of the shutdown are ignored.
    /// Afterwards the socket is `DEAD`.
    /// @param do_shutdown  whether to end the connection for all other descriptors of it as well (`shutdown`)
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket that is already `DEAD`;
    ///         `SysErrorId::SPOILED_INTEGRITY` if the `close` fails; no report for a descriptor that is not
    ///         open, for example in a subclass that never created one
    [[nodiscard]] bool close(bool do_shutdown);

    /// @{
    /// Updates the local address (`getsockname`) or the peer's address (`getpeername`) of an open socket. The
    /// address is unchanged, without a report, if the system call fails or if the result has no text.
    void updateLocalAddress();
    void updatePeerAddress();
    /// @}

    /// Returns the name of this machine (`gethostname`). Callable from any thread.
    /// @return true on failure, with an unchanged name: `CommonErrorId::OUT_OF_MEMORY` without memory;
    ///         `SysErrorId::SPOILED_INTEGRITY` for a name of more than 63 bytes; otherwise
    ///         `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] static bool getHostname(std::string& name);

protected:
    /// Resolves both addresses. Does not create a descriptor. After a failure, which stays reported, the
    /// socket is invalid. See `Socket` for the buffers.
    IPSocket(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
        IPAddress const& peer, IPProtocolVersion version);

    /// Creates the descriptor of a valid socket, close-on-exec (`socket`): the last step of a subclass's
    /// constructor. After a failure, which is reported, the socket is invalid.
    /// @param type          such as `SOCK_STREAM`
    /// @param blocking      whether the descriptor blocks
    /// @param reuse         whether to set `SO_REUSEADDR`
    /// @param close_failed  called if closing the descriptor after a failure fails as well
    void createDescriptor(int type, bool blocking, bool reuse, void (*close_failed)());

    /// @{
    /// Returns the binary form of an address, for system calls.
    sockaddr const* getLocalBinary() const noexcept;
    sockaddr const* getPeerBinary() const noexcept;
    /// @}
    /// Returns the length of the binary addresses in bytes.
    socklen_t getBinaryLength() const noexcept {
        return m_version == IPV6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    }

    /// The local address.
    IPAddress m_local_address;
    /// The address of the peer.
    IPAddress m_peer_address;
    /// The local address in binary form.
    BinaryAddress m_local_binary{};
    /// The address of the peer in binary form.
    BinaryAddress m_peer_binary{};
    /// The version of both addresses.
    IPProtocolVersion m_version;
};

} // namespace vesk
