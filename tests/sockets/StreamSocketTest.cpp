#include "StreamSocketSupport.h"
#include "support/NewFault.h"

/// What TCP and Unix sockets do in the same way, and UDP sockets as far as they do.

namespace {

using namespace support;

// ---- Clients and servers ----

constexpr Kind KINDS[] = {
    TCP_CLIENT,
    TCP_SERVER,
    {Transport::IPV6, false},
    {Transport::IPV6, true},
    UDP_CLIENT,
    {Transport::UDP6, false},
    UNIX_CLIENT,
    UNIX_SERVER,
    {Transport::ABSTRACT, false},
    {Transport::ABSTRACT, true}};

SocketPtr make(Kind kind, bool blocking = true, bool reuse = false) {
    Place const place(kind.transport);
    return kind.is_server ? makeServer(place, blocking, reuse)
                          : makeClient(place, {blocking, 0, 0, "", reuse});
}

void start(Kind kind, Socket& socket) {
    if (kind.is_server) {
        enableListen(socket);
    } else {
        EXPECT_FALSE(connectSocket(socket));
    }
    EXPECT_TRUE(succeeded(socket, Socket::OPEN));
}

/// Returns the event of a constructor that has failed and cannot close its descriptor.
std::string getEvent(Kind kind) {
    if (isUdp(kind.transport)) {
        return "WARNING framework/src/vesk/posix/UDPSocket UDPSocket: close error";
    }
    std::string const name = std::string(isTcp(kind.transport) ? "TCP" : "Unix");
    return "ABORT framework/src/vesk/posix/" +
        (kind.is_server ? name + "ServerSocket " + name + "ServerSocket: error constructing, error closing"
                        : name + "Socket " + name + "Socket: ctor error, close error");
}

std::string getAssertion(Kind kind, std::string const& text) {
    std::string const name = isUnix(kind.transport) ? "UnixSocketBase" : "IPSocket";
    return "ASSERT framework/src/vesk/posix/" + name + " ~" + name + ": " + text;
}

VESK_SUITE(StreamSocketConstruction, KINDS);

TEST_P(StreamSocketConstruction, makesAnInactiveSocketWithADescriptorThatExecCloses) {
    Transport const transport = GetParam().transport;
    Fault const calls[] = {{inject_bind, 0}, {inject_setsockopt, 0}, {inject_getfl, 0}, {inject_setfl, 0}};
    SocketPtr const socket = make(GetParam());
    EXPECT_TRUE(succeeded(*socket, Socket::INACTIVE));
    for (Fault const& call : calls) {
        EXPECT_EQ(0, call.getCalls());
    }
    EXPECT_FALSE(socket->isInputBuffered());
    EXPECT_FALSE(socket->isOutputBuffered());
    int const families[] = {AF_INET, AF_INET6, AF_UNIX, AF_UNIX, AF_INET, AF_INET6};
    int const family = families[static_cast<int>(transport)];
    int const type = isUdp(transport) ? SOCK_DGRAM : SOCK_STREAM;
    EXPECT_EQ((std::array<int, 3>{family, type | SOCK_CLOEXEC, 0}), s_calls.created);
    int const fd = socket->getSocketFd();
    EXPECT_EQ(type, getOption(fd, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(family, getOption(fd, SOL_SOCKET, SO_DOMAIN));
    EXPECT_EQ(0, getOption(fd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(0, getOption(fd, SOL_SOCKET, SO_ACCEPTCONN)) << "it does not listen yet";
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL)) << "it blocks";
    if (!isUnix(transport)) {
        EXPECT_EQ(getVersion(transport), dynamic_cast<IPSocket&>(*socket).getVersion());
    }
}

TEST_P(StreamSocketConstruction, makesADescriptorThatDoesNotBlockOrReusesAddressesOnRequest) {
    Fault const reads(inject_getfl, 0);
    Fault const writes(inject_setfl, 0);
    SocketPtr const socket = make(GetParam(), false);
    EXPECT_TRUE(succeeded(*socket, Socket::INACTIVE));
    EXPECT_EQ(1, reads.getCalls());
    EXPECT_EQ(1, writes.getCalls());
    EXPECT_EQ(O_RDWR | O_NONBLOCK, s_calls.status_flags);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(socket->getSocketFd(), F_GETFL));
    Fault const options(inject_setsockopt, 0);
    SocketPtr const reusing = make(GetParam(), true, true);
    int const reuse = isTcp(GetParam().transport) ? 1 : 0;
    EXPECT_EQ(reuse, options.getCalls());
    EXPECT_EQ(reuse, getOption(reusing->getSocketFd(), SOL_SOCKET, SO_REUSEADDR));
}

TEST_P(StreamSocketConstruction, withoutDescriptorsLeftFails) {
    expectInChild([] {
        // A sanitizer needs descriptors when it sees an object for the first time.
        EXPECT_TRUE(make(GetParam())->isValid());
        rlimit const limit{3, 3};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        SocketPtr const socket = make(GetParam());
        EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE));
        EXPECT_TRUE(isUnusable(*socket));
    });
}

class StreamSocketBuffer : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(
    transports, StreamSocketBuffer,
    testing::Values(Transport::IPV4, Transport::IPV6, Transport::ABSTRACT, Transport::PATH, Transport::UDP),
    byParameters);

