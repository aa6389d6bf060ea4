#include "SocketRows.h"
#include "TestSocket.h"
#include "support/AllocationCounter.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"
#include "support/calls/UDPCalls.h"

#include <vesk/Poller.h>

namespace {

using namespace support;
using std::CommonErrorId::OUT_OF_MEMORY;
using vesk::Socket;

static_assert(std::is_base_of_v<std::IBinInOutStream, Socket>);
static_assert(std::is_base_of_v<tarnbase::NonCopyable, Socket>);
static_assert(std::is_abstract_v<std::IBinInOutStream>);
static_assert(!std::is_copy_constructible_v<TestSocket> && !std::is_copy_assignable_v<TestSocket>);
static_assert(!std::is_constructible_v<Socket, bool, unsigned int, unsigned int>);
static_assert(std::is_destructible_v<Socket> && std::has_virtual_destructor_v<Socket>);
static_assert(std::is_same_v<std::underlying_type_t<Socket::State>, uint32_t>);
static_assert(Socket::INACTIVE == 0 && Socket::OPEN == 1 && Socket::DEAD == 2);
static_assert(Socket::INVALID_SOCKET_FD == -1);

// ---- layout ----

/// Sees the operations that only subclasses can call. The destructor has the first two slots.
struct Operations : Socket {
    static void check() {
        EXPECT_EQ(2, getSlot(&Operations::isValid));
        EXPECT_EQ(3, getSlot(&Operations::checkReadBufferConsistency));
        EXPECT_EQ(4, getSlot(&Operations::performRead));
        EXPECT_EQ(5, getSlot(&Operations::performWrite));
        EXPECT_EQ(6, getSlot(&Operations::performFlush));
    }
};

/// Sees the same for users of `std::IBinOutputStream`.
struct OutputOperations : std::IBinOutputStream {
    static void check() {
        EXPECT_EQ(2, getSlot(&OutputOperations::isValid));
        EXPECT_EQ(3, getSlot(&OutputOperations::checkWriteBufferConsistency));
        EXPECT_EQ(4, getSlot(&OutputOperations::performWrite));
        EXPECT_EQ(5, getSlot(&OutputOperations::performFlush));
    }
};

TEST(Socket, virtualOperationsHaveTheirSlots) {
    Operations::check();
    OutputOperations::check();
}

/// Sees the fields of the class.
struct Fields : Socket {
    Fields() : Socket(true, 0, 0) { m_object_valid = false; }

