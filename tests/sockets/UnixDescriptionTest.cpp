#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/TempFolder.h"
#include "support/calls/UnixCalls.h"

#include <tarncommon/error/CommonError.h>

#include <thread>
#include <type_traits>
#include <utility>

namespace {

using support::chainIs;
using support::Fault;
using support::s_unix_calls;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnixServerSocket;
using vesk::UnixSocket;
using vesk::UnixSocketBase;

using Description = UnixSocket::Description;

static_assert(!std::is_copy_constructible_v<Description> && !std::is_copy_assignable_v<Description>);
static_assert(std::is_nothrow_move_constructible_v<Description>);
static_assert(std::is_nothrow_move_assignable_v<Description>);
static_assert(sizeof(Description::local_binary) == 110 && sizeof(Description::peer_binary) == 110);
static_assert(std::is_same_v<decltype(Description::local_path), vesk::Path>);

constexpr char const* INVALID = "Tried to construct UnixSocket from invalid description";
constexpr char const* WARNING =
    "WARNING framework/src/vesk/posix/UnixSocket ~Description: unknown error closing socket FD";

bool isZero(sockaddr_un const& address) {
    sockaddr_un const zero{};
    return memcmp(&address, &zero, sizeof zero) == 0;
}

bool isEmpty(Description const& description) {
    return !description.valid && description.socket_fd == -1 && isZero(description.local_binary) &&
        isZero(description.peer_binary) && description.local_path.empty() &&
        description.name_space == UnixSocketBase::FILESYSTEM;
}

/// A server with a client that it has not accepted yet.
class UnixDescriptionTest : public testing::Test {
protected:
    void SetUp() override {
        m_server.enableListen(4);
        ASSERT_FALSE(m_server.hadError());
        ASSERT_FALSE(m_client.connect());
    }
    void TearDown() override {
        EXPECT_FALSE(m_client.close(false));
        EXPECT_FALSE(m_server.close(false));
    }