TEST_P(StreamSocketBuffer, withoutMemoryMakesTheSocketInvalidWithoutADescriptor) {
    Calls const sockets(inject_socket, 0);
    for (unsigned int const read_buffer : {0U, 64U}) {
        NewFault const fault(New::NOTHROW_ARRAY);
        SocketPtr const socket = makeClient(Place(GetParam()), {true, read_buffer, 64 - read_buffer});
        EXPECT_TRUE(chainIs({CommonErrorId::OUT_OF_MEMORY}));
        EXPECT_TRUE(isUnusable(*socket));
    }
}

VESK_TEST_KIND_ROWS(StreamSocketCreationRows, failureMakesTheSocketInvalid, CLASSES, createRows()) {
    Calls const calls(inject_socket, 1, m_row.error);
    Calls const closes(inject_close, 0);
    SocketPtr const socket = make(m_kind, false, true);
    EXPECT_TRUE(chainIs(m_row.reports));
    EXPECT_TRUE(isUnusable(*socket));
}

/// Checks a failure after the creation: the descriptor is closed again, and the cause stays reported. A server cannot be
/// flushed, which must not matter.
void expectCauseToSurviveClose(Kind kind, Injected& call, ErrnoRow const& row) {
    int const descriptors = countDescriptors();
    Fault const fault(call, row.error);
    Calls const closes(inject_close, 2, EINTR);
    SocketPtr const socket = make(kind, false, true);
    EXPECT_TRUE(chainIs(row.reports));
    EXPECT_TRUE(isUnusable(*socket, Socket::DEAD));
    EXPECT_FALSE(socket->hadError());
    EXPECT_EQ(descriptors, countDescriptors());
}

VESK_TEST_KIND_ROWS(
    StreamSocketFlagRows, failureToReadOrToSetTheFlagsMakesTheSocketInvalid, CLASSES, FLAG_ROWS) {
    expectCauseToSurviveClose(m_kind, inject_getfl, m_row);
    Fault const options(inject_setsockopt, 0);
    expectCauseToSurviveClose(m_kind, inject_setfl, m_row);
    EXPECT_EQ(0, options.getCalls()) << "the reuse of addresses is not set any more";
}

VESK_TEST_KIND_ROWS(StreamSocketReuseRows, failureMakesTheSocketInvalid, TCP_CLASSES, setOptionRows()) {
    expectCauseToSurviveClose(m_kind, inject_setsockopt, m_row);
}

/// A failure of a constructor that is followed by a failure to close.
class StreamSocketAbort : public testing::TestWithParam<std::tuple<Kind, Injected*>> {};

INSTANTIATE_TEST_SUITE_P(
    flags, StreamSocketAbort,
    testing::Combine(testing::ValuesIn(CLASSES), testing::Values(&inject_getfl, &inject_setfl)),
    byParameters);
INSTANTIATE_TEST_SUITE_P(
    reuse, StreamSocketAbort,
    testing::Combine(testing::ValuesIn(TCP_CLASSES), testing::Values(&inject_setsockopt)), byParameters);

TEST_P(StreamSocketAbort, endsTheProcessOrReturnsWithTheCauseReported) {
    auto const [kind, call] = GetParam();
    std::string const event = getEvent(kind);
    for (int const close_error : {EIO, EBADF}) {
        EventRecorder const events;
        int const fd = dup(STDERR_FILENO); // The number that the socket gets.
        close(fd);
        {
            Fault const fault(*call, EPERM);
            Calls const closes(inject_close, 1, close_error);
            SocketPtr const socket = make(kind, false, true);
            EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EPERM));
            EXPECT_TRUE(isUnusable(*socket, Socket::DEAD));
        }
        EXPECT_EQ(event, events.getText());
        closeForReal(fd);
    }
    if (isUdp(kind.transport)) {
        return; // Only warns.
    }
    ChildEnd const end = runInChild([kind = kind, call = call] {
        std::GlobalErrorHandler::setHook(nullptr);
        Fault const fault(*call, EPERM);
        Fault const closes(inject_close, EBADF);
        SocketPtr const socket = make(kind, false, true);
        ADD_FAILURE() << "not reached";
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find(event.substr(event.find(':') + 2))) << end.errors;
}

// ---- States ----

/// A socket of each kind in each state.
class StreamSocketState : public testing::TestWithParam<std::tuple<Kind, Socket::State>> {
protected:
    StreamSocketState() {
        if (m_state != Socket::INACTIVE) {
            start(m_kind, *m_socket);
        }
        if (m_state == Socket::DEAD) {
            EXPECT_FALSE(closeSocket(*m_socket, false));
        }
        EXPECT_TRUE(succeeded(*m_socket, m_state));
        EXPECT_EQ(m_state == Socket::OPEN && m_own.transport == Transport::PATH, isSocketFile(m_own.name));
    }

    Kind const m_kind = std::get<0>(GetParam());
    Socket::State const m_state = std::get<1>(GetParam());
    Listener const m_listener{m_kind.transport};
    Place const m_own{m_kind.transport};
    SocketPtr m_socket =
        m_kind.is_server ? makeServer(m_own) : m_listener.makeClient({true, 0, 0, m_own.name});
    int const m_fd = m_socket->getSocketFd();
};

INSTANTIATE_TEST_SUITE_P(
    kinds, StreamSocketState,
    testing::Combine(testing::ValuesIn(KINDS), testing::Values(Socket::INACTIVE, Socket::OPEN, Socket::DEAD)),
    byParameters);

