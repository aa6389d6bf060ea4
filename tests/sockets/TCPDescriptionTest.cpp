#include "TCPSupport.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace support;

using Description = TCPSocket::Description;

static_assert(!std::is_copy_constructible_v<Description> && !std::is_copy_assignable_v<Description>);
static_assert(
    std::is_nothrow_move_constructible_v<Description> && std::is_nothrow_move_assignable_v<Description>);
static_assert(std::is_nothrow_default_constructible_v<Description> && !std::is_polymorphic_v<Description>);
static_assert(sizeof(Description::local_binary) == 28 && sizeof(Description::peer_binary) == 28);
static_assert(offsetof(Description, valid) == 0 && offsetof(Description, socket_fd) == 4);
static_assert(offsetof(Description, local_binary) == 8 && offsetof(Description, peer_binary) == 36);
static_assert(offsetof(Description, peer_binary) < offsetof(Description, local_address));
static_assert(offsetof(Description, local_address) < offsetof(Description, version));

constexpr char const* INVALID = "Tried to construct TCPSocket from invalid description";

/// A server with one connection that waits.
struct Waiting {
    explicit Waiting(IPSocket::IPProtocolVersion version = IPSocket::IPV4)
        : listener(version), client(listener.makeClient()) {
        EXPECT_FALSE(client.connect());
    }

    Listener listener;
    Client client;
};

bool isZero(IPSocket::BinaryAddress const& address) {
    IPSocket::BinaryAddress const zero{};
    return memcmp(&zero, &address, sizeof zero) == 0;
}

testing::AssertionResult isEmpty(Description const& description) {
    bool const empty = !description.valid && description.socket_fd == -1 &&
        isZero(description.local_binary) && isZero(description.peer_binary) &&
        description.local_address.host.empty() && description.local_address.port == 0 &&
        description.version == 0;
    return empty ? testing::AssertionSuccess() : testing::AssertionFailure() << "it has something";
}

// Owning.

TEST(TCPDescription, isEmptyByItself) {
    Description const description;
    EXPECT_TRUE(isEmpty(description));
}

TEST(TCPDescription, emptyClosesNothing) {
    Fault const closes(inject_close, 0);
    { Description const description; }
    EXPECT_EQ(0, closes.getCalls());
}

TEST(TCPDescription, thatNobodyAdoptsClosesItsConnection) {
    Waiting waiting;
    int const descriptors = countDescriptors();
    {
        Description const accepted = waiting.listener.acceptConnection();
        EXPECT_TRUE(accepted.valid);
        EXPECT_EQ(descriptors + 1, countDescriptors());
        EXPECT_FALSE(isReady(waiting.client.getSocketFd(), POLLIN));
    }
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_TRUE(isAtItsEnd(waiting.client));
}

TEST(TCPDescription, thatNobodyEvenLooksAtClosesItsConnection) {
    Waiting waiting;
    waiting.listener.acceptConnection();
    EXPECT_TRUE(isAtItsEnd(waiting.client));
}

TEST(TCPDescription, whoseDescriptorIsTakenByHandLeavesIt) {
    Waiting waiting;
    int fd = -1;
    {
        Description const accepted = waiting.listener.acceptConnection();
        fd = accepted.socket_fd;
        accepted.valid = false;
    }
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ(0, close(fd));
}

TEST(TCPDescription, movesAndLeavesAnEmptyOne) {
    Waiting waiting(IPSocket::IPV6);
    Description accepted = waiting.listener.acceptConnection();
    int const fd = accepted.socket_fd;
    IPSocket::BinaryAddress const peer = accepted.peer_binary;
    Fault const closes(inject_close, 0);
    {
        Description const moved(std::move(accepted));
        EXPECT_TRUE(isEmpty(accepted));
        EXPECT_TRUE(moved.valid);
        EXPECT_EQ(fd, moved.socket_fd);
        EXPECT_EQ(0, memcmp(&peer, &moved.peer_binary, sizeof peer));
        EXPECT_EQ(IPSocket::LOOPBACK_IP6, moved.local_address.host);
        EXPECT_EQ(waiting.listener.getLocalAddress().port, moved.local_address.port);
        EXPECT_EQ(IPSocket::IPV6, moved.version);
    }
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_TRUE(isAtItsEnd(waiting.client));
}