    void check() const {
        auto const at = [](void const* field) { return reinterpret_cast<uintptr_t>(field); };
        EXPECT_EQ(1U, sizeof m_had_error);
        EXPECT_EQ(sizeof(int), sizeof m_socket_handle);
        EXPECT_EQ(1U, sizeof m_object_valid);
        EXPECT_EQ(4U, sizeof m_socket_state);
        EXPECT_LT(at(&m_had_error), at(&m_socket_handle));
        EXPECT_EQ(at(&m_socket_handle), at(&m_socket_handle.socket_fd));
        EXPECT_LT(at(&m_socket_handle), at(&m_object_valid));
        EXPECT_LT(at(&m_object_valid), at(&m_socket_state));
    }
};

TEST(Socket, fieldsHaveTheirOrder) {
    Fields().check();
}

TEST(Socket, hasAnErrorFamilyDerivedFromThatOfTheSystem) {
    expectRows(
        Socket::Error,
        {"Invalid socket encountered: %s", "Unknown socket option: %s", "Invalid socket option: %s",
         "Creating socket failed: %s", "Socket address busy: %s", "Socket address invalid: %s",
         "Connection has been reset: %s", "Peer is not reachable: %s", "Network is unavailable: %s",
         "Resolve operation failed: %s", "Communication failed: %s", "Connection closed: %s",
         "Message too big: %s"},
        1);
    EXPECT_FALSE(vesk::SysError.isA(Socket::Error));
}

// ---- construction ----

TEST(Socket, newSocketHasTheModeAndBuffersOfItsConstructor) {
    TestSocket const socket(true, 0, 0);
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_TRUE(socket.isBlocking());
    EXPECT_FALSE(socket.isInputBuffered());
    EXPECT_FALSE(socket.isOutputBuffered());
    EXPECT_FALSE(TestSocket(false, 0, 0).isBlocking());
    EXPECT_FALSE(TestSocket(false, 16, 16).isBlocking());
    EXPECT_TRUE(TestSocket(true, 16, 16).isBlocking());
    NewFault const allocations(New::NOTHROW_ARRAY, 1, 0);
    for (auto const& [read, write] : {std::pair(100U, 200U), std::pair(100U, 0U), std::pair(0U, 100U)}) {
        TestSocket const buffered(true, read, write);
        EXPECT_EQ(read != 0, buffered.isInputBuffered());
        EXPECT_EQ(write != 0, buffered.isOutputBuffered());
        EXPECT_TRUE(buffered.isValid());
    }
    EXPECT_EQ((std::vector<size_t>{100, 200, 100, 100}), allocations.getSizes());
}

TEST(Socket, withoutMemoryForABufferItIsInvalidInEveryState) {
    Ends ends = makeEnds();
    for (int const nth : {1, 2}) {
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        TestSocket socket(true, 100, 200);
        EXPECT_EQ(2, fault.getCalls());
        EXPECT_TRUE(chainIs({OUT_OF_MEMORY}));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
        socket.set(ends.getPeer(), Socket::OPEN);
        char byte = 0;
        unsigned int count = 9;
        EXPECT_EQ(-1, nth == 1 ? socket.read(&byte, 1, count) : socket.write(&byte, 1, count));
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(chainIs({OUT_OF_MEMORY, StreamErrorId::UNUSABLE}));
        socket.setValid(true);
        EXPECT_FALSE(socket.isValid());
        socket.forget();
    }
}

// ---- validity ----

TEST(Socket, isValidInEveryStateExceptDeadUnlessAConstructorFailed) {
    TestSocket socket;
    socket.setValid(false);
    EXPECT_FALSE(socket.isValid());
    socket.setValid(true);
    EXPECT_TRUE(socket.isValid());
    socket.set(-1, Socket::OPEN);
    EXPECT_TRUE(socket.isValid()) << "the descriptor does not matter";
    socket.forget();
    EXPECT_FALSE(socket.isValid());
}

TEST(Socket, checkOfASocketWithADescriptorClearsTheErrorFlag) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine(), Socket::INACTIVE);
    socket.setHadError();
    TestSocket const& constant = socket;
    EXPECT_FALSE(constant.checkValidSocket());
    EXPECT_FALSE(constant.hadError());
}

TEST(Socket, checkOfASocketWithoutADescriptorFailsWithTheTextOfErrno) {
    TestSocket socket;
    TestSocket const& constant = socket;
    for (auto const state : {Socket::INACTIVE, Socket::OPEN, Socket::DEAD}) {
        socket.set(-1, state);
        errno = EXDEV;
        EXPECT_TRUE(constant.checkValidSocket());
        EXPECT_TRUE(constant.hadError());
        EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, EXDEV));
        EXPECT_EQ(state, socket.getState());
    }
    errno = 0;
    EXPECT_TRUE(constant.checkValidSocket());
    EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, 0));
}

// ---- destruction ----

/// A socket that does not close itself.
class UnclosedSocket : public Socket {
public:
    UnclosedSocket(int fd, State state, bool valid) : Socket(true, 0, 0) {
        m_socket_handle.socket_fd = fd;
        m_socket_state = state;
        m_object_valid = valid;
    }
};

/// Returns the events of the destructor of a socket with these fields.
std::string eventsOfEnd(int fd, Socket::State state, bool valid) {
    EventRecorder const events;
    { UnclosedSocket const socket(fd, state, valid); }
    EXPECT_NE(-1, fcntl(1, F_GETFD)) << "the destructor closes nothing";
    return events.getText();
}

