#include <vesk/IPSocket.h>

#include "SocketPosixCommon.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <new>
#include <unistd.h>
#include <utility>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/IPSocket";

static_assert(sizeof(IPSocket::BinaryAddress) == 28);
static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);
static_assert(AI_NUMERICHOST == 0x4 && AI_IDN == 0x40);
static_assert((NI_IDN | NI_NUMERICHOST) == 0x21 && (NI_IDN | NI_NAMEREQD) == 0x28);
static_assert((NI_IDN | NI_NAMEREQD | NI_NOFQDN) == 0x2c);

constexpr ErrnoRow HOST_NAME_ERRORS[] = {
    {{EFAULT, EINVAL, ENAMETOOLONG}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// The meaning of an error code of the resolver. The codes have numbers of their own, which are negative.
struct ResolverRow {
    ErrorNumbers<signed char, 5> codes;
    RowReport cause;
    Outcome outcome = Outcome::FAILED;
};

constexpr ResolverRow ADDRESS_ERRORS[] = {
    {{EAI_NONAME, EAI_NODATA, EAI_ADDRFAMILY}, NONE, Outcome::DONE},
    {{EAI_MEMORY}, SysErrorId::OUT_OF_MEMORY},
    {{EAI_AGAIN, EAI_FAIL, EAI_BADFLAGS, EAI_SOCKTYPE, EAI_SERVICE}, Socket::ErrorId::RESOLVE_FAILED},
    {{}, SysErrorId::UNCLASSIFIED},
};

constexpr ResolverRow NAME_ERRORS[] = {
    {{EAI_NONAME}, NONE, Outcome::DONE},
    {{EAI_OVERFLOW}, SysErrorId::SPOILED_INTEGRITY},
    {{EAI_MEMORY}, SysErrorId::OUT_OF_MEMORY},
    {{EAI_AGAIN, EAI_FAIL, EAI_BADFLAGS, EAI_FAMILY}, Socket::ErrorId::RESOLVE_FAILED},
    {{}, SysErrorId::UNCLASSIFIED},
};

template <size_t N>
Outcome classifyResolver(Place place, ResolverRow const (&rows)[N], int code) {
    // LCOV_EXCL_BR_LINE: the last row of each table matches all numbers
    for (ResolverRow const& row : rows) {
        if (!row.codes.has(code)) {
            continue;
        }
        if (row.cause.exists()) {
            report(
                place, Chain::NEW, row.cause.getFamily(), row.cause.getId(),
                code == EAI_SYSTEM ? SystemErrorText().get() : gai_strerror(code));
        }
        return row.outcome;
    }
    return Outcome::FAILED; // LCOV_EXCL_LINE: the last row of each table matches all codes
}

int getNameFlags(bool fqdn, bool reverse) noexcept {
    if (!reverse) {
        return NI_IDN | NI_NUMERICHOST;
    }
    return fqdn ? NI_IDN | NI_NAMEREQD : NI_IDN | NI_NAMEREQD | NI_NOFQDN;
}

/// Resolves the host of an address to its numeric form, before either `getBinary` converts it. Returns true
/// on failure.
bool makeNumeric(std::string& host, IPSocket::IPProtocolVersion version) {
    if (host.empty()) {
        return false;
    }
    IPSocket::IPResolver resolver;
    int const count = resolver.resolveName(host.c_str(), version);
    if (count == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname");
    }
    if (count <= 0) {
        return true;
    }
    host = resolver.getItem(0);
    return false;
}

/// Returns the text of an address as `inet_ntop` does, but without the formatted output of the C library: each
/// accepted connection needs one.
std::string formatIPv4(in_addr const& address) {
    unsigned char bytes[4];
    memcpy(bytes, &address, sizeof bytes);
    char text[INET_ADDRSTRLEN];
    char* end = text;
    for (unsigned char const byte : bytes) {
        if (byte >= 100) {
            *end++ = static_cast<char>('0' + byte / 100);
        }
        if (byte >= 10) {
            *end++ = static_cast<char>('0' + byte / 10 % 10);
        }
        *end++ = static_cast<char>('0' + byte % 10);
        *end++ = '.';
    }
    return {text, end - 1};
}

/// Stores the address that `getsockname` or `getpeername` returns. Leaves `address` unchanged if the call
/// fails, for another family, and for an address without a text.
template <typename Call>
void update(IPSocket::IPAddress& address, int fd, Call call) {
    sockaddr_storage storage{};
    static_assert(sizeof storage == 128);
    socklen_t length = sizeof storage;
    if (call(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return;
    }
    IPSocket::IPAddress converted;
    if (storage.ss_family == AF_INET) {
        auto const& binary = reinterpret_cast<sockaddr_in const&>(storage);
        converted.host = formatIPv4(binary.sin_addr);
        converted.port = ntohs(binary.sin_port);
    } else if (storage.ss_family == AF_INET6) {
        converted = IPSocket::IPAddress(reinterpret_cast<sockaddr_in6 const&>(storage));
    }
    if (!converted.host.empty()) {
        address = std::move(converted);
    }
}

} // namespace

// Before the program's own static objects, also in a static library.
__attribute__((init_priority(101))) IPSocket::IPAddress const IPSocket::IPAddress::ANY_ADDRESS(ANY_IP, 0);
__attribute__((init_priority(101))) IPSocket::IPAddress const IPSocket::IPAddress::ANY_ADDRESS6(ANY_IP6, 0);

IPSocket::IPAddress::IPAddress(sockaddr_in const& binary) {
    char text[INET_ADDRSTRLEN];
    if (binary.sin_family == AF_INET && inet_ntop(AF_INET, &binary.sin_addr, text, sizeof text) != nullptr) {
        host = text;
        port = ntohs(binary.sin_port);
    }
}

IPSocket::IPAddress::IPAddress(sockaddr_in6 const& binary) {
    char text[INET6_ADDRSTRLEN];
    auto const* const address = reinterpret_cast<sockaddr const*>(&binary);
    // Not inet_ntop: only this call adds the scope.
    if (getnameinfo(address, sizeof binary, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0) {
        host = text;
        port = ntohs(binary.sin6_port);
    }
}

bool IPSocket::IPAddress::getBinary(sockaddr_in& out) {
    out = makeHandle(0, port);
    return makeNumeric(host, IPV4) || convertAddrToBinary(*this, out);
}

bool IPSocket::IPAddress::getBinary(sockaddr_in6& out) {
    out = makeHandle(in6addr_any, port, 0);
    return makeNumeric(host, IPV6) || convertAddrToBinary(*this, out);
}

sockaddr_in IPSocket::IPAddress::makeHandle(unsigned int ip, unsigned int port_number) {
    sockaddr_in handle{};
    handle.sin_family = AF_INET;
    handle.sin_addr.s_addr = htonl(ip);
    handle.sin_port = htons(static_cast<uint16_t>(port_number));
    return handle;
}

sockaddr_in6
IPSocket::IPAddress::makeHandle(in6_addr const& ip, unsigned int port_number, unsigned int scope) {
    sockaddr_in6 handle{};
    handle.sin6_family = AF_INET6;
    handle.sin6_addr = ip;
    handle.sin6_port = htons(static_cast<uint16_t>(port_number));
    handle.sin6_scope_id = scope;
    return handle;
}

void IPSocket::IPAddress::getBinary(sockaddr_in const& in, unsigned int& ip, unsigned int& port_number) {
    ip = ntohl(in.sin_addr.s_addr);
    port_number = ntohs(in.sin_port);
}

void IPSocket::IPAddress::getBinary(
    sockaddr_in6 const& in, in6_addr& ip, unsigned int& port_number, unsigned int& scope) {
    ip = in.sin6_addr;
    port_number = ntohs(in.sin6_port);
    scope = in.sin6_scope_id;
}

IPSocket::IPResolver::IPResolver() = default;

IPSocket::IPResolver::~IPResolver() {
    if (m_resolve_handle.results != nullptr) {
        freeaddrinfo(m_resolve_handle.results);
    }
}

int IPSocket::IPResolver::resolveName(char const* name, IPProtocolVersion version) {
    return resolveAddr(name, false, false, version);
}

int IPSocket::IPResolver::resolveIP(char const* ip, bool fqdn, IPProtocolVersion version) {
    return resolveAddr(ip, fqdn, true, version);
}

/// Discards the results of a resolve operation that failed.
int IPSocket::IPResolver::giveUp() {
    m_resolve_handle.entries.clear();
    return -1;
}

int IPSocket::IPResolver::resolveAddr(char const* addr, bool fqdn, bool reverse, IPProtocolVersion version) {
    std::vector<std::string>& entries = m_resolve_handle.entries;
    entries.clear();
    if (m_resolve_handle.results != nullptr) {
        freeaddrinfo(m_resolve_handle.results);
        m_resolve_handle.results = nullptr;
    }

    addrinfo hints{};
    // With a type, since otherwise each address is returned once for every type.
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_family = version == IPV6 ? AF_INET6 : AF_INET;
    hints.ai_flags = reverse ? AI_IDN | AI_NUMERICHOST : AI_IDN;
    int code = getaddrinfo(addr, nullptr, &hints, &m_resolve_handle.results);
    if (code != 0) {
        m_resolve_handle.results = nullptr;
        return classifyResolver(SOURCE, ADDRESS_ERRORS, code) == Outcome::DONE ? 0 : giveUp();
    }

    for (addrinfo const* found = m_resolve_handle.results; found != nullptr; found = found->ai_next) {
        if (found->ai_family != hints.ai_family) {
            continue;
        }
        char host[NI_MAXHOST];
        static_assert(sizeof host == 1025);
        code = getnameinfo(
            found->ai_addr, found->ai_addrlen, host, sizeof host, nullptr, 0, getNameFlags(fqdn, reverse));
        if (code == 0) {
            entries.emplace_back(host);
        } else if (classifyResolver(SOURCE, NAME_ERRORS, code) != Outcome::DONE) {
            return giveUp();
        }
    }
    return static_cast<int>(entries.size());
}

std::string const& IPSocket::IPResolver::getItem(unsigned int index) const {
    std::vector<std::string> const& entries = m_resolve_handle.entries;
    if (index < entries.size()) {
        return entries[index];
    }
    std::GlobalErrorHandler::doAssert(
        false, "p_index < m_resolve_handle.entries.size()", SOURCE, __LINE__, "getItem", nullptr);
    static std::string const nothing;
    return nothing;
}

IPSocket::IPSocket(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, IPAddress const& local,
    IPAddress const& peer, IPProtocolVersion version)
    : Socket(blocking, read_buffer, write_buffer),
      m_local_address(local),
      m_peer_address(peer),
      m_version(version) {
    if (!isValid()) {
        return;
    }
    bool const failed = version == IPV6
        ? m_local_address.getBinary(m_local_binary.v6) || m_peer_address.getBinary(m_peer_binary.v6)
        : m_local_address.getBinary(m_local_binary.v4) || m_peer_address.getBinary(m_peer_binary.v4);
    m_object_valid = !failed;
}

IPSocket::~IPSocket() {
    if (!m_object_valid || m_socket_state == DEAD) {
        return;
    }
    CancellationOff const cancellation_off;
    std::GlobalErrorHandler::doAssert(
        m_socket_state != OPEN, "this->getState() != OPEN", SOURCE, __LINE__, "~IPSocket", nullptr);
    KeptErrorChain const kept_chain;
    bool const has_error = close(false);
    std::GlobalErrorHandler::doAssert(
        !has_error, "!has_error", SOURCE, __LINE__, "~IPSocket", "error closing socket");
}

void IPSocket::createDescriptor(int type, bool blocking, bool reuse, void (*close_failed)()) {
    if (!isValid()) {
        return;
    }
    int const fd = socket(m_version == IPV6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd == INVALID_SOCKET_FD) {
        classifySocketCreateError();
        m_object_valid = false;
        return;
    }
    m_socket_handle.socket_fd = fd;
    if ((!blocking && setNonBlocking(fd)) || (reuse && setReuse(fd, true))) {
        closeKeepingChain([this] { return close(false); }, close_failed);
        m_object_valid = false;
    }
}

sockaddr const* IPSocket::getLocalBinary() const noexcept {
    return reinterpret_cast<sockaddr const*>(&m_local_binary);
}

sockaddr const* IPSocket::getPeerBinary() const noexcept {
    return reinterpret_cast<sockaddr const*>(&m_peer_binary);
}

bool IPSocket::closing() {
    return false;
}

bool IPSocket::close(bool do_shutdown) {
    m_had_error = false;
    if (m_socket_state == DEAD) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "called close on already DEAD socket");
        return fail();
    }
    if (flush(false)) {
        std::ErrorStorage::ack();
        m_had_error = false;
    }
    // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall): from the destructor it is this class's own.
    if (closing()) {
        std::ErrorStorage::ack();
    }
    if (do_shutdown && shutdownSocket(m_socket_handle.socket_fd)) {
        std::ErrorStorage::ack();
    }
    m_had_error = closeSocket(m_socket_handle.socket_fd);
    m_socket_handle.socket_fd = INVALID_SOCKET_FD;
    m_socket_state = DEAD;
    return m_had_error;
}

void IPSocket::updateLocalAddress() {
    if (m_socket_state == OPEN) {
        update(m_local_address, m_socket_handle.socket_fd, getsockname);
    }
}

void IPSocket::updatePeerAddress() {
    if (m_socket_state == OPEN) {
        update(m_peer_address, m_socket_handle.socket_fd, getpeername);
    }
}

bool IPSocket::getHostname(std::string& name) {
    constexpr size_t ROOM = 64;
    // On the heap despite its size: this operation must not increase the stack that a caller needs.
    std::unique_ptr<char[]> const buffer(new (std::nothrow) char[ROOM]);
    if (buffer == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::OUT_OF_MEMORY);
        return true;
    }
    if (gethostname(buffer.get(), ROOM) != 0) {
        classify(SOURCE, HOST_NAME_ERRORS, errno);
        return true;
    }
    name = buffer.get();
    return false;
}

} // namespace vesk
