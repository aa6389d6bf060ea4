#include "StreamSocketSupport.h"
#include "support/NewFault.h"

/// The descriptions of accepted connections, which are the same for TCP and for Unix sockets but for the addresses.

namespace {

using namespace support;

using TcpDescription = TCPSocket::Description;
using UnixDescription = UnixSocket::Description;

template <typename Description>
constexpr bool IS_MOVE_ONLY =
    !std::is_copy_constructible_v<Description> && !std::is_copy_assignable_v<Description> &&
    std::is_nothrow_move_constructible_v<Description> && std::is_nothrow_move_assignable_v<Description>;

static_assert(IS_MOVE_ONLY<TcpDescription> && IS_MOVE_ONLY<UnixDescription>);
static_assert(
    std::is_nothrow_default_constructible_v<TcpDescription> && !std::is_polymorphic_v<TcpDescription>);
static_assert(sizeof(TcpDescription::local_binary) == 28 && sizeof(TcpDescription::peer_binary) == 28);
static_assert(offsetof(TcpDescription, valid) == 0 && offsetof(TcpDescription, socket_fd) == 4);
static_assert(offsetof(TcpDescription, local_binary) == 8 && offsetof(TcpDescription, peer_binary) == 36);
static_assert(offsetof(TcpDescription, peer_binary) < offsetof(TcpDescription, local_address));
static_assert(offsetof(TcpDescription, local_address) < offsetof(TcpDescription, version));
static_assert(sizeof(UnixDescription::local_binary) == 110 && sizeof(UnixDescription::peer_binary) == 110);
static_assert(std::is_same_v<decltype(UnixDescription::local_path), vesk::Path>);

template <Transport TRANSPORT>
struct Types {
    using Server = std::conditional_t<isTcp(TRANSPORT), TCPServerSocket, UnixServerSocket>;
    using Adopting = std::conditional_t<isTcp(TRANSPORT), Client, UnixClient>;
    using Description = std::conditional_t<isTcp(TRANSPORT), TcpDescription, UnixDescription>;
    static constexpr Transport transport = TRANSPORT;
    static constexpr char const* name = isTcp(TRANSPORT) ? "TCPSocket" : "UnixSocket";
};

using Tcp = Types<Transport::IPV4>;
using Unix = Types<Transport::PATH>;

template <typename Type>
typename Type::Description acceptFrom(Waiting const& waiting) {
    return dynamic_cast<typename Type::Server&>(*waiting.listener).acceptConnection();
}

template <typename Type>
testing::AssertionResult refusedToAdoptBy() {
    return chainIs({misuse(std::string("Tried to construct ") + Type::name + " from invalid description")});
}

bool isOfServer(TcpDescription const& description, Listener const& listener) {
    IPAddress const& address = listener.getTcp().getLocalAddress();
    return description.local_address.host == address.host && description.local_address.port == address.port &&
        description.version == listener.getTcp().getVersion();
}

bool isOfServer(UnixDescription const& description, Listener const& listener) {
    return description.local_path == listener.getPlace().name &&
        description.name_space == listener.getPlace().getNameSpace();
}

template <typename Type>
class StreamDescription : public testing::Test, protected Waiting {
protected:
    using Description = typename Type::Description;
    using Adopting = typename Type::Adopting;

    StreamDescription() : Waiting(Type::transport) {}

    static Description accept(Waiting const& waiting) { return acceptFrom<Type>(waiting); }
    Description accept() const { return accept(*this); }
    static testing::AssertionResult refusedToAdopt() { return refusedToAdoptBy<Type>(); }
};

struct TransportNames {
    template <typename Type>
    static std::string GetName(int /*unused*/) {
        return getName(Type::transport);
    }
};

using AllTypes = testing::Types<Tcp, Types<Transport::IPV6>, Types<Transport::ABSTRACT>, Unix>;
TYPED_TEST_SUITE(StreamDescription, AllTypes, TransportNames);

TYPED_TEST(StreamDescription, describesAConnectionThatBlocksAndThatExecCloses) {
    Waiting const waiting(TypeParam::transport, {}, false);
    auto const accepted = this->accept(waiting);
    EXPECT_TRUE(accepted.valid);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted.socket_fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(accepted.socket_fd, F_GETFL)) << "it blocks, unlike the server";
    EXPECT_TRUE(isZero(accepted.local_binary));
    EXPECT_FALSE(isZero(accepted.peer_binary));
    EXPECT_TRUE(isOfServer(accepted, waiting.listener));
}

