#include "TestSocket.h"
#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <vesk/Poller.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <type_traits>

namespace {

using support::chainIs;
using support::Ends;
using support::EventRecorder;
using support::makeEnds;
using support::New;
using support::NewFault;
using support::rowText;
using support::systemText;
using support::TestSocket;
using vesk::Socket;
using StreamBase = std::IBinStreamBase;

static_assert(std::is_base_of_v<std::IBinInOutStream, Socket>);
static_assert(std::is_base_of_v<tarnbase::NonCopyable, Socket>);
static_assert(std::is_abstract_v<std::IBinInOutStream>);
static_assert(!std::is_copy_constructible_v<TestSocket> && !std::is_copy_assignable_v<TestSocket>);
static_assert(!std::is_constructible_v<Socket, bool, unsigned int, unsigned int>);
static_assert(std::is_destructible_v<Socket> && std::has_virtual_destructor_v<Socket>);
static_assert(std::is_same_v<std::underlying_type_t<Socket::State>, uint32_t>);
static_assert(Socket::INACTIVE == 0 && Socket::OPEN == 1 && Socket::DEAD == 2);
static_assert(Socket::INVALID_SOCKET_FD == -1);

// ---- What it is ----

/// Shows the operations that only subclasses see, and that there is nothing else between the told ones.
struct Operations : Socket {
    static void look() {
        EXPECT_EQ(2, support::getSlot(&Operations::isValid)) << "behind the two of the destructor";
        EXPECT_EQ(3, support::getSlot(&Operations::checkReadBufferConsistency));
        EXPECT_EQ(4, support::getSlot(&Operations::performRead));
        EXPECT_EQ(5, support::getSlot(&Operations::performWrite));
        EXPECT_EQ(6, support::getSlot(&Operations::performFlush));
    }
};

TEST(Socket, virtualOperationsStandInTheirOrder) {
    Operations::look();
}

/// The side of the object that a user of `std::IBinOutputStream` calls.
struct OutputOperations : std::IBinOutputStream {
    static void look() {
        EXPECT_EQ(2, support::getSlot(&OutputOperations::isValid));
        EXPECT_EQ(3, support::getSlot(&OutputOperations::checkWriteBufferConsistency));
        EXPECT_EQ(4, support::getSlot(&OutputOperations::performWrite));
        EXPECT_EQ(5, support::getSlot(&OutputOperations::performFlush));
    }
};

TEST(Socket, outputSideHasItsOwnOrder) {
    OutputOperations::look();
}

/// Shows the fields in the order in which they lie.
struct Fields : Socket {
    Fields() : Socket(true, 0, 0) { m_object_valid = false; }

