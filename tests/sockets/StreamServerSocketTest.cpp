#include "StreamSocketSupport.h"
#include "support/Privileges.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

/// What the servers of TCP and of Unix sockets do in the same way.

namespace {

using namespace support;

class StreamServerSocket : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(transports, StreamServerSocket, testing::ValuesIn(TRANSPORTS), byName);

// ---- Listening ----

TEST_P(StreamServerSocket, listensOnlyOnce) {
    Place const place(GetParam());
    SocketPtr const server = makeServer(place);
    enableListen(*server);
    EXPECT_TRUE(succeeded(*server, Socket::OPEN));
    EXPECT_EQ(1, getOption(server->getSocketFd(), SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_EQ(GetParam() == Transport::PATH, isSocketFile(place.name));
    Fault const binds(inject_bind, 0);
    enableListen(*server);
    EXPECT_TRUE(failed(*server, Socket::OPEN));
    EXPECT_TRUE(misuseIs("enableListen() called in state != INACTIVE"));
    EXPECT_EQ(1, getOption(server->getSocketFd(), SOL_SOCKET, SO_ACCEPTCONN)) << "it still listens";
    EXPECT_FALSE(closeSocket(*server, false));
    EXPECT_FALSE(isSocketFile(place.name));
    enableListen(*server);
    EXPECT_TRUE(failed(*server, Socket::DEAD));
    EXPECT_TRUE(misuseIs("enableListen() called in state != INACTIVE"));
    EXPECT_EQ(0, binds.getCalls());
}

/// Checks that a failure to listen closes the server and stays reported, also if closing fails.
void expectFailureToClose(Transport transport, Injected& call, ErrorRow const& row, int removed_files) {
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

VESK_ROW_SUITE(StreamServerSocketBindRows, BIND_ROWS);
INSTANTIATE_TEST_SUITE_P(
    rowThatTcpClientsIgnore, StreamServerSocketBindRows,
    testing::Combine(
        testing::ValuesIn(TCP_AND_UNIX), testing::Values(ErrorRow(SysErrorId::SPOILED_INTEGRITY, EINVAL))),
    byName);

TEST_P(StreamServerSocketBindRows, failureClosesTheServerAndRemovesNoFile) {
    Fault const listens(inject_listen, 0);
    expectFailureToClose(m_transport, inject_bind, m_row, 0);
    EXPECT_EQ(0, listens.getCalls());
}

VESK_ROW_SUITE(StreamServerSocketListenRows, LISTEN_ROWS);

TEST_P(StreamServerSocketListenRows, failureClosesTheServerAndRemovesItsFile) {
    expectFailureToClose(m_transport, inject_listen, m_row, isTcp(m_transport) ? 0 : 1);
}

TEST_P(StreamServerSocket, cannotListenWhereAnotherListens) {
    Listener const first(GetParam());
    WithoutClosing const without_closing;
    EventRecorder const events;
    {
        SocketPtr const second = makeServer(first.getPlace());
        EXPECT_TRUE(failsToListen(*second, {Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE}));
    }
    EXPECT_EQ("", events.getText()) << "the destructor reports nothing";
    EXPECT_EQ(GetParam() == Transport::PATH, isSocketFile(first.getPlace().name));
    EXPECT_FALSE(closeSocket(*first, false));
}

TEST_P(StreamServerSocket, passesEveryBacklogToTheSystem) {
    for (unsigned int const backlog : {0U, 1U, 100U, 1U << 16, 0x7fffffffU, 0xffffffffU}) {
        Waiting const waiting(GetParam(), {}, true, backlog);
        EXPECT_EQ(backlog, static_cast<unsigned int>(s_calls.backlog));
    }
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

// ---- Accepting ----

TEST_P(StreamServerSocket, acceptsWithRoomForAWholeAddressAndForExecToClose) {
    Waiting const waiting(GetParam());
    EXPECT_TRUE(waiting.listener.accept()->isValid());
    socklen_t const sizes[] = {sizeof(sockaddr_in), sizeof(sockaddr_in6), 110, 110};
    EXPECT_EQ(sizes[static_cast<int>(GetParam())], s_calls.accept_room);
    EXPECT_EQ(SOCK_CLOEXEC, s_calls.accept_flags);
}

TEST_P(StreamServerSocket, waitsForAConnection) {
    Listener const listener(GetParam());
    std::thread thread = startUntilAsleep([&] { EXPECT_TRUE(listener.accept()->isValid()); });
    SocketPtr const client = listener.makeClient();
    EXPECT_FALSE(connectSocket(*client));
    thread.join();
    EXPECT_FALSE(listener->hadError());
}

TEST_P(StreamServerSocket, thatDoesNotBlockAcceptsNothingWhereNoConnectionWaits) {
    Listener const listener(GetParam(), false);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(acceptsNothing(*listener));
        EXPECT_TRUE(succeeded(*listener, Socket::OPEN));
    }
    SocketPtr const client = listener.makeClient();
    EXPECT_FALSE(connectSocket(*client));
    ASSERT_TRUE(awaitEvents(listener->getSocketFd(), POLLIN));
    EXPECT_TRUE(listener.accept()->isValid());
    EXPECT_TRUE(acceptsNothing(*listener));
    EXPECT_TRUE(succeeded(*listener, Socket::OPEN));
}

TEST_P(StreamServerSocket, acceptsOnlyWhileItIsOpen) {
    SocketPtr const server = makeServer(Place(GetParam()));
    Fault const calls(inject_accept4, 0);
    for (Socket::State const state : {Socket::INACTIVE, Socket::DEAD}) {
        EXPECT_TRUE(acceptsNothing(*server));
        EXPECT_TRUE(failed(*server, state));
        EXPECT_TRUE(misuseIs("acceptConnection() called in state != OPEN"));
        if (state == Socket::INACTIVE) {
            EXPECT_FALSE(closeSocket(*server, false));
        }
    }
    EXPECT_EQ(0, calls.getCalls());
}

VESK_ROW_SUITE(StreamServerSocketAcceptRows, ACCEPT_ROWS);

TEST_P(StreamServerSocketAcceptRows, failureAcceptsNothingAndKeepsTheServerOpen) {
    Waiting const waiting(m_transport);
    Listener const& listener = waiting.listener;
    int const descriptors = countDescriptors();
    Fault const fault(inject_accept4, m_row.error);
    EXPECT_TRUE(acceptsNothing(*listener));
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_TRUE(causeIs(m_row));
    EXPECT_TRUE(failed(*listener, Socket::OPEN));
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

TEST_P(StreamServerSocket, leavesItsConnectionsAloneWhenItCloses) {
    Connection const connection(GetParam());
    EXPECT_FALSE(closeSocket(*connection.listener, true));
    EXPECT_TRUE(transfers(*connection.client, *connection.server, "still here"));
}

TEST_P(StreamServerSocket, resetsWaitingConnectionsWhenItCloses) {
    Waiting const waiting(GetParam());
    EXPECT_FALSE(closeSocket(*waiting.listener, false));
    ASSERT_TRUE(awaitEvents(waiting.client->getSocketFd(), POLLIN));
    EXPECT_EQ(FAILED, readByte(*waiting.client));
    EXPECT_TRUE(streamFailureIs({Socket::ErrorId::CONNECTION_RESET, ECONNRESET}, StreamErrorId::UNUSABLE));
}

// ---- A stream only by inheritance ----

class StreamServerSocketState : public testing::TestWithParam<std::tuple<Transport, Socket::State>> {
protected:
    StreamServerSocketState() {
        if (m_state != Socket::INACTIVE) {
            enableListen(*m_server);
        }
        if (m_state == Socket::DEAD) {
            EXPECT_FALSE(closeSocket(*m_server, false));
        }
        EXPECT_TRUE(succeeded(*m_server, m_state));
    }

    testing::AssertionResult refuses(std::string const& operation) {
        testing::AssertionResult const result = failed(*m_server, m_state);
        return result ? streamMisuseIs(operation + " is invalid", StreamErrorId::NOT_SUPPORTED) : result;
    }

    Socket::State const m_state = std::get<1>(GetParam());
    SocketPtr const m_server = makeServer(Place(std::get<0>(GetParam())));
};

INSTANTIATE_TEST_SUITE_P(
    states, StreamServerSocketState,
    testing::Combine(
        testing::ValuesIn(TCP_AND_UNIX), testing::Values(Socket::INACTIVE, Socket::OPEN, Socket::DEAD)),
    byName);

TEST_P(StreamServerSocketState, refusesToRead) {
    char byte = 'x';
    for (unsigned int const size : {1U, 0U}) {
        unsigned int count = 12345;
        EXPECT_EQ(-1, m_server->read(size != 0 ? &byte : nullptr, size, count));
        EXPECT_TRUE(refuses("read operation on server socket"));
        EXPECT_EQ('x', byte);
    }
}

TEST_P(StreamServerSocketState, refusesToWrite) {
    for (unsigned int const size : {1U, 0U}) {
        unsigned int count = 12345;
        EXPECT_EQ(-1, m_server->write(size != 0 ? "x" : nullptr, size, count));
        EXPECT_TRUE(refuses("write operation on server socket"));
    }
}

TEST_P(StreamServerSocketState, refusesToFlush) {
    EXPECT_TRUE(m_server->flush(false));
    EXPECT_TRUE(refuses("flush operation on socket"));
}

} // namespace
