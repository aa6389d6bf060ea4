#pragma once

#include "SocketRows.h"
#include "support/Descriptors.h"
#include "support/Sleeper.h"
#include "support/calls/StreamSocketCalls.h"

#include <tarncommon/error/ErrorApi.h>
#include <vesk/TCPServerSocket.h>
#include <vesk/UDPSocket.h>
#include <vesk/UnixServerSocket.h>

#include <netinet/tcp.h>
#include <sys/stat.h>

/// What the tests of TCP and Unix sockets share: the tables of errors, and connections of each transport. UDP sockets take
/// part where they behave like the clients.

namespace support {

using vesk::IPSocket;
using vesk::Socket;
using vesk::TCPServerSocket;
using vesk::TCPSocket;
using vesk::UDPSocket;
using vesk::UnixServerSocket;
using vesk::UnixSocket;
using vesk::UnixSocketBase;
using IPAddress = vesk::IPSocket::IPAddress;
namespace CommonErrorId = std::CommonErrorId;

// ---- Tables of errors ----

inline std::vector<ErrnoRow> const FLAG_ROWS =
    errnoRows({{{EBADF, EACCES, EAGAIN, EINTR, EINVAL, EPERM}, {SysErrorId::UNCLASSIFIED}}});
inline std::vector<ErrnoRow> const LISTEN_ROWS = errnoRows({
    {{EADDRINUSE}, {SocketErrorId::ADDRESS_IN_USE}},
    {{ENOBUFS}, {SysErrorId::RESOURCES_EXHAUSTED}},
    {{EACCES}, {SysErrorId::PERMISSION_DENIED}},
    {{EBADF, EINVAL, ENOTSOCK, EDESTADDRREQ, EOPNOTSUPP}, {SysErrorId::SPOILED_INTEGRITY}},
    {{EINTR, EPERM, ENOMEM}, {SysErrorId::UNCLASSIFIED}},
});

inline std::vector<ErrnoRow> const ACCEPT_ROWS = errnoRows({
    {{EPERM}, {SysErrorId::PERMISSION_DENIED}},
    {{ESRCH}, {SocketErrorId::NETWORK_UNAVAILABLE}},
    {{EBADF, EINVAL}, {SocketErrorId::INVALID_SOCKET}},
    {{ENOMEM, ENOBUFS}, {SysErrorId::OUT_OF_MEMORY}},
    {{EFAULT, ENOTSOCK, EOPNOTSUPP}, {SysErrorId::SPOILED_INTEGRITY}},
    {{ENFILE, EMFILE}, {SysErrorId::RESOURCES_EXHAUSTED}},
    {{EPROTO, ETIMEDOUT}, {SocketErrorId::COMMUNICATION_FAILED}},
    {{ECONNABORTED}, {SocketErrorId::CONNECTION_CLOSED}},
    {{EIO, ENETDOWN, ECONNRESET, EACCES}, {SysErrorId::UNCLASSIFIED}},
});

/// Without EBADF, which is not reported.
inline std::vector<ErrnoRow> const CLOSE_ROWS =
    errnoRows({{{EIO, ENOSPC, EDQUOT, EAGAIN, EINVAL, 4711}, {SysErrorId::SPOILED_INTEGRITY}}});

// ---- Descriptors ----

/// Closes a descriptor that the library could not close.
inline void closeForReal(int fd) {
    EXPECT_TRUE(isOpen(fd)) << fd;
    close(fd);
}

template <typename T>
void setOption(int fd, int level, int option, T const& value) {
    EXPECT_EQ(0, setsockopt(fd, level, option, &value, sizeof value));
}

/// Makes the close of a TCP descriptor reset the connection.
inline void makeCloseReset(int fd) {
    setOption(fd, SOL_SOCKET, SO_LINGER, linger{1, 0});
}

inline bool isSocketFile(std::string const& path) {
    struct stat data {};
    return lstat(path.c_str(), &data) == 0 && S_ISSOCK(data.st_mode);
}

// ---- Transports ----

inline std::string makeName() {
    static int count = 0;
    return "vesk-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

/// How sockets are connected.
enum class Transport { IPV4, IPV6, ABSTRACT, PATH, UDP, UDP6 };

constexpr Transport TRANSPORTS[] = {Transport::IPV4, Transport::IPV6, Transport::ABSTRACT, Transport::PATH};
constexpr Transport TCP_TRANSPORTS[] = {Transport::IPV4, Transport::IPV6};
constexpr Transport UNIX_TRANSPORTS[] = {Transport::ABSTRACT, Transport::PATH};

constexpr IPSocket::IPProtocolVersion VERSIONS[] = {IPSocket::IPV4, IPSocket::IPV6};

constexpr bool isTcp(Transport transport) {
    return transport == Transport::IPV4 || transport == Transport::IPV6;
}

constexpr bool isUdp(Transport transport) {
    return transport == Transport::UDP || transport == Transport::UDP6;
}

constexpr bool isUnix(Transport transport) {
    return transport == Transport::ABSTRACT || transport == Transport::PATH;
}

constexpr IPSocket::IPProtocolVersion getVersion(Transport transport) {
    return transport == Transport::IPV6 || transport == Transport::UDP6 ? IPSocket::IPV6 : IPSocket::IPV4;
}

inline char const* getLoopback(IPSocket::IPProtocolVersion version) {
    return version == IPSocket::IPV6 ? IPSocket::LOOPBACK_IP6 : IPSocket::LOOPBACK_IP;
}

inline std::string getName(Transport transport) {
    char const* const names[] = {"IPv4", "IPv6", "abstractName", "path", "UDP", "UDPv6"};
    return names[static_cast<int>(transport)];
}
inline std::string getName(ErrnoRow const& row) {
    return row.getName();
}
inline std::string getName(Socket::State state) {
    char const* const names[] = {"inactive", "open", "dead"};
    return names[state];
}
inline std::string getName(Injected* call) {
    return call == &inject_getfl ? "F_GETFL" : call == &inject_setfl ? "F_SETFL" : "SO_REUSEADDR";
}
template <typename First, typename Second>
std::string getName(std::tuple<First, Second> const& both) {
    return getName(std::get<0>(both)) + "_" + getName(std::get<1>(both));
}

constexpr auto byParameters = [](auto const& info) { return getName(info.param); };

/// Defines the fixture of a suite that runs each test once for each value of an array.
#define VESK_SUITE(suite, values)                                                                            \
    class suite : public testing::TestWithParam<std::decay_t<decltype((values)[0])>> {};                     \
    INSTANTIATE_TEST_SUITE_P(values, suite, testing::ValuesIn(values), byParameters)

/// Where a socket listens or connects to.
struct Place {
    explicit Place(Transport place_transport)
        : transport(place_transport), name((transport == Transport::PATH ? getFolder() : "") + makeName()) {}

    /// In memory if possible: a 32-bit program may be unable to examine a file on a large disk.
    static std::string getFolder() {
        return access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : testing::TempDir();
    }

    UnixSocketBase::NameSpace getNameSpace() const {
        return transport == Transport::PATH ? UnixSocketBase::FILESYSTEM : UnixSocketBase::ABSTRACT;
    }

    Transport transport;
    std::string name;
    unsigned short port = 0; ///< 0 lets the system choose one for a server.
};

/// A class of sockets, with a transport.
struct Kind {
    Transport transport;
    bool is_server;
};

inline std::string getName(Kind kind) {
    return getName(kind.transport) + (kind.is_server ? "Server" : "Client");
}

constexpr Kind TCP_CLIENT{Transport::IPV4, false};
constexpr Kind TCP_SERVER{Transport::IPV4, true};
constexpr Kind UNIX_CLIENT{Transport::PATH, false};
constexpr Kind UNIX_SERVER{Transport::PATH, true};
constexpr Kind UDP_CLIENT{Transport::UDP, false};
constexpr Kind CLASSES[] = {TCP_CLIENT, TCP_SERVER, UNIX_CLIENT, UNIX_SERVER, UDP_CLIENT};
constexpr Kind CLIENTS[] = {TCP_CLIENT, UNIX_CLIENT};
constexpr Kind SERVERS[] = {TCP_SERVER, UNIX_SERVER};
constexpr Kind TCP_CLASSES[] = {TCP_CLIENT, TCP_SERVER};

/// A row of a table for one of the classes.
class KindRow : public testing::TestWithParam<std::tuple<Kind, ErrnoRow>> {
protected:
    Kind const m_kind = std::get<0>(GetParam());
    Transport const m_transport = m_kind.transport;
    ErrnoRow const m_row = std::get<1>(GetParam());
    Place const m_place{m_transport};
};

/// Starts the test of a suite that runs once for each kind and row.
#define VESK_TEST_KIND_ROWS(suite, name, kinds, ...)                                                         \
    class suite : public support::KindRow {};                                                                \
    INSTANTIATE_TEST_SUITE_P(                                                                                \
        rows, suite, testing::Combine(testing::ValuesIn(kinds), testing::ValuesIn(__VA_ARGS__)),             \
        byParameters);                                                                                       \
    TEST_P(suite, name)

inline std::string pathAddress(std::string const& path) {
    sa_family_t const family = AF_UNIX;
    return std::string(reinterpret_cast<char const*>(&family), sizeof family) + path;
}

inline std::string abstractAddress(std::string const& name) {
    return pathAddress('\0' + name);
}

/// Returns the address of a place in the form of the system.
inline std::string getAddress(Place const& place) {
    sockaddr_in const v4 = IPAddress::makeHandle(INADDR_LOOPBACK, place.port);
    sockaddr_in6 const v6 = IPAddress::makeHandle(in6addr_loopback, place.port, 0);
    std::string const addresses[] = {
        bytesOf(&v4, sizeof v4), bytesOf(&v6, sizeof v6), abstractAddress(place.name),
        pathAddress(place.name) + '\0'};
    return addresses[static_cast<int>(place.transport)];
}

/// Returns the address of a descriptor as the system reports it.
inline std::string addressOf(int fd) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
    return bytesOf(&address, length);
}

inline unsigned short getPort(int fd) {
    std::string const address = addressOf(fd);
    unsigned short port = 0;
    memcpy(&port, address.data() + offsetof(sockaddr_in, sin_port), sizeof port);
    return ntohs(port);
}

/// Calls `bind` or `connect`.
template <typename Call>
int withAddress(Call call, int fd, std::string const& address) {
    sockaddr_storage binary{};
    memcpy(&binary, address.data(), address.size());
    return call(fd, reinterpret_cast<sockaddr const*>(&binary), static_cast<socklen_t>(address.size()));
}

/// A socket of plain system calls, bound to an address: connections to it are refused until it listens.
class PlainServer : tarnbase::NonCopyable {
public:
    explicit PlainServer(std::string const& address, int type = SOCK_STREAM)
        : m_fd(socket(reinterpret_cast<sa_family_t const&>(*address.data()), type | SOCK_CLOEXEC, 0)) {
        EXPECT_EQ(0, withAddress(bind, m_fd, address)) << strerror(errno);
    }
    /// Sets the port of a TCP socket in `place`.
    explicit PlainServer(Place& place) : PlainServer(getAddress(place)) {
        if (isTcp(place.transport)) {
            place.port = getPort(m_fd);
        } else if (place.transport == Transport::PATH) {
            m_file = place.name;
        }
    }
    ~PlainServer() {
        close(m_fd);
        unlink(m_file.c_str());
    }