    void look() const {
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

TEST(Socket, fieldsLieInTheirOrder) {
    Fields().look();
}

TEST(Socket, hasAnErrorFamilyOfItsOwnBelowTheSystems) {
    char const* const formats[] = {
        "Invalid socket encountered: %s",
        "Unknown socket option: %s",
        "Invalid socket option: %s",
        "Creating socket failed: %s",
        "Socket address busy: %s",
        "Socket address invalid: %s",
        "Connection has been reset: %s",
        "Peer is not reachable: %s",
        "Network is unavailable: %s",
        "Resolve operation failed: %s",
        "Communication failed: %s",
        "Connection closed: %s",
        "Message too big: %s",
    };
    for (int id = 0; id < static_cast<int>(std::size(formats)); ++id) {
        ASSERT_NE(nullptr, Socket::Error.getRow(id)) << id;
        EXPECT_EQ(id, Socket::Error.getRow(id)->id);
        EXPECT_STREQ(formats[id], Socket::Error.getRow(id)->format);
        EXPECT_EQ(1, Socket::Error.getRow(id)->nargs);
    }
    EXPECT_EQ(nullptr, Socket::Error.getRow(13));
    EXPECT_TRUE(Socket::Error.isA(vesk::SysError));
    EXPECT_FALSE(vesk::SysError.isA(Socket::Error));
}

// ---- Construction ----

TEST(Socket, newOneIsInactiveAndHasNoDescriptor) {
    TestSocket const socket(true, 0, 0);
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_TRUE(socket.isBlocking());
    EXPECT_FALSE(socket.isInputBuffered());
    EXPECT_FALSE(socket.isOutputBuffered());
    EXPECT_TRUE(chainIs({}));
}

TEST(Socket, blockingModeIsOneForBothDirections) {
    EXPECT_FALSE(TestSocket(false, 0, 0).isBlocking());
    EXPECT_FALSE(TestSocket(false, 16, 16).isBlocking());
    EXPECT_TRUE(TestSocket(true, 16, 16).isBlocking());
}

TEST(Socket, eachDirectionHasTheBufferItWasMadeWith) {
    {
        NewFault const allocations(New::NOTHROW_ARRAY, 1, 0);
        TestSocket const socket(true, 100, 200);
        EXPECT_EQ((std::vector<size_t>{100, 200}), allocations.getSizes());
        EXPECT_TRUE(socket.isInputBuffered());
        EXPECT_TRUE(socket.isOutputBuffered());
    }
    {
        TestSocket const reader(true, 100, 0);
        EXPECT_TRUE(reader.isInputBuffered());
        EXPECT_FALSE(reader.isOutputBuffered());
        EXPECT_TRUE(reader.isValid());
    }
    TestSocket const writer(true, 0, 100);
    EXPECT_FALSE(writer.isInputBuffered());
    EXPECT_TRUE(writer.isOutputBuffered());
    EXPECT_TRUE(writer.isValid());
}

TEST(Socket, withoutMemoryForABufferItIsInvalidAndGoesSilently) {
    for (int const nth : {1, 2}) {
        EventRecorder const events;
        {
            NewFault const fault(New::NOTHROW_ARRAY, nth);
            TestSocket const socket(true, 100, 200);
            EXPECT_EQ(2, fault.getCalls());
            EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
            EXPECT_FALSE(socket.isValid());
            EXPECT_EQ(Socket::INACTIVE, socket.getState());
            EXPECT_EQ(-1, socket.getSocketFd());
        }
        EXPECT_EQ("", events.getText());
    }
}

TEST(Socket, withoutItsBufferADirectionCannotBeUsed) {
    Ends ends = makeEnds();
    for (int const nth : {1, 2}) {
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        TestSocket socket(true, 100, 200);
        EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
        socket.set(ends.getPeer(), Socket::OPEN);
        char byte = 0;
        unsigned int count = 9;
        if (nth == 1) {
            EXPECT_EQ(-1, socket.read(&byte, 1, count));
        } else {
            EXPECT_EQ(-1, socket.write(&byte, 1, count));
        }
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::OUT_OF_MEMORY},
             {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
        socket.forget();
    }
}

// ---- Validity ----

TEST(Socket, isValidInEveryStateButDead) {
    TestSocket socket;
    EXPECT_TRUE(socket.isValid());
    socket.set(-1, Socket::OPEN);
    EXPECT_TRUE(socket.isValid()) << "it looks at the state and not at the descriptor";
    socket.forget();
    EXPECT_FALSE(socket.isValid());
}

TEST(Socket, isNotValidWhenAConstructorFailed) {
    TestSocket socket;
    socket.setValid(false);
    EXPECT_FALSE(socket.isValid());
}

TEST(Socket, isNotValidWithoutABufferWhateverElseIsSo) {
    for (int const nth : {1, 2}) {
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        TestSocket socket(true, 100, 200);
        EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
        socket.set(-1, Socket::OPEN);
        socket.setValid(true);
        EXPECT_FALSE(socket.isValid());
        socket.forget();
    }
}

TEST(Socket, checkOfASocketWithADescriptorClearsTheFlag) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine(), Socket::INACTIVE);
    socket.setHadError();
    TestSocket const& constant = socket;
    EXPECT_FALSE(constant.checkValidSocket());
    EXPECT_FALSE(constant.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(Socket, checkOfASocketWithoutADescriptorFailsWithWhateverErrnoIs) {
    TestSocket socket;
    TestSocket const& constant = socket;
    for (auto const state : {Socket::INACTIVE, Socket::OPEN, Socket::DEAD}) {
        socket.set(-1, state);
        errno = EXDEV;
        EXPECT_TRUE(constant.checkValidSocket());
        EXPECT_TRUE(constant.hadError());
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::INVALID_SOCKET,
              rowText(Socket::ErrorId::INVALID_SOCKET, systemText(EXDEV))}}));
        EXPECT_EQ(state, socket.getState());
    }
    errno = 0;
    EXPECT_TRUE(constant.checkValidSocket());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::INVALID_SOCKET, rowText(Socket::ErrorId::INVALID_SOCKET, systemText(0))}}));
}