TYPED_TEST(StreamDescription, markedAsInvalidLeavesItsDescriptorOpen) {
    int fd = -1;
    {
        auto const accepted = this->accept();
        fd = accepted.socket_fd;
        accepted.valid = false;
    }
    closeForReal(fd);
}

TYPED_TEST(StreamDescription, leavesAnEmptyOneThatCannotBeAdoptedWhenItMoves) {
    auto accepted = this->accept();
    int const fd = accepted.socket_fd;
    auto const peer = accepted.peer_binary;
    EXPECT_FALSE(isReady(this->client->getSocketFd(), POLLIN));
    Fault const closes(inject_close, 0);
    {
        auto const moved(std::move(accepted));
        EXPECT_TRUE(isEmpty(accepted));
        typename TestFixture::Adopting const socket(true, 0, 0, accepted);
        EXPECT_TRUE(isUnusable(socket));
        EXPECT_TRUE(this->refusedToAdopt());
        EXPECT_TRUE(moved.valid);
        EXPECT_EQ(fd, moved.socket_fd);
        EXPECT_TRUE(isOpen(fd));
        EXPECT_EQ(0, memcmp(&peer, &moved.peer_binary, sizeof peer));
        EXPECT_TRUE(isOfServer(moved, this->listener));
    }
    EXPECT_EQ(1, closes.getCalls()) << "a description that is not adopted closes its connection";
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(isAtEnd(*this->client));
}

TYPED_TEST(StreamDescription, closesItsConnectionWhenAnotherIsAssigned) {
    Waiting const second(TypeParam::transport);
    auto description = this->accept();
    auto other = this->accept(second);
    int const fds[] = {description.socket_fd, other.socket_fd};
    description = std::move(other);
    EXPECT_TRUE(isEmpty(other)) << "the connection is not swapped";
    EXPECT_FALSE(isOpen(fds[0]));
    EXPECT_TRUE(isAtEnd(*this->client));
    EXPECT_TRUE(description.valid);
    EXPECT_EQ(fds[1], description.socket_fd);
    typename TestFixture::Adopting server(true, 0, 0, description);
    EXPECT_TRUE(transfers(server, *second.client, "second"));
}

TYPED_TEST(StreamDescription, canBeAssignedWhileSignalsInterruptTheClose) {
    Fault const closes(inject_close, EINTR, 1, 5);
    { EXPECT_TRUE(isEmpty(typename TestFixture::Description())); }
    auto description = this->accept();
    auto& same = description;
    description = std::move(same);
    EXPECT_TRUE(description.valid);
    int const fd = description.socket_fd;
    EXPECT_TRUE(isOpen(fd));
    EXPECT_TRUE(isOfServer(description, this->listener));
    typename TestFixture::Description other;
    description.swap(other);
    EXPECT_TRUE(isEmpty(description));
    EXPECT_TRUE(other.valid);
    EXPECT_EQ(0, closes.getCalls());
    other = {};
    EXPECT_EQ(6, closes.getCalls());
    EXPECT_TRUE(isEmpty(other));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(isAtEnd(*this->client));
}

template <typename Type>
void expectWarnings(int error) {
    Waiting const waiting(Type::transport);
    EventRecorder const events;
    auto description = acceptFrom<Type>(waiting);
    int const fd = description.socket_fd;
    Fault const fault(inject_close, error, 1, 3);
    description = {};
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(isOpen(fd));
    std::string const line = std::string("WARNING framework/src/vesk/posix/") + Type::name +
        " ~Description: unknown error closing socket FD";
    EXPECT_EQ(line + "\n" + line + "\n" + line, events.getText());
    EXPECT_TRUE(isAtEnd(*waiting.client));
}