TEST(TCPDescription, thatAnotherIsMovedToClosesWhatItHad) {
    Waiting first;
    Waiting second;
    Description description = first.listener.acceptConnection();
    Description other = second.listener.acceptConnection();
    description = std::move(other);
    EXPECT_TRUE(isEmpty(other)) << "it does not get what the other one had";
    EXPECT_TRUE(isAtItsEnd(first.client));
    EXPECT_TRUE(description.valid);
    Client server(true, 0, 0, description);
    writeTo(server, "second");
    EXPECT_EQ("second", readFrom(second.client, 6));
}

TEST(TCPDescription, thatAnEmptyOneIsMovedToIsEmpty) {
    Waiting waiting;
    Description description = waiting.listener.acceptConnection();
    description = Description();
    EXPECT_TRUE(isEmpty(description));
    EXPECT_TRUE(isAtItsEnd(waiting.client));
}

TEST(TCPDescription, movedToItselfStaysAsItIs) {
    Waiting waiting;
    Description description = waiting.listener.acceptConnection();
    Description& same = description;
    description = std::move(same);
    EXPECT_TRUE(description.valid);
    EXPECT_TRUE(isOpen(description.socket_fd));
}

TEST(TCPDescription, swapsWithAnother) {
    Waiting waiting;
    Description one = waiting.listener.acceptConnection();
    Description other;
    one.swap(other);
    EXPECT_TRUE(isEmpty(one));
    EXPECT_TRUE(other.valid);
}

class TCPDescriptionClose : public testing::TestWithParam<int> {};

TEST_P(TCPDescriptionClose, isRepeatedUntilItSucceedsWithAWarningEachTime) {
    Waiting waiting;
    EventRecorder const events;
    int fd = -1;
    {
        Description const accepted = waiting.listener.acceptConnection();
        fd = accepted.socket_fd;
        Fault const fault(inject_close, GetParam(), 1, 3);
        { Description const moved(std::move(const_cast<Description&>(accepted))); }
        EXPECT_EQ(4, fault.getCalls());
    }
    EXPECT_FALSE(isOpen(fd));
    std::string const line =
        "WARNING framework/src/vesk/posix/TCPSocket ~Description: unknown error closing socket FD";
    EXPECT_EQ(line + "\n" + line + "\n" + line, events.getText());
    EXPECT_TRUE(chainIs({})) << "nothing is reported";
    EXPECT_TRUE(isAtItsEnd(waiting.client));
}

INSTANTIATE_TEST_SUITE_P(
    rows, TCPDescriptionClose, testing::Values(EIO, EBADF, ENOSPC, EAGAIN),
    [](auto const& row) { return std::string(strerrorname_np(row.param)); });