    int getFd() const { return m_fd; }
    void listen(int backlog = 8) const { EXPECT_EQ(0, ::listen(m_fd, backlog)); }

private:
    int m_fd;
    std::string m_file; ///< Removed at the end.
};

/// Returns whether abstract names are exact. Some emulators append a zero, and shorten addresses that are too long.
inline bool keepsAddresses() {
    static bool const keeps = [] {
        std::string const address = abstractAddress(makeName());
        return addressOf(PlainServer(address).getFd()) == address;
    }();
    return keeps;
}

// ---- Sockets ----

inline bool s_closes = true;

/// Leaves the destruction of sockets to the library.
struct WithoutClosing {
    WithoutClosing() { s_closes = false; }
    ~WithoutClosing() { s_closes = true; }
};

/// A socket that closes itself, which the library requires of its users.
template <typename Base>
class Closing : public Base {
public:
    using Base::Base;
    ~Closing() override {
        if (s_closes && Base::isValid()) {
            EXPECT_FALSE(Base::close(false));
        }
    }
};

using Server = Closing<TCPServerSocket>;
using UnixServer = Closing<UnixServerSocket>;

/// Counts the calls of its hook.
class Client : public Closing<TCPSocket> {
public:
    using Closing<TCPSocket>::Closing;

    bool connected() override {
        ++m_calls;
        EXPECT_EQ(OPEN, getState());
        EXPECT_NE(0, getLocalAddress().port) << "the addresses are known at this point";
        return TCPSocket::connected();
    }