VESK_TEST_KIND_ROWS(
    StreamDescriptionCloseRows, areRepeatedUntilTheCloseSucceedsWithAWarningEachTime, CLIENTS,
    errnoRows({{{EIO, EBADF, ENOSPC, EAGAIN}, {}}})) {
    isTcp(m_transport) ? expectWarnings<Tcp>(m_row.error) : expectWarnings<Unix>(m_row.error);
}

TYPED_TEST(StreamDescription, isAdoptedOnceThroughAConstReference) {
    auto const accepted = this->accept();
    Fault const flags(inject_getfl, 0);
    typename TestFixture::Adopting server(true, 0, 0, accepted);
    EXPECT_EQ(0, flags.getCalls()) << "a socket that blocks leaves the status flags alone";
    EXPECT_FALSE(accepted.valid);
    EXPECT_TRUE(succeeded(server, Socket::OPEN));
    EXPECT_EQ(accepted.socket_fd, server.getSocketFd());
    EXPECT_EQ(0, countHookCalls(server)) << "the socket was not connected by itself";
    int const descriptors = countDescriptors();
    {
        typename TestFixture::Adopting const second(true, 0, 0, accepted);
        EXPECT_TRUE(isUnusable(second));
        EXPECT_TRUE(this->refusedToAdopt());
    }
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_TRUE(transfers(*this->client, server, "hello"));
    EXPECT_FALSE(server.close(true));
    EXPECT_TRUE(isAtEnd(*this->client));
}

TYPED_TEST(StreamDescription, thatIsEmptyOrOfAnAcceptWithoutAConnectionCannotBeAdopted) {
    Fault const flags(inject_getfl, 0);
    for (bool const blocking : {true, false}) {
        typename TestFixture::Description const empty;
        typename TestFixture::Adopting const socket(blocking, 16, 16, empty);
        EXPECT_TRUE(isUnusable(socket));
        EXPECT_TRUE(this->refusedToAdopt());
    }
    EXPECT_EQ(0, flags.getCalls());
    Listener const server(TypeParam::transport, false);
    SocketPtr const socket = server.accept();
    EXPECT_FALSE(server->hadError());
    EXPECT_TRUE(isUnusable(*socket));
    EXPECT_TRUE(this->refusedToAdopt());
}

TYPED_TEST(StreamDescription, staysValidWithoutMemoryForABuffer) {
    auto const accepted = this->accept();
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        typename TestFixture::Adopting const socket(true, 64, 0, accepted);
        EXPECT_TRUE(isUnusable(socket));
    }
    EXPECT_TRUE(chainIs({CommonErrorId::OUT_OF_MEMORY}));
    EXPECT_TRUE(accepted.valid);
    EXPECT_TRUE(isOpen(accepted.socket_fd));
}

TYPED_TEST(StreamDescription, adoptedWithoutBlockingLosesItsOtherStatusFlags) {
    auto const accepted = this->accept();
    ASSERT_EQ(0, fcntl(accepted.socket_fd, F_SETFL, O_APPEND | O_ASYNC));
    ASSERT_EQ(O_RDWR | O_APPEND | O_ASYNC, fcntl(accepted.socket_fd, F_GETFL));
    typename TestFixture::Adopting server(false, 0, 0, accepted);
    EXPECT_TRUE(succeeded(server, Socket::OPEN));
    EXPECT_EQ(O_RDWR | O_NONBLOCK, s_calls.status_flags);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(server.getSocketFd(), F_GETFL));
    EXPECT_EQ(NOTHING, readByte(server));
}