TEST(TCPDescription, closeIsRepeatedInSilenceWhileSignalsInterruptIt) {
    Waiting waiting;
    EventRecorder const events;
    Fault const fault(inject_close, EINTR, 1, 5);
    waiting.listener.acceptConnection();
    EXPECT_EQ(6, fault.getCalls());
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

// Adopting.

class TCPDescriptionVersions : public testing::TestWithParam<IPSocket::IPProtocolVersion> {};

INSTANTIATE_TEST_SUITE_P(versions, TCPDescriptionVersions, testing::ValuesIn(VERSIONS), getVersionName);

TEST_P(TCPDescriptionVersions, adoptedBecomesAnOpenSocket) {
    Waiting waiting(GetParam());
    Description const accepted = waiting.listener.acceptConnection();
    Fault const flags(inject_fcntl, 0);
    Client server(true, 0, 0, accepted);
    EXPECT_EQ(0, flags.getCalls()) << "a socket that waits leaves the status flags alone";
    EXPECT_FALSE(accepted.valid);
    EXPECT_TRUE(server.isValid());
    EXPECT_FALSE(server.hadError());
    EXPECT_EQ(Socket::OPEN, server.getState());
    EXPECT_EQ(accepted.socket_fd, server.getSocketFd());
    EXPECT_EQ(GetParam(), server.getVersion());
    EXPECT_TRUE(chainIs({}));
    writeTo(waiting.client, "hello");
    EXPECT_EQ("hello", readFrom(server, 5));
    EXPECT_FALSE(server.close(true));
    EXPECT_TRUE(isAtItsEnd(waiting.client));
}

TEST_P(TCPDescriptionVersions, adoptedHasThePeersAddressAndTheListeningOne) {
    Listener listener(IPAddress(), GetParam());
    IPAddress const peer(getLoopback(GetParam()), listener.getLocalAddress().port);
    Client client(true, 0, 0, IPAddress(), peer, false, GetParam());
    ASSERT_FALSE(client.connect());
    Description const accepted = listener.acceptConnection();
    Client server(true, 0, 0, accepted);
    EXPECT_TRUE(isZero(server.m_local_binary)) << "it is not known, and nobody needs it";
    EXPECT_EQ(0, memcmp(&accepted.peer_binary, &server.m_peer_binary, sizeof accepted.peer_binary));
    EXPECT_EQ(getLoopback(GetParam()), server.getPeerAddress().host);
    EXPECT_EQ(client.getLocalAddress().port, server.getPeerAddress().port);
    EXPECT_EQ(listener.getLocalAddress().host, server.getLocalAddress().host) << "still the any address";
    EXPECT_EQ(listener.getLocalAddress().port, server.getLocalAddress().port);
    server.updateLocalAddress();
    EXPECT_EQ(getLoopback(GetParam()), server.getLocalAddress().host);
    EXPECT_EQ(peer.port, server.getLocalAddress().port);
}

TEST(TCPDescription, keepsTheListeningPortUnknownWhereTheServerNeverLooked) {
    Closing<TCPServerSocket> server(IPAddress(IPSocket::LOOPBACK_IP, 0), true, false, IPSocket::IPV4);
    server.enableListen(1);
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    ASSERT_EQ(0, getsockname(server.getSocketFd(), reinterpret_cast<sockaddr*>(&bound), &size));
    Client client(true, 0, 0, IPAddress(), IPAddress(bound), false, IPSocket::IPV4);
    ASSERT_FALSE(client.connect());
    Client adopted(true, 0, 0, server.acceptConnection());
    EXPECT_EQ(0, adopted.getLocalAddress().port);
    adopted.updateLocalAddress();
    EXPECT_EQ(ntohs(bound.sin_port), adopted.getLocalAddress().port);
}

TEST(TCPDescription, isAdoptedOnce) {
    Waiting waiting;
    Description const accepted = waiting.listener.acceptConnection();
    Client first(true, 0, 0, accepted);
    int const descriptors = countDescriptors();
    {
        TCPSocket const second(true, 0, 0, accepted);
        EXPECT_FALSE(second.isValid());
        EXPECT_EQ(-1, second.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, second.getState());
        EXPECT_TRUE(misuseIs(INVALID));
    }
    EXPECT_EQ(descriptors, countDescriptors());
    writeTo(first, "mine");
    EXPECT_EQ("mine", readFrom(waiting.client, 4)) << "the first is not disturbed";
}

TEST(TCPDescription, thatIsEmptyCannotBeAdopted) {
    Fault const flags(inject_fcntl, 0);
    EventRecorder const events;
    for (bool const blocking : {true, false}) {
        TCPSocket const socket(blocking, 16, 16, Description());
        EXPECT_FALSE(socket.isValid());
        EXPECT_TRUE(misuseIs(INVALID));
    }
    EXPECT_EQ(0, flags.getCalls());
    EXPECT_EQ("", events.getText()) << "the sockets are destroyed in silence";
}

TEST(TCPDescription, thatWasMovedFromCannotBeAdopted) {
    Waiting waiting;
    Description accepted = waiting.listener.acceptConnection();
    Description const moved(std::move(accepted));
    TCPSocket const socket(true, 0, 0, accepted);
    EXPECT_FALSE(socket.isValid());
    EXPECT_TRUE(misuseIs(INVALID));
    EXPECT_TRUE(moved.valid);
}

TEST(TCPDescription, ofAnAcceptThatGaveNothingCannotBeAdopted) {
    Listener listener(IPSocket::IPV4, false);
    TCPSocket const socket(true, 0, 0, listener.acceptConnection());
    EXPECT_FALSE(listener.hadError());
    EXPECT_FALSE(socket.isValid());
    EXPECT_TRUE(misuseIs(INVALID));
}

TEST(TCPDescription, whoseListeningAddressLeadsToNothingStaysValid) {
    Waiting waiting;
    int fd = -1;
    {
        Description accepted = waiting.listener.acceptConnection();
        fd = accepted.socket_fd;
        accepted.local_address.host = IPSocket::LOOPBACK_IP6;
        TCPSocket const socket(false, 0, 0, accepted);
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
        EXPECT_TRUE(accepted.valid);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(TCPDescription, adoptedBySocketsThatDoNotWaitLosesItsOtherStatusFlags) {
    Waiting waiting;
    Description const accepted = waiting.listener.acceptConnection();
    ASSERT_EQ(0, fcntl(accepted.socket_fd, F_SETFL, O_APPEND | O_ASYNC));
    ASSERT_EQ(O_RDWR | O_APPEND | O_ASYNC, fcntl(accepted.socket_fd, F_GETFL));
    Client server(false, 0, 0, accepted);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, s_last.status_flags);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(server.getSocketFd(), F_GETFL));
    char byte = 0;
    unsigned int count = 12345;
    EXPECT_EQ(1, server.read(&byte, 1, count));
    EXPECT_EQ(0u, count);
}

class TCPDescriptionStatusFlags : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPDescriptionStatusFlags, thatCannotBeChangedLeaveItValidAndItIsClosedOnce) {
    for (int nth : {1, 2}) {
        Waiting waiting;
        int const descriptors = countDescriptors();
        EventRecorder const events;
        Fault const closes(inject_close, 0);
        {
            Description const accepted = waiting.listener.acceptConnection();
            {
                Fault const fault(inject_fcntl, GetParam().error, nth);
                TCPSocket const socket(false, 0, 0, accepted);
                EXPECT_EQ(nth, fault.getCalls());
                EXPECT_TRUE(failureIs(GetParam()));
                EXPECT_FALSE(socket.isValid());
                EXPECT_EQ(-1, socket.getSocketFd());
                EXPECT_EQ(Socket::DEAD, socket.getState());
            }
            EXPECT_TRUE(accepted.valid);
            EXPECT_TRUE(isOpen(accepted.socket_fd));
            EXPECT_EQ(0, closes.getCalls());
        }
        EXPECT_EQ(1, closes.getCalls());
        EXPECT_EQ(descriptors, countDescriptors());
        EXPECT_TRUE(isAtItsEnd(waiting.client));
        EXPECT_EQ("", events.getText());
    }
}