constexpr auto isClient = [](Kind kind) { return !kind.is_server; };
constexpr auto isServer = [](Kind kind) { return kind.is_server; };
constexpr auto isStreamClient = [](Kind kind) { return !kind.is_server && !isUdp(kind.transport); };
constexpr auto isTcpClient = [](Kind kind) { return !kind.is_server && isTcp(kind.transport); };
constexpr auto isUdpSocket = [](Kind kind) { return isUdp(kind.transport); };

Reports refusal(std::string const& text, Reports on_top = {}) {
    on_top.insert(on_top.begin(), misuse(text));
    return on_top;
}

Reports refusalOfServer(std::string const& operation) {
    return refusal(operation + " is invalid", {StreamErrorId::NOT_SUPPORTED});
}

Reports const NO_DESCRIPTOR{Socket::ErrorId::INVALID_SOCKET};

using States = std::set<Socket::State>;
States const ALL{Socket::INACTIVE, Socket::OPEN, Socket::DEAD};
States const NOT_OPEN{Socket::INACTIVE, Socket::DEAD};
States const NOT_INACTIVE{Socket::OPEN, Socket::DEAD};
States const ONLY_DEAD{Socket::DEAD};

/// An operation of some kinds of sockets in the states that refuse it.
struct Refusal {
    char const* name;
    bool (*has)(Kind kind);
    States const& states;
    bool (*refuses)(Socket& socket); ///< Whether the result is that of a refusal.
    Reports reports;
} const REFUSALS[] = {
    {"read", isClient, NOT_OPEN, [](Socket& socket) { return readByte(socket) == FAILED; },
     refusal("called read on non-OPEN socket", {StreamErrorId::UNUSABLE})},
    {"write", isClient, NOT_OPEN, [](Socket& socket) { return write(socket, "x") == FAILED; },
     refusal("called write on non-OPEN socket", {StreamErrorId::UNUSABLE})},
    {"read of a server", isServer, ALL,
     [](Socket& socket) {
         char byte = 'x';
         unsigned int count = 0;
         return socket.read(&byte, 1, count) == -1 && byte == 'x';
     },
     refusalOfServer("read operation on server socket")},
    {"empty read of a server", isServer, ALL,
     [](Socket& socket) {
         unsigned int count = 0;
         return socket.read(nullptr, 0, count) == -1;
     },
     refusalOfServer("read operation on server socket")},
    {"write of a server", isServer, ALL, [](Socket& socket) { return write(socket, "x").first == -1; },
     refusalOfServer("write operation on server socket")},
    {"empty write of a server", isServer, ALL,
     [](Socket& socket) {
         unsigned int count = 0;
         return socket.write(nullptr, 0, count) == -1;
     },
     refusalOfServer("write operation on server socket")},
    {"flush of a server", isServer, ALL, [](Socket& socket) { return socket.flush(false); },
     refusalOfServer("flush operation on socket")},
    {"connect", isStreamClient, NOT_INACTIVE, [](Socket& socket) { return !connectSocket(socket); },
     refusal("connect called in state != INACTIVE")},
    {"open", isUdpSocket, NOT_INACTIVE, connectSocket, refusal("open() called in state != INACTIVE")},
    {"enableListen", isServer, NOT_INACTIVE,
     [](Socket& socket) {
         enableListen(socket);
         return true;
     },
     refusal("enableListen() called in state != INACTIVE")},
    {"acceptConnection", isServer, NOT_OPEN, acceptsNothing,
     refusal("acceptConnection() called in state != OPEN")},
    {"setTCPNoDelay", isTcpClient, ONLY_DEAD,
     [](Socket& socket) { return dynamic_cast<TCPSocket&>(socket).setTCPNoDelay(true); }, NO_DESCRIPTOR},
    {"setKeepalive", isTcpClient, ONLY_DEAD,
     [](Socket& socket) {
         return dynamic_cast<TCPSocket&>(socket).setKeepalive({true, 1, 1, 1});
     },
     NO_DESCRIPTOR},
    {"setKeepalive off", isTcpClient, ONLY_DEAD,
     [](Socket& socket) {
         return dynamic_cast<TCPSocket&>(socket).setKeepalive({false, 1, 1, 1});
     },
     NO_DESCRIPTOR},
};

TEST_P(StreamSocketState, refusesOperationsWithoutACallOfTheSystem) {
    Fault const calls[] = {
        {inject_bind, 0},
        {inject_listen, 0},
        {inject_connect, 0},
        {inject_accept4, 0},
        {inject_setsockopt, 0}};
    for (Refusal const& row : REFUSALS) {
        if (row.has(m_kind) && row.states.count(m_state) != 0) {
            SCOPED_TRACE(row.name);
            EXPECT_TRUE(row.refuses(*m_socket));
            EXPECT_TRUE(failed(*m_socket, m_state, row.reports));
        }
    }
    for (Fault const& call : calls) {
        EXPECT_EQ(0, call.getCalls());
    }
    if (isClient(m_kind)) {
        EXPECT_FALSE(m_socket->flush(false)) << "the buffer is empty";
        EXPECT_TRUE(succeeded(*m_socket, m_state));
    }
}

TEST_P(StreamSocketState, allowsAShutdownUnlessDead) {
    bool const is_dead = m_state == Socket::DEAD;
    EXPECT_EQ(is_dead, closeSocket(*m_socket, true));
    EXPECT_TRUE(
        is_dead ? failed(*m_socket, Socket::DEAD, {misuse("called close on already DEAD socket")})
                : succeeded(*m_socket, Socket::DEAD));
}