/// Fails to adopt a description with the status flags, which leaves it valid. Then adopts it, or assigns an empty one.
template <typename Type>
void expectOneClose(ErrnoRow const& row, bool adopts) {
    for (Injected* const call : {&inject_getfl, &inject_setfl}) {
        Waiting const waiting(Type::transport);
        int const descriptors = countDescriptors();
        auto accepted = acceptFrom<Type>(waiting);
        Fault const closes(inject_close, 0);
        Fault const fault(*call, row.error);
        typename Type::Adopting const socket(false, 0, 0, accepted);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs(row.reports));
        EXPECT_TRUE(isUnusable(socket, Socket::DEAD));
        EXPECT_TRUE(accepted.valid);
        EXPECT_TRUE(isOpen(accepted.socket_fd));
        EXPECT_EQ(0, closes.getCalls());
        if (adopts) {
            typename Type::Adopting other(true, 0, 0, accepted);
            EXPECT_TRUE(succeeded(other, Socket::OPEN));
            EXPECT_FALSE(accepted.valid);
            EXPECT_TRUE(transfers(other, *waiting.client, "after all"));
        } else {
            accepted = {};
        }
        EXPECT_EQ(1, closes.getCalls());
        EXPECT_EQ(descriptors, countDescriptors());
        EXPECT_TRUE(isAtEnd(*waiting.client));
    }
}

VESK_TEST_KIND_ROWS(
    StreamDescriptionFlagRows, leaveTheDescriptionValidForOneCloseOrForAnotherSocket, CLIENTS, FLAG_ROWS) {
    for (bool const adopts : {false, true}) {
        isTcp(m_transport) ? expectOneClose<Tcp>(m_row, adopts) : expectOneClose<Unix>(m_row, adopts);
    }
}

TYPED_TEST(StreamDescription, leavesTheFileOfTheServerToTheServer) {
    SocketPtr const server = this->listener.accept();
    Calls const removals(inject_unlink, 0);
    EXPECT_FALSE(closeSocket(*server, true));
    EXPECT_EQ(TypeParam::transport == Transport::PATH, isSocketFile(this->listener.getPlace().name));
    SocketPtr const another = this->listener.makeClient();
    EXPECT_FALSE(connectSocket(*another)) << "the server still listens";
}

TYPED_TEST(StreamDescription, isAdoptedByOneOfManyThreadsWithTheBuffersOfTheSocket) {
    this->accept();
    std::vector<SocketPtr> clients(60);
    std::vector<typename TestFixture::Description> waiting;
    for (SocketPtr& each : clients) {
        each = this->listener.makeClient();
        EXPECT_FALSE(connectSocket(*each));
        waiting.push_back(this->accept());
    }
    std::atomic<size_t> next{0};
    runInThreads(5, [&](int thread) {
        if (thread == 0) {
            for (size_t i = 0; i < clients.size(); ++i) {
                std::string const request = std::to_string(100000 + i);
                writeTo(*clients[i], request);
                EXPECT_EQ("<" + request + ">", readFrom(*clients[i], 8));
                EXPECT_TRUE(isAtEnd(*clients[i]));
            }
            return;
        }
        for (size_t i = next++; i < waiting.size(); i = next++) {
            auto const taken = std::move(waiting[i]);
            typename TestFixture::Adopting server(true, 64, 32, taken);
            EXPECT_FALSE(taken.valid);
            EXPECT_TRUE(server.isInputBuffered());
            EXPECT_TRUE(server.isOutputBuffered());
            std::string const first = readFrom(server, 1);
            EXPECT_FALSE(isReady(server.getSocketFd(), POLLIN)) << "the rest is in the buffer";
            writeTo(server, "<" + first + readFrom(server, 5) + ">");
            EXPECT_FALSE(isReady(clients[i]->getSocketFd(), POLLIN)) << "nothing is sent yet";
            EXPECT_FALSE(server.flush(false));
            EXPECT_FALSE(server.close(true));
        }
    });
}

VESK_SUITE(TCPDescription, TCP_TRANSPORTS);

TEST_P(TCPDescription, hasTheAddressOfThePeerWithZerosAfterIt) {
    Waiting const waiting(GetParam());
    TcpDescription const accepted = waiting.listener.getTcp().acceptConnection();
    bool const is_v6 = GetParam() == Transport::IPV6;
    IPAddress const peer = is_v6 ? IPAddress(accepted.peer_binary.v6) : IPAddress(accepted.peer_binary.v4);
    EXPECT_EQ(getLoopback(getVersion(GetParam())), peer.host);
    EXPECT_EQ(dynamic_cast<TCPSocket&>(*waiting.client).getLocalAddress().port, peer.port);
    size_t const size = is_v6 ? sizeof accepted.peer_binary : sizeof accepted.peer_binary.v4;
    std::string const rest = bytesOf(&accepted.peer_binary, sizeof accepted.peer_binary).substr(size);
    EXPECT_EQ(std::string(rest.size(), '\0'), rest);
}