TEST_P(TCPDescriptionStatusFlags, thatCouldNotBeChangedDoNotKeepAnotherSocketFromAdopting) {
    Waiting waiting;
    Description const accepted = waiting.listener.acceptConnection();
    {
        Fault const fault(inject_fcntl, GetParam().error);
        TCPSocket const socket(false, 0, 0, accepted);
        EXPECT_TRUE(failureIs(GetParam()));
    }
    Client server(true, 0, 0, accepted);
    EXPECT_TRUE(server.isValid());
    EXPECT_FALSE(accepted.valid);
    writeTo(server, "after all");
    EXPECT_EQ("after all", readFrom(waiting.client, 9));
}

INSTANTIATE_TEST_SUITE_P(rows, TCPDescriptionStatusFlags, testing::ValuesIn(getStatusFlagRows()));

TEST(TCPDescription, isAdoptedWithBuffersOfItsOwn) {
    Waiting waiting;
    Client server(true, 64, 32, waiting.listener.acceptConnection());
    EXPECT_TRUE(server.isInputBuffered());
    EXPECT_TRUE(server.isOutputBuffered());
    writeTo(server, "kept");
    EXPECT_FALSE(isReady(waiting.client.getSocketFd(), POLLIN));
    EXPECT_FALSE(server.flush(false));
    EXPECT_EQ("kept", readFrom(waiting.client, 4));
    writeTo(waiting.client, "0123456789");
    EXPECT_EQ("01234", readFrom(server, 5));
    EXPECT_FALSE(isReady(server.getSocketFd(), POLLIN)) << "the rest was read ahead";
    char rest[5] = {};
    unsigned int count = 0;
    EXPECT_EQ(1, server.read(rest, sizeof rest, count));
    EXPECT_EQ("56789", std::string(rest, count));
}