    std::string const m_name = support::makeAbstractName();
    UnixServerSocket m_server{m_name, true, UnixSocketBase::ABSTRACT};
    UnixSocket m_client{true, 0, 0, "", m_name, UnixSocketBase::ABSTRACT};
};

TEST(UnixDescription, anEmptyOneOwnsNothing) {
    Fault const closes(inject_close, 0);
    {
        Description const description;
        EXPECT_TRUE(isEmpty(description));
    }
    EXPECT_EQ(0, closes.getCalls());
}

TEST_F(UnixDescriptionTest, tellsOfTheConnectionAndOfTheServer) {
    Description const description = m_server.acceptConnection();
    EXPECT_TRUE(description.valid);
    EXPECT_TRUE(support::isOpenDescriptor(description.socket_fd));
    EXPECT_TRUE(isZero(description.local_binary));
    EXPECT_EQ(AF_UNIX, description.peer_binary.sun_family);
    EXPECT_EQ(m_name, description.local_path);
    EXPECT_EQ(UnixSocketBase::ABSTRACT, description.name_space);
}

TEST(UnixDescription, hasTheAddressOfAPeerWithAPath) {
    support::TempFolder const folder;
    support::UnixConnection connection(true, 0, folder / "server", UnixSocketBase::FILESYSTEM);
    UnixSocket named(true, 0, 0, folder / "client", folder / "server", UnixSocketBase::FILESYSTEM);
    ASSERT_FALSE(named.connect());
    Description const description = connection.server.acceptConnection();
    EXPECT_EQ(AF_UNIX, description.peer_binary.sun_family);
    EXPECT_EQ(folder / "client", description.peer_binary.sun_path);
    EXPECT_TRUE(isZero(description.local_binary));
    EXPECT_EQ(folder / "server", description.local_path);
    EXPECT_EQ(UnixSocketBase::FILESYSTEM, description.name_space);
    EXPECT_FALSE(named.close(false));
}

TEST_F(UnixDescriptionTest, hasTheAddressOfAPeerWithAnAbstractName) {
    std::string const name = support::makeAbstractName();
    UnixSocket named(true, 0, 0, name, m_name, UnixSocketBase::ABSTRACT);
    ASSERT_FALSE(named.connect());
    Description const unnamed = m_server.acceptConnection();
    Description const description = m_server.acceptConnection();
    EXPECT_EQ(
        support::abstractAddress(name),
        support::bytesOf(&description.peer_binary, static_cast<socklen_t>(name.size() + 3)));
    EXPECT_FALSE(named.close(false));
}

TEST_F(UnixDescriptionTest, itsDescriptorIsClosedByExecAndWaits) {
    UnixServerSocket server(support::makeAbstractName(), false, UnixSocketBase::ABSTRACT);
    server.enableListen(4);
    UnixSocket client(true, 0, 0, "", server.getLocalPath(), UnixSocketBase::ABSTRACT);
    ASSERT_FALSE(client.connect());
    Description const description = server.acceptConnection();
    ASSERT_TRUE(description.valid);
    EXPECT_EQ(FD_CLOEXEC, fcntl(description.socket_fd, F_GETFD));
    EXPECT_EQ(0, fcntl(description.socket_fd, F_GETFL) & O_NONBLOCK)
        << "that is the adopting socket's choice";
    EXPECT_FALSE(client.close(false));
    EXPECT_FALSE(server.close(false));
}

TEST_F(UnixDescriptionTest, thatNobodyAdoptsClosesItsConnection) {
    int fd = -1;
    {
        Description const description = m_server.acceptConnection();
        fd = description.socket_fd;
    }
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_TRUE(support::isAtEnd(m_client));
}

TEST_F(UnixDescriptionTest, leavesAnEmptyOneWhenItMoves) {
    Description first = m_server.acceptConnection();
    int const fd = first.socket_fd;
    Description const second(std::move(first));
    EXPECT_TRUE(isEmpty(first));
    EXPECT_TRUE(second.valid);
    EXPECT_EQ(fd, second.socket_fd);
    EXPECT_EQ(AF_UNIX, second.peer_binary.sun_family);
    EXPECT_EQ(m_name, second.local_path);
    EXPECT_EQ(UnixSocketBase::ABSTRACT, second.name_space);
    EXPECT_TRUE(support::isOpenDescriptor(fd));
}

TEST_F(UnixDescriptionTest, closesWhatItHadWhenAnotherIsAssigned) {
    UnixSocket other(true, 0, 0, "", m_name, UnixSocketBase::ABSTRACT);
    ASSERT_FALSE(other.connect());
    Description first = m_server.acceptConnection();
    Description second = m_server.acceptConnection();
    int const fds[] = {first.socket_fd, second.socket_fd};
    first = std::move(second);
    EXPECT_TRUE(isEmpty(second));
    EXPECT_EQ(fds[1], first.socket_fd);
    EXPECT_FALSE(support::isOpenDescriptor(fds[0]));
    EXPECT_TRUE(support::isOpenDescriptor(fds[1]));
    EXPECT_TRUE(support::isAtEnd(m_client));
    first = Description();
    EXPECT_TRUE(isEmpty(first));
    EXPECT_TRUE(support::isAtEnd(other));
    EXPECT_FALSE(other.close(false));
}

TEST_F(UnixDescriptionTest, survivesTheAssignmentToItself) {
    Description description = m_server.acceptConnection();
    Description& same = description;
    description = std::move(same);
    EXPECT_TRUE(description.valid);
    EXPECT_TRUE(support::isOpenDescriptor(description.socket_fd));
    EXPECT_EQ(m_name, description.local_path);
}

TEST_F(UnixDescriptionTest, isAdoptedThroughAConstantReference) {
    Description const description = m_server.acceptConnection();
    UnixSocket socket(true, 0, 0, description);
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_FALSE(description.valid);
    EXPECT_EQ(description.socket_fd, socket.getSocketFd());
    EXPECT_EQ(m_name, socket.getLocalPath());
    EXPECT_EQ("", socket.getPeerPath()) << "the client has no name";
    EXPECT_EQ(UnixSocketBase::ABSTRACT, socket.getNameSpace());
    EXPECT_TRUE(support::sends(socket, "hello"));
    EXPECT_TRUE(support::receives(m_client, "hello"));
    EXPECT_FALSE(socket.close(false));
}

TEST_F(UnixDescriptionTest, givesItsAddressesToTheSocketThatAdoptsIt) {
    class TestedSocket : public UnixSocket {
    public:
        using UnixSocket::m_bound;
        using UnixSocket::m_local_binary;
        using UnixSocket::m_local_length;
        using UnixSocket::m_peer_binary;
        using UnixSocket::m_peer_length;
        using UnixSocket::UnixSocket;
    };
    Description description = m_server.acceptConnection();
    memset(&description.local_binary, 'l', sizeof description.local_binary);
    memset(&description.peer_binary, 'p', sizeof description.peer_binary);
    TestedSocket socket(true, 0, 0, description);
    EXPECT_EQ(std::string(110, 'l'), support::bytesOf(&socket.m_local_binary, 110));
    EXPECT_EQ(std::string(110, 'p'), support::bytesOf(&socket.m_peer_binary, 110));
    EXPECT_EQ(0U, socket.m_local_length);
    EXPECT_EQ(0U, socket.m_peer_length);
    EXPECT_FALSE(socket.m_bound);
    EXPECT_FALSE(socket.close(false));
}

TEST_F(UnixDescriptionTest, thatWasAdoptedLeavesTheDescriptorAlone) {
    std::unique_ptr<UnixSocket> socket;
    {
        Description const description = m_server.acceptConnection();
        socket = std::make_unique<UnixSocket>(true, 0, 0, description);
    }
    EXPECT_TRUE(support::sends(*socket, "hello"));
    EXPECT_TRUE(support::receives(m_client, "hello"));
    EXPECT_FALSE(socket->close(false));
}

TEST_F(UnixDescriptionTest, cannotBeAdoptedTwice) {
    Description const description = m_server.acceptConnection();
    UnixSocket first(true, 0, 0, description);
    {
        UnixSocket const second(true, 0, 0, description);
        EXPECT_TRUE(support::misuseIs(INVALID));
        EXPECT_FALSE(second.isValid());
        EXPECT_EQ(-1, second.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, second.getState());
    }
    EXPECT_TRUE(support::sends(first, "still mine"));
    EXPECT_TRUE(support::receives(m_client, "still mine"));
    EXPECT_FALSE(first.close(false));
}

TEST(UnixDescription, anEmptyOneCannotBeAdopted) {
    Fault const flags(inject_getfl, 0);
    UnixSocket const socket(false, 0, 0, Description());
    EXPECT_TRUE(support::misuseIs(INVALID));
    EXPECT_FALSE(socket.isValid());
    EXPECT_EQ(0, flags.getCalls());
}

TEST_F(UnixDescriptionTest, canBeAdoptedBySocketsThatDoNotWait) {
    UnixSocket socket(false, 0, 0, m_server.acceptConnection());
    EXPECT_TRUE(chainIs({}));
    EXPECT_NE(0, fcntl(socket.getSocketFd(), F_GETFL) & O_NONBLOCK);
    char byte = 0;
    unsigned int count = 99;
    EXPECT_EQ(1, socket.read(&byte, 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_FALSE(socket.close(false));
}

TEST_F(UnixDescriptionTest, staysValidWhenThereIsNoMemoryForABuffer) {
    Description const description = m_server.acceptConnection();
    {
        support::NewFault const fault(support::New::NOTHROW_ARRAY);
        UnixSocket const socket(true, 64, 0, description);
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_TRUE(description.valid);
    EXPECT_TRUE(support::isOpenDescriptor(description.socket_fd));
}

class UnixDescriptionFlags : public UnixDescriptionTest,
                             public testing::WithParamInterface<support::Injected*> {};

TEST_P(UnixDescriptionFlags, thatCannotBeSetLeaveTheDescriptorToTheDescription) {
    support::EventRecorder const events;
    int fd = -1;
    {
        Description const description = m_server.acceptConnection();
        fd = description.socket_fd;
        Fault const closes(inject_close, 0);
        {
            Fault const fault(*GetParam(), EINVAL);
            UnixSocket const socket(false, 0, 0, description);
            EXPECT_TRUE(support::failureIs({EINVAL, SysError, SysErrorId::UNCLASSIFIED}));
            EXPECT_FALSE(socket.isValid());
            EXPECT_EQ(Socket::DEAD, socket.getState());
            EXPECT_EQ(-1, socket.getSocketFd());
        }
        EXPECT_EQ(0, closes.getCalls());
        EXPECT_TRUE(description.valid);
        EXPECT_TRUE(support::isOpenDescriptor(fd));
        // It can be adopted all the same, as one that waits.
        UnixSocket socket(true, 0, 0, description);
        EXPECT_TRUE(socket.isValid());
        EXPECT_TRUE(support::sends(socket, "hello"));
        EXPECT_TRUE(support::receives(m_client, "hello"));
        EXPECT_FALSE(socket.close(false));
        EXPECT_EQ(1, closes.getCalls());
    }
    EXPECT_EQ("", events.getText());
}

TEST_P(UnixDescriptionFlags, thatCannotBeSetLeadToOneCloseByTheDescription) {
    support::EventRecorder const events;
    Description description = m_server.acceptConnection();
    int const fd = description.socket_fd;
    {
        Fault const fault(*GetParam(), EIO);
        UnixSocket const socket(false, 0, 0, description);
        EXPECT_TRUE(support::failureIs({EIO, SysError, SysErrorId::UNCLASSIFIED}));
    }
    Fault const closes(inject_close, 0);
    description = Description();
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_TRUE(support::isAtEnd(m_client));
    EXPECT_EQ("", events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    calls, UnixDescriptionFlags, testing::Values(&inject_getfl, &inject_setfl), support::flagCallName);

TEST_F(UnixDescriptionTest, closesAgainAfterASignalWithoutAWord) {
    support::EventRecorder const events;
    Description description = m_server.acceptConnection();
    int const fd = description.socket_fd;
    Fault const fault(inject_close, EINTR, 1, 3);
    description = Description();
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_EQ("", events.getText());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
}

class UnixDescriptionClose : public UnixDescriptionTest, public testing::WithParamInterface<int> {};

TEST_P(UnixDescriptionClose, failureIsAWarningEachTimeAndIsTriedAgain) {
    support::EventRecorder const events;
    Description description = m_server.acceptConnection();
    int const fd = description.socket_fd;
    Fault const fault(inject_close, GetParam(), 1, 2);
    description = Description();
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_EQ(std::string(WARNING) + "\n" + WARNING, events.getText());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(errors, UnixDescriptionClose, testing::Values(EBADF, EIO, ENOSPC));

TEST_F(UnixDescriptionTest, canBeServedByAnotherThread) {
    Description description = m_server.acceptConnection();
    std::thread worker([taken = std::move(description)] {
        UnixSocket socket(true, 16, 16, taken);
        EXPECT_TRUE(support::receives(socket, "question"));
        EXPECT_TRUE(support::sends(socket, "answer"));
        EXPECT_FALSE(socket.close(true));
    });
    EXPECT_TRUE(isEmpty(description));
    EXPECT_TRUE(support::sends(m_client, "question"));
    EXPECT_TRUE(support::receives(m_client, "answer"));
    EXPECT_TRUE(support::isAtEnd(m_client));
    worker.join();
}

TEST(UnixDescription, adoptedSocketLeavesTheFileToTheServer) {
    support::TempFolder const folder;
    support::UnixConnection connection(true, 0, folder / "server", UnixSocketBase::FILESYSTEM);
    Fault const removals(inject_unlink, 0);
    EXPECT_FALSE(connection.accepted->close(true));
    EXPECT_EQ(0, removals.getCalls());
    EXPECT_TRUE(support::isSocketFile(folder / "server"));
    UnixSocket another(true, 0, 0, "", folder / "server", UnixSocketBase::FILESYSTEM);
    EXPECT_FALSE(another.connect()) << "the server goes on";
    EXPECT_FALSE(another.close(false));
}

} // namespace