    using TCPSocket::m_local_binary;
    using TCPSocket::m_peer_binary;

    int m_calls = 0;
};

/// Shows what is for subclasses only.
class UnixClient : public Closing<UnixSocket> {
public:
    using Closing<UnixSocket>::Closing;

    using UnixSocket::m_bound;
    using UnixSocket::m_local_binary;
    using UnixSocket::m_local_length;
    using UnixSocket::m_peer_binary;
    using UnixSocket::m_peer_length;
};

using SocketPtr = std::unique_ptr<Socket>;

struct Options {
    bool blocking = true;
    unsigned int read_buffer = 0;
    unsigned int write_buffer = 0;
    std::string name{}; ///< Of a Unix client itself.
    bool reuse = false; ///< Of a TCP client.
};

inline SocketPtr makeClient(Place const& peer, Options const& options = {}) {
    auto const& [blocking, read_buffer, write_buffer, name, reuse] = options;
    auto const version = getVersion(peer.transport);
    if (isUdp(peer.transport)) {
        std::string const host = getLoopback(version);
        return std::make_unique<Closing<UDPSocket>>(
            blocking, read_buffer, write_buffer, IPAddress(host, 0), IPAddress(host, peer.port), version);
    }
    if (isTcp(peer.transport)) {
        return std::make_unique<Client>(
            blocking, read_buffer, write_buffer, IPAddress(), IPAddress(getLoopback(version), peer.port),
            reuse, version);
    }
    return std::make_unique<UnixClient>(
        blocking, read_buffer, write_buffer, name, peer.name, peer.getNameSpace());
}

/// For UDP, makes a TCP server, which has a port for the clients.
inline SocketPtr makeServer(Place const& place, bool blocking = true, bool reuse = false) {
    if (!isUnix(place.transport)) {
        auto const version = getVersion(place.transport);
        return std::make_unique<Server>(
            IPAddress(getLoopback(version), place.port), blocking, reuse, version);
    }
    return std::make_unique<UnixServer>(place.name, blocking, place.getNameSpace());
}

/// Calls an operation that TCP and Unix sockets have, but not their base.
template <typename TCP, typename Unix, typename Call>
auto visit(Socket& socket, Call call) {
    auto* const tcp = dynamic_cast<TCP*>(&socket);
    return tcp != nullptr ? call(*tcp) : call(dynamic_cast<Unix&>(socket));
}

/// Connects a client; opens a UDP socket.
inline bool connectSocket(Socket& client) {
    if (auto* const udp = dynamic_cast<UDPSocket*>(&client)) {
        udp->open();
        return udp->hadError();
    }
    return visit<TCPSocket, UnixSocket>(client, [](auto& socket) { return socket.connect(); });
}

inline bool closeSocket(Socket& socket, bool do_shutdown) {
    return visit<IPSocket, UnixSocketBase>(
        socket, [do_shutdown](auto& either) { return either.close(do_shutdown); });
}

inline void enableListen(Socket& server, unsigned int backlog = 4) {
    visit<TCPServerSocket, UnixServerSocket>(
        server, [backlog](auto& either) { either.enableListen(backlog); });
}

inline SocketPtr acceptSocket(Socket& server) {
    if (auto* const tcp = dynamic_cast<TCPServerSocket*>(&server)) {
        return std::make_unique<Client>(true, 0U, 0U, tcp->acceptConnection());
    }
    auto& either = dynamic_cast<UnixServerSocket&>(server);
    return std::make_unique<UnixClient>(true, 0U, 0U, either.acceptConnection());
}

/// Returns how often the hook of a TCP client was called.
inline int countHookCalls(Socket const& client) {
    auto const* const tcp = dynamic_cast<Client const*>(&client);
    return tcp != nullptr ? tcp->m_calls : 0;
}

/// Checks that a client connects, or that its connection is under way.
inline testing::AssertionResult connects(Socket& client, bool under_way = false) {
    if (connectSocket(client) != under_way) {
        return testing::AssertionFailure()
            << (under_way ? "the connection is not under way" : "it is not connected");
    }
    return succeeded(client, Socket::OPEN);
}

inline testing::AssertionResult closes(Socket& socket, bool do_shutdown) {
    if (closeSocket(socket, do_shutdown)) {
        return testing::AssertionFailure() << "it cannot be closed";
    }
    return succeeded(socket, Socket::DEAD);
}

inline testing::AssertionResult failsToConnect(Socket& client, ErrnoRow const& row) {
    if (!connectSocket(client)) {
        return testing::AssertionFailure() << "it has connected";
    }
    return failed(client, Socket::INACTIVE, row);
}

inline testing::AssertionResult failsToListen(Socket& server, ErrnoRow const& row) {
    enableListen(server);
    return failed(server, Socket::DEAD, row);
}

template <typename Address>
bool isZero(Address const& address) {
    Address const zero{};
    return memcmp(&zero, &address, sizeof zero) == 0;
}

template <typename Description>
bool ownsNothing(Description const& description) {
    return !description.valid && description.socket_fd == -1 && isZero(description.local_binary) &&
        isZero(description.peer_binary);
}

inline bool isEmpty(TCPSocket::Description const& description) {
    return ownsNothing(description) && description.local_address.host.empty() &&
        description.local_address.port == 0 && description.version == IPSocket::IPV4;
}

inline bool isEmpty(UnixSocket::Description const& description) {
    return ownsNothing(description) && description.local_path.empty() &&
        description.name_space == UnixSocketBase::FILESYSTEM;
}

/// Returns whether `acceptConnection` returns an empty description.
inline bool acceptsNothing(Socket& server) {
    return visit<TCPServerSocket, UnixServerSocket>(
        server, [](auto& either) { return isEmpty(either.acceptConnection()); });
}

/// The result and the count of a `read` or a `write`.
using Transfer = std::pair<int, unsigned int>;

constexpr Transfer FAILED{-1, 0U};
constexpr Transfer NOTHING{1, 0U};

inline Transfer readByte(Socket& socket) {
    char byte = 0;
    unsigned int count = 12345;
    int const result = socket.read(&byte, 1, count);
    return {result, count};
}

inline Transfer write(Socket& socket, std::string const& bytes) {
    unsigned int count = 12345;
    int const result = socket.write(bytes.data(), static_cast<unsigned int>(bytes.size()), count);
    return {result, count};
}

inline void writeTo(Socket& socket, std::string const& bytes) {
    EXPECT_TRUE(isWritten(socket, bytes));
}

/// Reads until `size` bytes have arrived, also from a socket that does not block.
inline std::string readFrom(Socket& socket, size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
        char block[65536];
        unsigned int count = 0;
        auto const room = static_cast<unsigned int>(std::min(sizeof block, size - bytes.size()));
        // The rest may be in the buffer of the stream.
        if ((!socket.isInputBuffered() && !awaitEvents(socket.getSocketFd(), POLLIN)) ||
            socket.read(block, room, count) != 1) {
            ADD_FAILURE() << "only " << bytes.size() << " of " << size << " bytes have arrived";
            break;
        }
        bytes.append(block, count);
    }
    return bytes;
}