TEST_P(TCPDescription, givesTheSocketTheAddressesThatTheServerKnows) {
    auto const version = getVersion(GetParam());
    std::string const loopback = getLoopback(version);
    for (bool const is_looked_up : {true, false}) {
        Server listening(IPAddress(is_looked_up ? "" : loopback, 0), true, false, version);
        listening.enableListen(1);
        if (is_looked_up) {
            listening.updateLocalAddress();
        }
        unsigned short const port = getPort(listening.getSocketFd());
        Client client(true, 0, 0, IPAddress(), IPAddress(loopback, port), false, version);
        ASSERT_FALSE(client.connect());
        TcpDescription const accepted = listening.acceptConnection();
        std::string const any = GetParam() == Transport::IPV6 ? IPSocket::ANY_IP6 : IPSocket::ANY_IP;
        EXPECT_EQ(is_looked_up ? any : loopback, accepted.local_address.host);
        EXPECT_EQ(is_looked_up ? port : 0, accepted.local_address.port);
        Client server(true, 0, 0, accepted);
        EXPECT_EQ(version, server.getVersion());
        EXPECT_TRUE(isZero(server.m_local_binary)) << "it is unknown, and nothing needs it";
        EXPECT_EQ(0, memcmp(&accepted.peer_binary, &server.m_peer_binary, sizeof accepted.peer_binary));
        EXPECT_EQ(loopback, server.getPeerAddress().host);
        EXPECT_EQ(client.getLocalAddress().port, server.getPeerAddress().port);
        EXPECT_EQ(accepted.local_address.host, server.getLocalAddress().host);
        EXPECT_EQ(accepted.local_address.port, server.getLocalAddress().port);
        server.updateLocalAddress();
        EXPECT_EQ(loopback, server.getLocalAddress().host);
        EXPECT_EQ(port, server.getLocalAddress().port);
    }
}

TEST(TCPDescriptionAddress, thatCannotBeResolvedLeavesTheDescriptionValid) {
    Waiting const waiting;
    TcpDescription accepted = waiting.listener.getTcp().acceptConnection();
    accepted.local_address.host = IPSocket::LOOPBACK_IP6;
    TCPSocket const socket(false, 0, 0, accepted);
    EXPECT_TRUE(isUnusable(socket));
    EXPECT_TRUE(chainIs({CommonErrorId::INVALID_ARGUMENT}));
    EXPECT_TRUE(accepted.valid);
    int const fd = accepted.socket_fd;
    EXPECT_TRUE(isOpen(fd));
    accepted = {};
    EXPECT_FALSE(isOpen(fd));
}

VESK_SUITE(UnixDescriptionPeer, UNIX_TRANSPORTS);

TEST_P(UnixDescriptionPeer, isKnownToTheSocketThatAdoptsTheDescription) {
    Waiting const waiting(GetParam());
    UnixDescription accepted = waiting.listener.getUnix().acceptConnection();
    memset(&accepted.local_binary, 'l', sizeof accepted.local_binary);
    memset(&accepted.peer_binary, 'p', sizeof accepted.peer_binary);
    UnixClient socket(true, 0, 0, accepted);
    EXPECT_EQ(std::string(110, 'l'), bytesOf(&socket.m_local_binary, 110));
    EXPECT_EQ(std::string(110, 'p'), bytesOf(&socket.m_peer_binary, 110));
    EXPECT_EQ(0U, socket.m_local_length);
    EXPECT_EQ(0U, socket.m_peer_length);
    EXPECT_FALSE(socket.m_bound);
    EXPECT_EQ(waiting.listener.getPlace().name, socket.getLocalPath());
    EXPECT_EQ("", socket.getPeerPath()) << "the client has no name";
    EXPECT_EQ(waiting.listener.getPlace().getNameSpace(), socket.getNameSpace());
}

} // namespace