TEST_P(StreamSocketState, allowsOptionsUnlessDeadAndCanBeClosedOnce) {
    bool const is_dead = m_state == Socket::DEAD;
    bool (*const calls[])(Socket&) = {
        [](Socket& socket) { return socket.checkValidSocket(); },
        [](Socket& socket) { return socket.setSendBuffer(65536); },
        [](Socket& socket) { return socket.setRecvBuffer(65536); },
        [](Socket& socket) { return socket.getSendBuffer() == 0; },
        [](Socket& socket) { return socket.getRecvBuffer() == 0; },
    };
    for (auto const call : calls) {
        EXPECT_EQ(is_dead, call(*m_socket));
        EXPECT_EQ(is_dead, m_socket->hadError());
        EXPECT_TRUE(is_dead ? chainIs({Socket::ErrorId::INVALID_SOCKET}) : chainIs({}));
        EXPECT_TRUE(hasState(*m_socket, m_state));
    }
    Fault const shutdowns(inject_shutdown, 0);
    if (m_state != Socket::DEAD) {
        EXPECT_TRUE(closes(*m_socket, false));
        EXPECT_FALSE(isOpen(m_fd));
    }
    Fault const closes(inject_close, 0);
    EXPECT_TRUE(closeSocket(*m_socket, false));
    EXPECT_TRUE(failed(*m_socket, Socket::DEAD, {misuse("called close on already DEAD socket")}));
    EXPECT_EQ(0, closes.getCalls() + shutdowns.getCalls());
}

TEST_P(StreamSocketState, decidesWhatTheDestructorReports) {
    WithoutClosing const without_closing;
    EventRecorder const events;
    Fault const closes(inject_close, 0);
    Calls const shutdowns(inject_shutdown, 0);
    m_socket.reset();
    EXPECT_EQ(
        m_state == Socket::OPEN ? getAssertion(m_kind, "this->getState() != OPEN") : "", events.getText());
    EXPECT_EQ(m_state == Socket::DEAD ? 0 : 1, closes.getCalls()) << "it is closed all the same";
    EXPECT_FALSE(isOpen(m_fd));
    EXPECT_FALSE(isSocketFile(m_own.name));
}

VESK_SUITE(StreamSocketClass, CLASSES);

TEST_P(StreamSocketClass, withoutADescriptorFailsToStartAndToClose) {
    auto const [transport, is_server] = GetParam();
    EventRecorder const events;
    Fault const fault(inject_socket, EACCES);
    SocketPtr const socket = make(GetParam());
    std::ErrorStorage::ack();
    if (is_server) {
        enableListen(*socket);
    } else {
        EXPECT_TRUE(connectSocket(*socket));
    }
    EXPECT_TRUE(socket->hadError());
    EXPECT_TRUE(chainIs("p_socket_fd is invalid", {CommonErrorId::INVALID_ARGUMENT}));
    bool const was_closed = is_server || isUdp(transport);
    EXPECT_TRUE(isUnusable(*socket, was_closed ? Socket::DEAD : Socket::INACTIVE));
    // A Unix client without a name of its own does not bind.
    EXPECT_EQ(
        std::string("ASSERT framework/src/vesk/posix/SocketPosixCommon ") +
            (is_server || !isUnix(transport) ? "bindSocket" : "connectSocket") +
            ": p_socket_fd != INVALID_SOCKET_FD" +
            (isUdp(transport) ? "\nWARNING framework/src/vesk/posix/UDPSocket open: error closing" : ""),
        events.getText());
    if (!was_closed) {
        EXPECT_TRUE(closeSocket(*socket, false));
        EXPECT_TRUE(failed(*socket, Socket::DEAD, {}));
    }
}

TEST_P(StreamSocketClass, repeatsTheCloseWhileSignalsInterruptIt) {
    SocketPtr const socket = make(GetParam());
    int const fd = socket->getSocketFd();
    Fault const fault(inject_close, EINTR, 1, 4);
    EXPECT_TRUE(closes(*socket, false));
    EXPECT_EQ(5, fault.getCalls());
    EXPECT_FALSE(isOpen(fd));
    SocketPtr const closed = make(GetParam());
    close(closed->getSocketFd());
    EXPECT_TRUE(closeSocket(*closed, true));
    EXPECT_TRUE(failed(*closed, Socket::DEAD, {}));
}

TEST_P(StreamSocketClass, thatTheDestructorCannotCloseIsABrokenInvariant) {
    WithoutClosing const without_closing;
    for (ErrnoRow const& row : {ErrnoRow(SysErrorId::SPOILED_INTEGRITY, EIO), ErrnoRow(EBADF, {})}) {
        EventRecorder const events;
        SocketPtr socket = make(GetParam());
        int const fd = socket->getSocketFd();
        Fault const fault(inject_close, row.error);
        socket.reset();
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(getAssertion(GetParam(), "!has_error: error closing socket"), events.getText());
        EXPECT_TRUE(chainIs(row.reports));
        closeForReal(fd);
    }
}