TEST(TCPDescription, adoptedOutlivesItsDescriptionAndItsServer) {
    auto waiting = std::make_unique<Waiting>();
    auto accepted = std::make_unique<Description>(waiting->listener.acceptConnection());
    Client server(true, 0, 0, *accepted);
    accepted.reset();
    EXPECT_FALSE(waiting->listener.close(true));
    writeTo(server, "alone");
    EXPECT_EQ("alone", readFrom(waiting->client, 5));
}

TEST(TCPDescription, doesNotTellAdoptedSocketsOfTheirConnection) {
    struct Hooked : Client {
        using Client::Client;
        bool connected() override {
            ADD_FAILURE() << "nobody has connected it";
            return true;
        }
    };
    Waiting waiting;
    Hooked const server(true, 0, 0, waiting.listener.acceptConnection());
    EXPECT_TRUE(server.isValid());
}

// Threads.

TEST(TCPDescription, isAdoptedInAnotherThread) {
    Waiting waiting;
    std::thread worker(
        [](Description accepted) {
            Client server(true, 0, 0, accepted);
            EXPECT_FALSE(accepted.valid);
            std::string const request = readFrom(server, 4);
            writeTo(server, request + request);
            EXPECT_FALSE(server.close(true));
        },
        waiting.listener.acceptConnection());
    writeTo(waiting.client, "ping");
    EXPECT_EQ("pingping", readFrom(waiting.client, 8));
    EXPECT_TRUE(isAtItsEnd(waiting.client));
    worker.join();
}

/// Hands accepted connections to workers.
class Queue {
public:
    void push(Description accepted) {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_waiting.push_back(std::move(accepted));
        m_changed.notify_one();
    }

    /// An empty one ends the worker.
    Description pop() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_waiting.empty(); });
        Description first = std::move(m_waiting.front());
        m_waiting.pop_front();
        return first;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Description> m_waiting;
};

TEST(TCPDescription, manyAreServedByAFewWorkers) {
    constexpr int CONNECTIONS = 60;
    constexpr int WORKERS = 4;
    Listener listener;
    Queue queue;
    std::vector<std::thread> threads;
    for (int i = 0; i < WORKERS; ++i) {
        threads.emplace_back([&queue] {
            for (;;) {
                Description const accepted = queue.pop();
                if (!accepted.valid) {
                    return;
                }
                Client server(true, 32, 32, accepted);
                std::string const request = readFrom(server, 6);
                writeTo(server, "<" + request + ">");
                EXPECT_FALSE(server.close(true));
            }
        });
    }
    std::thread clients([&listener] {
        for (int i = 0; i < CONNECTIONS; ++i) {
            Client client = listener.makeClient();
            EXPECT_FALSE(client.connect());
            std::string const request = std::to_string(100000 + i);
            writeTo(client, request);
            EXPECT_EQ("<" + request + ">", readFrom(client, 8));
            EXPECT_TRUE(isAtItsEnd(client));
        }
    });
    for (int i = 0; i < CONNECTIONS; ++i) {
        Description accepted = listener.acceptConnection();
        EXPECT_TRUE(accepted.valid);
        queue.push(std::move(accepted));
    }
    for (int i = 0; i < WORKERS; ++i) {
        queue.push(Description());
    }
    clients.join();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