TEST(Socket, destructorAssertsThatAValidSocketHasNoDescriptorAndIsDead) {
    std::string const descriptor =
        "ASSERT framework/src/vesk/posix/Socket ~Socket: m_socket_handle.socket_fd == INVALID_SOCKET_FD";
    std::string const state = "ASSERT framework/src/vesk/posix/Socket ~Socket: m_socket_state == DEAD";
    EXPECT_EQ(descriptor + "\n" + state, eventsOfEnd(1, Socket::OPEN, true));
    EXPECT_EQ(descriptor + "\n" + state, eventsOfEnd(1, Socket::INACTIVE, true));
    EXPECT_EQ(descriptor, eventsOfEnd(1, Socket::DEAD, true));
    EXPECT_EQ(state, eventsOfEnd(-1, Socket::OPEN, true));
    EXPECT_EQ(state, eventsOfEnd(-1, Socket::INACTIVE, true));
    EXPECT_EQ("", eventsOfEnd(-1, Socket::DEAD, true));
    EXPECT_EQ("", eventsOfEnd(-1, Socket::DEAD, false));
    EXPECT_EQ("", eventsOfEnd(1, Socket::OPEN, false));
    EXPECT_EQ("", eventsOfEnd(-1, Socket::INACTIVE, false));
}

// ---- two threads ----

// `hadError` is the outcome of either thread. The thread sanitizer would report a race.
TEST(Socket, isReadByOneThreadAndWrittenByAnother) {
    constexpr int COUNT = 2000;
    ConnectedSocket socket;
    std::thread echo([peer = socket.ends.getPeer()] {
        char block[64];
        ssize_t count = 0;
        while ((count = ::recv(peer, block, sizeof block, 0)) > 0) {
            EXPECT_EQ(count, ::send(peer, block, static_cast<size_t>(count), MSG_NOSIGNAL));
        }
    });
    std::thread writer([&socket] {
        for (int i = 0; i < COUNT; ++i) {
            unsigned int written = 0;
            EXPECT_EQ(1, socket.write("x", 1, written));
            EXPECT_FALSE(socket.flush(false));
            EXPECT_FALSE(socket.hadError());
        }
    });
    unsigned int arrived = 0;
    while (arrived < COUNT) {
        char block[64];
        unsigned int got = 0;
        ASSERT_EQ(1, socket.read(block, sizeof block, got));
        EXPECT_FALSE(socket.hadError());
        arrived += got;
    }
    writer.join();
    ASSERT_EQ(0, shutdown(socket.getSocketFd(), SHUT_WR));
    echo.join();
}

// ---- the stream ----

TEST(Socket, flushSucceedsInEveryStateAndClearsTheErrorFlag) {
    TestSocket socket;
    for (auto const state : {Socket::INACTIVE, Socket::OPEN, Socket::DEAD}) {
        socket.set(-1, state);
        socket.setHadError();
        EXPECT_FALSE(socket.performFlush());
        EXPECT_FALSE(socket.hadError());
        for (bool const buffer_only : {false, true}) {
            socket.setHadError();
            EXPECT_FALSE(socket.flush(buffer_only));
            EXPECT_EQ(buffer_only, socket.hadError());
        }
    }
}

TEST(Socket, flushOfANonBlockingStreamFailsWhileThePeerHasNoRoom) {
    ConnectedSocket socket(makeEnds(SOCK_STREAM | SOCK_NONBLOCK), false, 0, 16);
    unsigned int count = 0;
    std::string const block(4096, 'x');
    do {
        ASSERT_EQ(1, socket.write(block.data(), static_cast<unsigned int>(block.size()), count));
    } while (count == block.size());
    // The last bytes stay in the buffer.
    EXPECT_TRUE(socket.flush(false));
    EXPECT_TRUE(chainIs({StreamErrorId::TRANSFER_FAILED}));
    EXPECT_TRUE(socket.hadError());
    // A short write is no failure.
    EXPECT_EQ(1, socket.write(block.data(), static_cast<unsigned int>(block.size()), count));
    EXPECT_FALSE(socket.hadError());
}