VESK_TEST_KIND_ROWS(StreamSocketCloseRows, failureIsReportedAndTheSocketIsDead, CLASSES, CLOSE_ROWS) {
    Listener const listener(m_kind.transport);
    Place const own(m_kind.transport);
    SocketPtr const socket = m_kind.is_server ? makeServer(own) : listener.makeClient({true, 0, 0, own.name});
    start(m_kind, *socket);
    int const fd = socket->getSocketFd();
    Fault const fault(inject_close, m_row.error);
    EXPECT_TRUE(closeSocket(*socket, true));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(failed(*socket, Socket::DEAD, m_row));
    EXPECT_FALSE(isSocketFile(own.name)) << "the file is removed all the same";
    closeForReal(fd);
}

// ---- Connecting ----

VESK_SUITE(StreamSocket, TRANSPORTS);

TEST_P(StreamSocket, connectsOnceAndCallsItsHookOnce) {
    Connection const connection(GetParam());
    int const hooks = isTcp(GetParam()) ? 1 : 0;
    EXPECT_EQ(hooks, countHookCalls(*connection.client));
    EXPECT_EQ(0, countHookCalls(*connection.server)) << "an adopted socket was not connected by itself";
    Calls const calls(inject_connect, 0);
    for (Socket* const socket : {connection.client.get(), connection.server.get()}) {
        EXPECT_FALSE(connectSocket(*socket));
        EXPECT_TRUE(failed(*socket, Socket::OPEN, {misuse("connect called in state != INACTIVE")}));
    }
    EXPECT_TRUE(transfers(*connection.client, *connection.server, "still connected"));
    EXPECT_EQ(hooks, countHookCalls(*connection.client));
}

TEST_P(StreamSocket, thatWasRefusedMayTryAgain) {
    Place place(GetParam());
    PlainServer const peer(place);
    SocketPtr const client = makeClient(place);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(failsToConnect(*client, {Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED}));
    }
    peer.listen();
    EXPECT_TRUE(connects(*client));
}

VESK_TEST_KIND_ROWS(
    StreamSocketBindRows, failureLeavesTheSocketInactiveExceptATcpClientThatIsBoundAlready, CLIENTS,
    bindRows()) {
    Listener const listener(m_transport);
    SocketPtr const client = listener.makeClient({true, 0, 0, m_place.name});
    int const descriptors = countDescriptors();
    Fault const fault(inject_bind, m_row.error);
    if (isTcp(m_transport) && m_row.error == EINVAL) {
        EXPECT_TRUE(support::connects(*client)) << "it is bound already";
        EXPECT_EQ(1, fault.getCalls());
        return;
    }
    Fault const connects(inject_connect, 0);
    EXPECT_TRUE(failsToConnect(*client, m_row));
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_EQ(0, connects.getCalls());
    EXPECT_EQ(descriptors, countDescriptors());
    SocketPtr const other = listener.makeClient({true, 0, 0, m_place.name});
    EXPECT_FALSE(connectSocket(*other)) << "the name is still free";
    Fault const removals(inject_unlink, 0);
    EXPECT_FALSE(closeSocket(*client, false));
    EXPECT_EQ(0, removals.getCalls()) << "the file of that name belongs to another socket";
}

std::vector<ErrnoRow> const CONNECT_ROWS = connectRows();
VESK_TEST_KIND_ROWS(
    StreamSocketConnectRows, failureLeavesTheSocketInactive, CLIENTS,
    std::vector(CONNECT_ROWS.begin() + 2, CONNECT_ROWS.end())) {
    Listener const listener(m_transport);
    SocketPtr const client = listener.makeClient({true, 0, 0, m_place.name});
    int const descriptors = countDescriptors();
    Fault const fault(inject_connect, m_row.error);
    Fault const names(inject_getpeername, 0);
    EXPECT_TRUE(failsToConnect(*client, m_row));
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_EQ(0, names.getCalls());
    EXPECT_EQ(0, countHookCalls(*client));
    EXPECT_EQ(descriptors, countDescriptors());
    if (isTcp(m_transport)) {
        EXPECT_TRUE(connects(*client)) << "it may try again";
        EXPECT_EQ(1, countHookCalls(*client));
        return;
    }
    EXPECT_TRUE(dynamic_cast<UnixClient&>(*client).m_bound);
    EXPECT_TRUE(isSocketFile(m_place.name));
    EXPECT_FALSE(closeSocket(*client, false));
    EXPECT_FALSE(isSocketFile(m_place.name));
}

VESK_TEST_KIND_ROWS(
    StreamSocketUnderWayRows, makeTheSocketOpenWithoutAnError, CLIENTS,
    std::vector(CONNECT_ROWS.begin(), CONNECT_ROWS.begin() + 2)) {
    Listener const listener(m_transport);
    SocketPtr const client = listener.makeClient();
    Fault const fault(inject_connect, m_row.error);
    EXPECT_TRUE(connects(*client, true));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_EQ(0, countHookCalls(*client)) << "there is no connection yet";
    if (m_transport == Transport::PATH) {
        EXPECT_EQ(listener.getPlace().name, dynamic_cast<UnixSocket&>(*client).getPeerPath());
    }
    EXPECT_FALSE(connectSocket(*client));
    EXPECT_TRUE(failed(*client, Socket::OPEN, {misuse("connect called in state != INACTIVE")}));
    EXPECT_EQ(1, fault.getCalls());
}