/// Sends bytes through both ends of a connection.
inline testing::AssertionResult transfers(Socket& from, Socket& to, std::string const& bytes) {
    writeTo(from, bytes);
    EXPECT_FALSE(from.flush(false));
    return readFrom(to, bytes.size()) == bytes ? testing::AssertionSuccess()
                                               : testing::AssertionFailure() << "other bytes arrived";
}

/// Reads from a connection that the peer has closed.
inline testing::AssertionResult isAtEnd(Socket& socket) {
    if (!awaitEvents(socket.getSocketFd(), POLLIN)) {
        return testing::AssertionFailure() << "nothing happened";
    }
    return failsToRead(
        socket,
        {{Socket::ErrorId::CONNECTION_CLOSED, "Connection closed: Connection closed normally"},
         StreamErrorId::END_OF_STREAM},
        0);
}

/// Reads from a connection that the peer has reset.
inline testing::AssertionResult isReset(Socket& socket) {
    return failsToRead(
        socket, ErrnoRow(Socket::ErrorId::CONNECTION_RESET, ECONNRESET, {StreamErrorId::UNUSABLE}));
}

// ---- Connections ----

/// A socket that listens, on a port that the system has chosen or on a name that no other test uses.
class Listener {
public:
    explicit Listener(Transport transport = Transport::IPV4, bool blocking = true, unsigned int backlog = 64)
        : m_place(transport), m_server(makeServer(m_place, blocking)) {
        enableListen(*m_server, backlog);
        EXPECT_TRUE(succeeded(*m_server, Socket::OPEN));
        if (!isUnix(transport)) {
            getTcp().updateLocalAddress();
            m_place.port = getTcp().getLocalAddress().port;
            EXPECT_NE(0, m_place.port);
        }
    }