// ---- Destruction ----

/// A socket whose class forgets to close.
class Forgetful : public Socket {
public:
    Forgetful(int fd, State state, bool valid) : Socket(true, 0, 0) {
        m_socket_handle.socket_fd = fd;
        m_socket_state = state;
        m_object_valid = valid;
    }
};

constexpr char const* OPEN_DESCRIPTOR = "ASSERT framework/src/vesk/posix/Socket ~Socket: "
                                        "m_socket_handle.socket_fd == INVALID_SOCKET_FD";
constexpr char const* NOT_DEAD = "ASSERT framework/src/vesk/posix/Socket ~Socket: m_socket_state == DEAD";

std::string whatTheEndOf(int fd, Socket::State state, bool valid) {
    EventRecorder const events;
    { Forgetful const socket(fd, state, valid); }
    return events.getText();
}

TEST(Socket, thatWasNotClosedAssertsTheDescriptorAndThenTheState) {
    std::string const both = std::string(OPEN_DESCRIPTOR) + "\n" + NOT_DEAD;
    EXPECT_EQ(both, whatTheEndOf(1, Socket::OPEN, true));
    EXPECT_EQ(both, whatTheEndOf(1, Socket::INACTIVE, true));
    EXPECT_EQ(OPEN_DESCRIPTOR, whatTheEndOf(1, Socket::DEAD, true));
    EXPECT_EQ(NOT_DEAD, whatTheEndOf(-1, Socket::OPEN, true));
    EXPECT_EQ(NOT_DEAD, whatTheEndOf(-1, Socket::INACTIVE, true));
    EXPECT_NE(-1, fcntl(1, F_GETFD)) << "it closes nothing";
}

TEST(Socket, thatWasClosedOrIsInvalidGoesSilently) {
    EXPECT_EQ("", whatTheEndOf(-1, Socket::DEAD, true));
    EXPECT_EQ("", whatTheEndOf(-1, Socket::DEAD, false));
    EXPECT_EQ("", whatTheEndOf(1, Socket::OPEN, false));
    EXPECT_EQ("", whatTheEndOf(-1, Socket::INACTIVE, false));
    EXPECT_NE(-1, fcntl(1, F_GETFD));
}

TEST(Socket, isOwnedThroughItsRoot) {
    EventRecorder const events;
    Ends ends = makeEnds();
    int const fd = ends.takeMine();
    { std::unique_ptr<Socket> const owner = std::make_unique<TestSocket>(fd); }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ("", events.getText());
}

// ---- Two threads ----