TEST(Socket, transfersAllocateNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "a sanitizer allocates for itself";
    }
    for (unsigned int const buffer : {0U, 64U}) {
        ConnectedSocket socket(makeEnds(), true, buffer, buffer);
        char block[128] = {};
        unsigned int count = 0;
        AllocationCounter const allocations;
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(1, socket.write(block, 7, count));
            EXPECT_EQ(1, socket.write(block, sizeof block, count));
            EXPECT_FALSE(socket.flush(false));
            EXPECT_EQ(
                135,
                recv(socket.ends.getPeer(), block, sizeof block, 0) +
                    recv(socket.ends.getPeer(), block, 7, 0));
            EXPECT_EQ(10, send(socket.ends.getPeer(), block, 10, 0));
            EXPECT_EQ(1, socket.read(block, 3, count));
            EXPECT_EQ(1, socket.read(block, sizeof block, count));
        }
        EXPECT_EQ(0, allocations.getCount());
    }
}

/// Reads from a socket whenever it is readable.
class Reader : public vesk::Poller::Client {
public:
    explicit Reader(TestSocket& socket) : m_socket(socket) {}

    int poll_events(int) override { return POLLIN; }
    void read(int fd) override {
        EXPECT_EQ(m_socket.getSocketFd(), fd);
        char block[16];
        unsigned int count = 0;
        m_result = m_socket.read(block, sizeof block, count);
        m_text.append(block, count);
    }
    void error(int) override { ADD_FAILURE() << "the descriptor has failed"; }

    std::string m_text;
    int m_result = -2;

private:
    TestSocket& m_socket;
};

TEST(Socket, canBePolled) {
    ConnectedSocket socket;
    Reader reader(socket);
    vesk::Poller poller;
    poller.add(reader, socket.getSocketFd());
    socket.ends.send("hello");
    while (reader.m_text != "hello") {
        ASSERT_FALSE(poller.poll());
    }
    EXPECT_EQ(1, reader.m_result);
    EXPECT_EQ(0, shutdown(socket.ends.getPeer(), SHUT_WR));
    while (reader.m_result == 1) {
        ASSERT_FALSE(poller.poll());
    }
    EXPECT_EQ(0, reader.m_result);
    EXPECT_TRUE(chainIs({SocketErrorId::CONNECTION_CLOSED, StreamErrorId::END_OF_STREAM}));
}

// ---- the sizes of the buffers ----

/// A buffer's operations.
struct Buffer {
    char const* name;
    char const* getter;
    int option;
    bool (Socket::*set)(unsigned int);
    unsigned int (Socket::*get)() const;
};

constexpr Buffer BUFFERS[] = {
    {"SO_SNDBUF", "getSendBuffer", SO_SNDBUF, &Socket::setSendBuffer, &Socket::getSendBuffer},
    {"SO_RCVBUF", "getRecvBuffer", SO_RCVBUF, &Socket::setRecvBuffer, &Socket::getRecvBuffer},
};

/// Returns a call as a `CallRecorder` shows it for the last socket.
std::string callOf(char const* function, Buffer const& buffer, char const* value) {
    return std::string(function) + "(s, " + buffer.name + ", " + value + ")\n";
}

/// Checks that an operation on each buffer reports a failure once, keeps the state and succeeds afterwards.
template <typename Operation>
void expectFailure(Injected& call, ErrnoRow const& row, Operation const& succeeds) {
    for (Buffer const& buffer : BUFFERS) {
        ConnectedSocket socket;
        Fault const fault(call, row.error);
        EXPECT_FALSE(succeeds(socket, buffer));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(row.reports));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(socket.isValid());

        EXPECT_TRUE(succeeds(socket, buffer));
        EXPECT_FALSE(socket.hadError());
    }
}

VESK_TEST_ROWS(SocketOptionSet, failureIsReportedAndKeepsTheState, setOptionRows()) {
    expectFailure(inject_setsockopt, GetParam(), [](TestSocket& socket, Buffer const& buffer) {
        return !(socket.*buffer.set)(16384);
    });
}

VESK_TEST_ROWS(SocketOptionGet, failureIsReportedAndKeepsTheState, getOptionRows()) {
    expectFailure(inject_getsockopt, GetParam(), [](TestSocket& socket, Buffer const& buffer) {
        return (socket.*buffer.get)() != 0;
    });
}