    Socket& operator*() const { return *m_server; }
    Socket* operator->() const { return m_server.get(); }

    TCPServerSocket& getTcp() const { return dynamic_cast<TCPServerSocket&>(*m_server); }
    UnixServerSocket& getUnix() const { return dynamic_cast<UnixServerSocket&>(*m_server); }

    Place const& getPlace() const { return m_place; }
    SocketPtr makeClient(Options const& options = {}) const { return support::makeClient(m_place, options); }
    SocketPtr accept() const { return acceptSocket(*m_server); }

private:
    Place m_place;
    SocketPtr m_server;
};

/// A server with one connection that it has not accepted yet.
struct Waiting {
    explicit Waiting(
        Transport transport = Transport::IPV4, Options const& options = {}, bool server_blocks = true,
        unsigned int backlog = 64)
        : listener(transport, server_blocks, backlog), client(listener.makeClient(options)) {
        EXPECT_TRUE(connects(*client, isTcp(transport) && !options.blocking));
        EXPECT_TRUE(awaitEvents(client->getSocketFd(), POLLOUT));
    }

    Listener listener;
    SocketPtr client;
};

/// Both ends of a connection. The options are those of the client's end; the server's end blocks and has no buffers.
struct Connection : Waiting {
    explicit Connection(Transport transport = Transport::IPV4, Options const& options = {})
        : Waiting(transport, options), server(listener.accept()) {
        EXPECT_TRUE(succeeded(*server, Socket::OPEN));
    }

    TCPSocket& getTcp() const { return dynamic_cast<TCPSocket&>(*client); }

    SocketPtr server;
};

} // namespace support