TEST_P(StreamSocket, repeatsTheConnectWhileSignalsInterruptIt) {
    Listener const listener(GetParam());
    SocketPtr const client = listener.makeClient();
    Fault const fault(inject_connect, EINTR, 1, 5);
    EXPECT_TRUE(connects(*client));
    EXPECT_EQ(6, fault.getCalls());
}

// ---- Closing a connection ----

TEST_P(StreamSocket, closedWithAShutdownEndsTheConnectionForOtherDescriptors) {
    for (bool const do_shutdown : {true, false}) {
        Connection const connection(GetParam());
        int const other = dup(connection.client->getSocketFd());
        EXPECT_FALSE(closeSocket(*connection.client, do_shutdown));
        EXPECT_EQ(do_shutdown ? -1 : 5, send(other, "still", 5, MSG_NOSIGNAL));
        if (do_shutdown) {
            EXPECT_EQ(SHUT_RDWR, s_calls.how);
        } else {
            EXPECT_EQ("still", readFrom(*connection.server, 5));
            EXPECT_FALSE(isReady(connection.server->getSocketFd(), POLLIN));
            close(other);
        }
        EXPECT_TRUE(isAtEnd(*connection.server));
        close(other);
    }
}

VESK_TEST_KIND_ROWS(StreamSocketShutdownRows, failureDoesNotStopTheClose, CLIENTS, shutdownRows()) {
    Connection const connection(m_transport);
    int const descriptors = countDescriptors();
    Fault const fault(inject_shutdown, m_row.error);
    EXPECT_FALSE(closeSocket(*connection.client, true));
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_FALSE(std::ErrorStorage::isError(false)) << "the failure is acknowledged";
    std::string const reasons = tarn_error.getReasonList();
    EXPECT_NE(std::string::npos, reasons.find(*m_row.reports[0].text)) << reasons;
    EXPECT_TRUE(succeeded(*connection.client, Socket::DEAD));
    EXPECT_EQ(descriptors - 1, countDescriptors());
    EXPECT_TRUE(isAtEnd(*connection.server));
}

// ---- Traffic ----

TEST_P(StreamSocket, withBuffersSendsOnlyWhatIsFlushedAndReadsAhead) {
    Connection const connection(GetParam(), {true, 0, 64});
    EXPECT_FALSE(connection.client->isInputBuffered());
    writeTo(*connection.client, "one ");
    writeTo(*connection.client, "piece");
    EXPECT_FALSE(isReady(connection.server->getSocketFd(), POLLIN)) << "nothing is sent yet";
    EXPECT_FALSE(connection.client->flush(false));
    EXPECT_EQ("one piece", readFrom(*connection.server, 9));
    Connection const ahead(GetParam(), {true, 64, 0});
    EXPECT_FALSE(ahead.client->isOutputBuffered());
    writeTo(*ahead.server, "0123456789");
    EXPECT_EQ("012", readFrom(*ahead.client, 3));
    EXPECT_FALSE(isReady(ahead.client->getSocketFd(), POLLIN)) << "the rest is in the buffer";
    EXPECT_EQ("3456789", readFrom(*ahead.client, 7));
}

TEST_P(StreamSocket, waitsForDataOrWithoutBlockingReadsNothing) {
    Connection const connection(GetParam());
    SleepingThread reader([&] {
        char block[8];
        unsigned int count = 0;
        EXPECT_EQ(1, connection.server->read(block, sizeof block, count));
        EXPECT_EQ("late", std::string(block, count));
    });
    writeTo(*connection.client, "late");
    reader.join();
    Connection const free(GetParam(), {false});
    EXPECT_EQ(NOTHING, readByte(*free.client));
    EXPECT_TRUE(succeeded(*free.client, Socket::OPEN));
}

/// Returns bytes that depend on their position.
std::string makePattern(size_t size) {
    std::string pattern(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        pattern[i] = static_cast<char>(i * 31 + (i >> 8) * 7);
    }
    return pattern;
}

TEST_P(StreamSocket, thatDoesNotBlockWritesNothingUntilThePeerReads) {
    Listener const listener(GetParam());
    EXPECT_FALSE(listener->setRecvBuffer(8192));
    SocketPtr const client = listener.makeClient({false});
    EXPECT_FALSE(client->setSendBuffer(8192));
    EXPECT_EQ(isTcp(GetParam()), connectSocket(*client));
    ASSERT_TRUE(awaitEvents(client->getSocketFd(), POLLOUT));
    SocketPtr const server = listener.accept();
    std::string const pattern = makePattern(1U << 20);
    std::string received;
    size_t sent = 0;
    int refusals = 0;
    while (sent < pattern.size() && !HasFailure()) {
        auto const [result, count] = write(*client, pattern.substr(sent, 65536));
        ASSERT_EQ(1, result);
        ASSERT_TRUE(succeeded(*client, Socket::OPEN));
        sent += count;
        if (count == 0) {
            ++refusals;
            received += readFrom(*server, sent - received.size());
            ASSERT_TRUE(awaitEvents(client->getSocketFd(), POLLOUT));
        }
    }
    received += readFrom(*server, sent - received.size());
    EXPECT_GT(refusals, 0);
    EXPECT_TRUE(pattern == received);
}