TEST(SocketOptions, sizeIsSetAsAnInt) {
    for (Buffer const& buffer : BUFFERS) {
        ConnectedSocket socket;
        socket.setHadError();
        CallRecorder calls;
        CallRecorder::s_last_socket = socket.getSocketFd();
        EXPECT_FALSE((socket.*buffer.set)(0x12345));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(callOf("setsockopt", buffer, "45230100"), calls.getText());
        (socket.*buffer.set)(UINT_MAX);
        EXPECT_EQ(callOf("setsockopt", buffer, "ffffffff"), calls.getText());
    }
}

TEST(SocketOptions, sizeThatWasSetIsReturnedAlsoOfAnInactiveSocket) {
    for (bool const tcp : {false, true}) {
        for (Buffer const& buffer : BUFFERS) {
            ConnectedSocket socket(tcp ? makeTcpEnds() : makeEnds());
            EXPECT_FALSE((socket.*buffer.set)(20000));
            socket.setHadError();
            CallRecorder calls;
            CallRecorder::s_last_socket = socket.getSocketFd();
            EXPECT_EQ(20000U, (socket.*buffer.get)());
            EXPECT_FALSE(socket.hadError());
            EXPECT_EQ(callOf("getsockopt", buffer, "4"), calls.getText());
        }
    }
    TestSocket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), Socket::INACTIVE);
    EXPECT_FALSE(socket.setRecvBuffer(20000));
    EXPECT_EQ(20000U, socket.getRecvBuffer());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

TEST(SocketOptions, sizeBeyondTheSystemsLimitsIsReturnedAsGranted) {
    for (Buffer const& buffer : BUFFERS) {
        ConnectedSocket socket;
        for (unsigned int const size : {1U, static_cast<unsigned int>(INT_MAX)}) {
            EXPECT_FALSE((socket.*buffer.set)(size));
            int const granted = getOption(socket.getSocketFd(), SOL_SOCKET, buffer.option);
            EXPECT_EQ(static_cast<unsigned int>(granted / 2), (socket.*buffer.get)());
            EXPECT_NE(size, (socket.*buffer.get)());
        }
    }
}

TEST(SocketOptions, sizeIsHalfOfTheSystemsSignedNumber) {
    ConnectedSocket socket;
    for (auto const& [value, half] : {std::pair(7, 3U), std::pair(1, 0U), std::pair(-7, 0U - 3U)}) {
        PretendedOption const option(value, sizeof(int));
        EXPECT_EQ(half, socket.getSendBuffer());
        EXPECT_EQ(half, socket.getRecvBuffer());
    }
    for (Buffer const& buffer : BUFFERS) {
        std::string const assertion = std::string("ASSERT framework/src/vesk/posix/Socket ") + buffer.getter +
            ": retsize == sizeof(int)";
        for (socklen_t const length : {0U, 2U, 3U, 5U, 8U, 4U}) {
            EventRecorder const events;
            PretendedOption const option(4000, length);
            EXPECT_EQ(2000U, (socket.*buffer.get)()) << "the function continues";
            EXPECT_EQ(length == sizeof(int) ? "" : assertion, events.getText());
        }
    }
    EXPECT_FALSE(socket.hadError());
}

TEST(SocketOptions, withoutADescriptorOfASocketFail) {
    TestSocket socket;
    for (auto const state : {Socket::INACTIVE, Socket::DEAD}) {
        socket.set(-1, state);
        for (Buffer const& buffer : BUFFERS) {
            Fault const set(inject_setsockopt, 0);
            Fault const get(inject_getsockopt, 0);
            errno = EXDEV;
            EXPECT_TRUE((socket.*buffer.set)(16384));
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, EXDEV));
            errno = EXDEV;
            EXPECT_EQ(0U, (socket.*buffer.get)());
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, EXDEV));
            EXPECT_EQ(0, set.getCalls() + get.getCalls());
        }
    }
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    {
        TestSocket pipe_end(ends[0]);
        EXPECT_TRUE(pipe_end.setSendBuffer(16384));
        EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, ENOTSOCK));
        EXPECT_EQ(0U, pipe_end.getRecvBuffer());
        EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, ENOTSOCK));
    }
    close(ends[1]);
}

} // namespace