// What `hadError` tells is the outcome of either. The thread sanitizer sees a race, if there is one.
TEST(Socket, isReadByOneThreadAndWrittenByAnother) {
    constexpr int COUNT = 2000;
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    std::thread echo([peer = ends.getPeer()] {
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
    EXPECT_TRUE(chainIs({}));
}

// ---- As a stream ----

TEST(Socket, flushOfItsOwnDoesNothingInAnyState) {
    TestSocket socket;
    for (auto const state : {Socket::INACTIVE, Socket::OPEN, Socket::DEAD}) {
        socket.set(-1, state);
        socket.setHadError();
        EXPECT_FALSE(socket.performFlush());
        EXPECT_FALSE(socket.hadError());
        socket.setHadError();
        EXPECT_FALSE(socket.flush(false));
        EXPECT_FALSE(socket.hadError());
        socket.setHadError();
        EXPECT_FALSE(socket.flush(true));
        EXPECT_TRUE(socket.hadError()) << "flushing the buffer only does not get there";
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(Socket, carriesBuffersBothWaysAsTheStreamThatItIs) {
    Ends ends = makeEnds();
    TestSocket socket(true, 64, 64);
    socket.set(ends.takeMine(), Socket::OPEN);
    std::IBinInOutStream& stream = socket;
    unsigned int count = 0;
    EXPECT_EQ(1, stream.write("abc", 3, count));
    EXPECT_EQ(1, stream.write("def", 3, count));
    EXPECT_EQ(3U, count);
    EXPECT_EQ(-1, recv(ends.getPeer(), &count, sizeof count, MSG_DONTWAIT)) << "it waits in the buffer";
    EXPECT_FALSE(stream.flush(false));
    EXPECT_EQ("abcdef", ends.receive(16));

    ends.send("123456");
    char block[4] = {};
    EXPECT_EQ(1, stream.read(block, 2, count));
    EXPECT_EQ("12", std::string(block, count));
    EXPECT_EQ(-1, recv(socket.getSocketFd(), block, 1, MSG_DONTWAIT)) << "the rest was read ahead";
    EXPECT_EQ(1, stream.read(block, 4, count));
    EXPECT_EQ("3456", std::string(block, count));
}

TEST(Socket, flushFailsWhenThePeerTakesNoMoreFromAStreamThatDoesNotWait) {
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    TestSocket socket(false, 0, 16);
    socket.set(ends.takeMine(), Socket::OPEN);
    unsigned int count = 0;
    std::string const block(4096, 'x');
    do {
        ASSERT_EQ(1, socket.write(block.data(), static_cast<unsigned int>(block.size()), count));
    } while (count == block.size());
    // The last ones are in the buffer, and stay there.
    EXPECT_TRUE(socket.flush(false));
    EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_TRUE(socket.hadError());
    // A write that is only short is no failure.
    EXPECT_EQ(1, socket.write(block.data(), static_cast<unsigned int>(block.size()), count));
    EXPECT_FALSE(socket.hadError());
}

TEST(Socket, transfersAllocateNothing) {
    if (!support::COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "a sanitizer allocates for itself";
    }
    for (unsigned int const buffer : {0U, 64U}) {
        Ends ends = makeEnds();
        TestSocket socket(true, buffer, buffer);
        socket.set(ends.takeMine(), Socket::OPEN);
        char block[128] = {};
        unsigned int count = 0;
        support::AllocationCounter const allocations;
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(1, socket.write(block, 7, count));
            EXPECT_EQ(1, socket.write(block, sizeof block, count));
            EXPECT_FALSE(socket.flush(false));
            EXPECT_EQ(135, recv(ends.getPeer(), block, sizeof block, 0) + recv(ends.getPeer(), block, 7, 0));
            EXPECT_EQ(10, send(ends.getPeer(), block, 10, 0));
            EXPECT_EQ(1, socket.read(block, 3, count));
            EXPECT_EQ(1, socket.read(block, sizeof block, count));
        }
        EXPECT_EQ(0, allocations.getCount());
    }
}

/// Reads what comes for a socket, until its end.
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

    std::string const& getText() const { return m_text; }
    int getResult() const { return m_result; }

private:
    TestSocket& m_socket;
    std::string m_text;
    int m_result = -2;
};

TEST(Socket, canBeWatchedByAPoller) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    Reader reader(socket);
    vesk::Poller poller;
    poller.add(reader, socket.getSocketFd());
    ends.send("hello");
    while (reader.getText() != "hello") {
        ASSERT_FALSE(poller.poll());
    }
    EXPECT_EQ(1, reader.getResult());
    EXPECT_EQ(0, shutdown(ends.getPeer(), SHUT_WR));
    while (reader.getResult() == 1) {
        ASSERT_FALSE(poller.poll());
    }
    EXPECT_EQ(0, reader.getResult());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::CONNECTION_CLOSED},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
}

} // namespace