TEST_P(StreamSocket, carriesMegabytesBothWaysInBlocksOfAnySize) {
    std::string const pattern = makePattern(4U << 20);
    auto const send_all = [&](Socket& socket) {
        size_t size = 1;
        for (size_t at = 0; at < pattern.size(); at += size) {
            size = size * 3 % 50021;
            writeTo(socket, pattern.substr(at, size));
        }
        EXPECT_FALSE(socket.flush(false));
    };
    for (unsigned int const buffers : {0U, 16U, 100U, 1000U}) {
        Connection const connection(GetParam(), {true, buffers, buffers});
        std::thread echo([&] {
            EXPECT_TRUE(pattern == readFrom(*connection.server, pattern.size()));
            send_all(*connection.server);
        });
        send_all(*connection.client);
        EXPECT_TRUE(pattern == readFrom(*connection.client, pattern.size()));
        echo.join();
        EXPECT_TRUE(succeeded(*connection.client, Socket::OPEN));
        EXPECT_FALSE(closeSocket(*connection.client, false));
        EXPECT_TRUE(isAtEnd(*connection.server));
    }
}

TEST_P(StreamSocket, staysOpenWhenThePeerClosesOrEndsItsHalf) {
    Connection const connection(GetParam());
    writeTo(*connection.client, "bye");
    EXPECT_FALSE(closeSocket(*connection.client, true));
    EXPECT_EQ("bye", readFrom(*connection.server, 3));
    EXPECT_TRUE(isAtEnd(*connection.server));
    EXPECT_TRUE(hasState(*connection.server, Socket::OPEN));
    EXPECT_TRUE(isAtEnd(*connection.server)) << "each further read reports it";
    Connection const half(GetParam());
    writeTo(*half.server, "bye");
    ASSERT_EQ(0, shutdown(half.server->getSocketFd(), SHUT_WR));
    EXPECT_EQ("bye", readFrom(*half.client, 3));
    EXPECT_TRUE(isAtEnd(*half.client));
    EXPECT_TRUE(isAtEnd(*half.client)) << "each further read reports it";
    EXPECT_TRUE(hasState(*half.client, Socket::OPEN));
    EXPECT_TRUE(transfers(*half.client, *half.server, "answer"));
}

TEST_P(StreamSocket, canBeSelected) {
    Connection const connection(GetParam());
    writeTo(*connection.client, "x");
    std::set<Socket const*> read = {connection.client.get(), connection.server.get()};
    std::set<Socket const*> none;
    EXPECT_EQ(1, Socket::selectSockets(read, none, none, 60000, true));
    EXPECT_EQ(std::set<Socket const*>{connection.server.get()}, read);
    EXPECT_EQ("x", readFrom(*connection.server, 1));
}

// ---- Servers ----

VESK_SUITE(StreamServerSocket, TRANSPORTS);

TEST_P(StreamServerSocket, listensOnlyOnce) {
    Place const place(GetParam());
    SocketPtr const server = makeServer(place);
    enableListen(*server);
    EXPECT_TRUE(succeeded(*server, Socket::OPEN));
    EXPECT_EQ(1, getOption(server->getSocketFd(), SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_EQ(GetParam() == Transport::PATH, isSocketFile(place.name));
    enableListen(*server);
    EXPECT_TRUE(failed(*server, Socket::OPEN, {misuse("enableListen() called in state != INACTIVE")}));
    EXPECT_EQ(1, getOption(server->getSocketFd(), SOL_SOCKET, SO_ACCEPTCONN)) << "it still listens";
}

/// Checks that a failure to listen closes the server and stays reported, also if closing fails.
void expectFailureToClose(Transport transport, Injected& call, ErrnoRow const& row, int removed_files) {
    for (bool const close_fails : {false, true}) {
        Place const place(transport);
        SocketPtr const server = makeServer(place);
        int const fd = server->getSocketFd();
        Fault const fault(call, row.error);
        Fault const closes(inject_close, close_fails ? EIO : 0);
        Fault const removals(inject_unlink, close_fails ? EBUSY : 0);
        EXPECT_TRUE(failsToListen(*server, row));
        EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
        EXPECT_EQ(1, closes.getCalls());
        EXPECT_EQ(removed_files, removals.getCalls());
        EXPECT_EQ(close_fails, isOpen(fd));
        EXPECT_EQ(close_fails && removed_files != 0, isSocketFile(place.name));
        if (close_fails) {
            closeForReal(fd);
            unlink(place.name.c_str());
        }
    }
}

VESK_TEST_KIND_ROWS(StreamServerSocketBindRows, failureClosesTheServerAndRemovesNoFile, SERVERS, bindRows()) {
    Calls const listens(inject_listen, 0);
    expectFailureToClose(m_transport, inject_bind, m_row, 0);
}

VESK_TEST_KIND_ROWS(
    StreamServerSocketListenRows, failureClosesTheServerAndRemovesItsFile, SERVERS, LISTEN_ROWS) {
    expectFailureToClose(m_transport, inject_listen, m_row, isTcp(m_transport) ? 0 : 1);
}

TEST_P(StreamServerSocket, cannotListenWhereAnotherListens) {
    Listener const first(GetParam());
    {
        WithoutClosing const without_closing;
        SocketPtr const second = makeServer(first.getPlace());
        EXPECT_TRUE(failsToListen(*second, {Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE}));
    }
    EXPECT_EQ(GetParam() == Transport::PATH, isSocketFile(first.getPlace().name));
    EXPECT_FALSE(closeSocket(*first, false));
}

TEST_P(StreamServerSocket, passesItsArgumentsToTheSystem) {
    for (unsigned int const backlog : {0U, 1U, 100U, 1U << 16, 0x7fffffffU, 0xffffffffU}) {
        Waiting const each(GetParam(), {}, true, backlog);
        EXPECT_EQ(backlog, static_cast<unsigned int>(s_calls.backlog));
    }
    Waiting const waiting(GetParam());
    EXPECT_TRUE(waiting.listener.accept()->isValid());
    socklen_t const sizes[] = {sizeof(sockaddr_in), sizeof(sockaddr_in6), 110, 110};
    EXPECT_EQ(sizes[static_cast<int>(GetParam())], s_calls.accept_room);
    EXPECT_EQ(SOCK_CLOEXEC, s_calls.accept_flags);
}

TEST_P(StreamServerSocket, withAHugeBacklogAcceptsManyConnectionsInTheirOrder) {
    Listener const listener(GetParam(), true, 0xffffffffU);
    std::vector<SocketPtr> clients(100);
    for (SocketPtr& client : clients) {
        client = listener.makeClient();
        ASSERT_FALSE(connectSocket(*client));
    }
    for (SocketPtr const& client : clients) {
        SocketPtr const accepted = listener.accept();
        EXPECT_TRUE(succeeded(*listener, Socket::OPEN));
        EXPECT_TRUE(transfers(*client, *accepted, std::to_string(client->getSocketFd())));
    }
}

TEST_P(StreamServerSocket, waitsForAConnectionOrWithoutBlockingAcceptsNothing) {
    Listener const listener(GetParam());
    SleepingThread thread([&] { EXPECT_TRUE(listener.accept()->isValid()); });
    SocketPtr const client = listener.makeClient();
    EXPECT_FALSE(connectSocket(*client));
    thread.join();
    EXPECT_FALSE(listener->hadError());
    Listener const free(GetParam(), false);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(acceptsNothing(*free));
        EXPECT_TRUE(succeeded(*free, Socket::OPEN));
    }
    SocketPtr const late = free.makeClient();
    EXPECT_FALSE(connectSocket(*late));
    ASSERT_TRUE(awaitEvents(free->getSocketFd(), POLLIN));
    EXPECT_TRUE(free.accept()->isValid());
    EXPECT_TRUE(acceptsNothing(*free));
    EXPECT_TRUE(succeeded(*free, Socket::OPEN));
}

VESK_TEST_KIND_ROWS(
    StreamServerSocketAcceptRows, failureAcceptsNothingAndKeepsTheServerOpen, SERVERS, ACCEPT_ROWS) {
    Waiting const waiting(m_transport);
    Listener const& listener = waiting.listener;
    int const descriptors = countDescriptors();
    Fault const fault(inject_accept4, m_row.error);
    EXPECT_TRUE(acceptsNothing(*listener));
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_TRUE(failed(*listener, Socket::OPEN, m_row));
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_TRUE(listener.accept()->isValid());
    EXPECT_TRUE(succeeded(*listener, Socket::OPEN));
}

TEST_P(StreamServerSocket, repeatsTheAcceptWhileSignalsInterruptIt) {
    Waiting const waiting(GetParam());
    Fault const fault(inject_accept4, EINTR, 1, 4);
    EXPECT_TRUE(waiting.listener.accept()->isValid());
    EXPECT_EQ(5, fault.getCalls());
    EXPECT_TRUE(succeeded(*waiting.listener, Socket::OPEN));
}

TEST_P(StreamServerSocket, withoutDescriptorsLeftAcceptsLater) {
    expectInChild([] {
        Waiting const waiting(GetParam());
        Socket& server = *waiting.listener;
        writeTo(*waiting.client, "patience");
        int const descriptors = countDescriptors();
        rlimit limit{};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        rlimit const none{3, limit.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
        // Without a descriptor, a failed expectation may not be able to show itself.
        bool failed_each_time = true;
        for (int i = 0; i < 5; ++i) {
            failed_each_time &= acceptsNothing(server) && server.hadError() &&
                causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE);
        }
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_TRUE(failed_each_time);
        EXPECT_EQ(descriptors, countDescriptors());
        SocketPtr const accepted = waiting.listener.accept();
        EXPECT_TRUE(succeeded(server, Socket::OPEN));
        EXPECT_EQ("patience", readFrom(*accepted, 8)) << "the connection has waited";
    });
}

TEST_P(StreamServerSocket, acceptsAConnectionThatThePeerHasClosed) {
    Waiting waiting(GetParam());
    writeTo(*waiting.client, "left");
    waiting.client.reset();
    SocketPtr const accepted = waiting.listener.accept();
    EXPECT_TRUE(succeeded(*accepted, Socket::OPEN));
    EXPECT_EQ("left", readFrom(*accepted, 4));
    EXPECT_TRUE(isAtEnd(*accepted));
    EXPECT_FALSE(closeSocket(*accepted, true));
}

TEST_P(StreamServerSocket, leavesItsConnectionsAloneWhenItClosesAndResetsWaitingOnes) {
    Connection const connection(GetParam());
    EXPECT_FALSE(closeSocket(*connection.listener, true));
    EXPECT_TRUE(transfers(*connection.client, *connection.server, "still here"));
    Waiting const waiting(GetParam());
    EXPECT_FALSE(closeSocket(*waiting.listener, false));
    ASSERT_TRUE(awaitEvents(waiting.client->getSocketFd(), POLLIN));
    EXPECT_TRUE(isReset(*waiting.client));
}

} // namespace
