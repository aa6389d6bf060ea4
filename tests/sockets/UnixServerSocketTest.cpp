#include "StreamSocketSupport.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <type_traits>

/// What Unix servers do and TCP servers do not: names and files. The rest is in StreamServerSocketTest.cpp.

namespace {

using namespace support;

constexpr auto ABSTRACT = UnixSocketBase::ABSTRACT;
constexpr auto FILESYSTEM = UnixSocketBase::FILESYSTEM;

static_assert(std::is_base_of_v<UnixSocketBase, UnixServerSocket>);
static_assert(!std::is_copy_constructible_v<UnixServerSocket>);

ErrorRow const IN_USE(Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE);

testing::AssertionResult listens(UnixServer& server, unsigned int backlog = 4) {
    server.enableListen(backlog);
    return succeeded(server, Socket::OPEN);
}

/// Returns whether a client of plain system calls can connect to an address.
bool isReached(std::string const& address) {
    int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool const reached = withAddress(connect, fd, address) == 0;
    close(fd);
    return reached;
}

class UnixServerSocketFile : public testing::Test {
protected:
    TempFolder const m_folder;
    std::string const m_own = m_folder / "own";
};

// ---- Names ----

TEST(UnixServerSocket, withAnAbstractNameOfOneLetterBindsFourBytesAndCreatesNoFile) {
    // One of the letters is free, also if other runs of this test use the rest.
    for (std::string const letter : {"v", "w", "x", "y", "z"}) {
        UnixServer server(letter, true, ABSTRACT);
        server.enableListen(1);
        if (server.hadError()) {
            EXPECT_TRUE(causeIs(IN_USE));
            continue;
        }
        EXPECT_EQ(4U, s_calls.bind_length);
        EXPECT_EQ(abstractAddress(letter), s_calls.bound);
        if (keepsAddresses()) {
            EXPECT_EQ(abstractAddress(letter), addressOf(server.getSocketFd()));
        }
        EXPECT_FALSE(isSocketFile(letter));
        Process child([&] {
            UnixClient client(true, 0, 0, "", letter, ABSTRACT);
            EXPECT_FALSE(client.connect());
            writeTo(client, "met");
            EXPECT_FALSE(client.close(true));
        });
        EXPECT_EQ("met", readFrom(*acceptSocket(server), 3));
        EXPECT_EQ(0, child.join());
        Fault const removals(inject_unlink, 0);
        EXPECT_FALSE(server.close(false));
        EXPECT_EQ(0, removals.getCalls());
        UnixServer next(letter, true, ABSTRACT);
        EXPECT_TRUE(listens(next)) << "the name has ended with its socket";
        return;
    }
    FAIL() << "none of the names was free";
}

class UnixServerSocketName : public testing::TestWithParam<size_t> {};

TEST_P(UnixServerSocketName, thatIsAbstractIsBoundExactly) {
    std::string name = makeName() + "-\x80\xff\1\n ";
    name.resize(GetParam(), 'n');
    UnixServer server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(GetParam() + 3, s_calls.bind_length);
    EXPECT_EQ(abstractAddress(name), s_calls.bound);
    if (keepsAddresses()) {
        EXPECT_EQ(abstractAddress(name), addressOf(server.getSocketFd()));
        EXPECT_TRUE(isReached(abstractAddress(name)));
        EXPECT_FALSE(isReached(abstractAddress(name + '\0'))) << "no zero follows the name";
        EXPECT_FALSE(isReached(abstractAddress(name.substr(0, name.size() - 1))));
    }
}

INSTANTIATE_TEST_SUITE_P(
    lengths, UnixServerSocketName, testing::Values(40, 104, 105, 106), testing::PrintToStringParamName());

TEST(UnixServerSocket, withAnAbstractNameOf107BytesBindsOneThatEndsInAZero) {
    std::string name = makeName();
    name.resize(107, 'n');
    std::string const cut = name.substr(0, 106) + '\0';
    UnixServer server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(110U, s_calls.bind_length);
    EXPECT_EQ(abstractAddress(cut), s_calls.bound);
    EXPECT_EQ(abstractAddress(cut), addressOf(server.getSocketFd()));
    UnixClient client(true, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(client.connect()) << "the name of the client ends in the same way";
    EXPECT_EQ(cut, client.getPeerPath());
}

class UnixServerSocketPath : public UnixServerSocketFile, public testing::WithParamInterface<size_t> {};

TEST_P(UnixServerSocketPath, isTheNameOfAFileOfUpTo107Bytes) {
    std::string path = m_own;
    path.resize(GetParam(), 'p');
    UnixServer server(path, true, FILESYSTEM);
    EXPECT_FALSE(isSocketFile(path));
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(GetParam() + 3, s_calls.bind_length);
    EXPECT_TRUE(isSocketFile(path));
    UnixClient client(true, 0, 0, "", path, FILESYSTEM);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(GetParam() + 3, s_calls.connect_length);
    EXPECT_EQ(path, client.getPeerPath());
    EXPECT_FALSE(server.close(false));
    EXPECT_FALSE(isSocketFile(path));
}

INSTANTIATE_TEST_SUITE_P(
    lengths, UnixServerSocketPath, testing::Values(60, 105, 106, 107), testing::PrintToStringParamName());

TEST_F(UnixServerSocketFile, isAnAddressInUseAfterItsProcessHasCrashed) {
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        std::string const name = name_space == ABSTRACT ? makeName() : m_own;
        Process child([&] {
            UnixServer server(name, true, name_space);
            EXPECT_TRUE(listens(server));
            raise(SIGKILL);
        });
        EXPECT_EQ(-1, child.join());
        if (name_space == FILESYSTEM) {
            UnixServer server(name, true, name_space);
            EXPECT_TRUE(failsToListen(server, IN_USE));
            EXPECT_TRUE(isSocketFile(name)) << "it is not removed";
            ASSERT_EQ(0, unlink(name.c_str()));
        }
        UnixServer next(name, true, name_space);
        EXPECT_TRUE(listens(next)) << "an abstract name is free at once";
    }
}

TEST_F(UnixServerSocketFile, doesNotShareItsNameWithAbstractSockets) {
    UnixServer by_path(m_own, true, FILESYSTEM);
    UnixServer by_name(m_own, true, ABSTRACT);
    EXPECT_TRUE(listens(by_path));
    EXPECT_TRUE(listens(by_name));
    UnixClient client(true, 0, 0, "", m_own, ABSTRACT);
    EXPECT_FALSE(client.connect());
    EXPECT_TRUE(acceptSocket(by_name)->isValid());
    EXPECT_FALSE(by_name.close(false));
    EXPECT_TRUE(isSocketFile(m_own));
}

class UnixServerSocketBadPath : public UnixServerSocketFile, public testing::WithParamInterface<NamedRow> {};

TEST_P(UnixServerSocketBadPath, isReported) {
    m_folder.makeFile("file", "precious");
    m_folder.makeFolder("folder");
    m_folder.makeLink("loop", m_folder / "loop");
    UnixServer server(m_folder / GetParam().name, true, FILESYSTEM);
    EXPECT_TRUE(failsToListen(server, GetParam().row));
    EXPECT_EQ("precious", contentOf(m_folder / "file"));
}

INSTANTIATE_TEST_SUITE_P(
    paths, UnixServerSocketBadPath,
    testing::Values(
        NamedRow{"none/own", {SysErrorId::SPOILED_INTEGRITY, ENOENT}},
        NamedRow{"file/own", {SysErrorId::SPOILED_INTEGRITY, ENOTDIR}},
        NamedRow{"loop/own", {SysErrorId::SPOILED_INTEGRITY, ELOOP}}, NamedRow{"file", IN_USE},
        NamedRow{"folder", IN_USE}, NamedRow{"loop", IN_USE}),
    byName);

TEST_F(UnixServerSocketFile, isNotCreatedWithoutPermission) {
    VESK_SKIP_UNLESS_ROOT();
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        UnixServer server(m_own, true, FILESYSTEM);
        EXPECT_TRUE(failsToListen(server, {SysErrorId::PERMISSION_DENIED, EACCES}));
    });
}

// ---- Files ----

TEST_F(UnixServerSocketFile, isRemovedByCloseOnlyIfTheServerHasCreatedIt) {
    m_folder.makeFile("own", "precious");
    UnixServer never_listened(m_own, true, FILESYSTEM);
    EXPECT_FALSE(never_listened.close(false));
    EXPECT_EQ("precious", contentOf(m_own));
    ASSERT_EQ(0, unlink(m_own.c_str()));

    UnixServer server(m_own, true, FILESYSTEM);
    EXPECT_TRUE(listens(server));
    EXPECT_FALSE(server.close(false));
    m_folder.makeFile("own", "the next owner's");
    EXPECT_TRUE(server.close(false));
    EXPECT_TRUE(misuseIs("called close on already DEAD socket"));
    EXPECT_EQ("the next owner's", contentOf(m_own));
}

TEST_F(UnixServerSocketFile, withARelativePathIsInTheWorkingDirectory) {
    expectInChild([this] {
        ASSERT_EQ(0, chdir(m_folder.getPath().c_str()));
        UnixServer server("own", true, FILESYSTEM);
        EXPECT_TRUE(listens(server));
        EXPECT_TRUE(isSocketFile(m_own));
        UnixClient client(true, 0, 0, "", "own", FILESYSTEM);
        EXPECT_FALSE(client.connect());
        EXPECT_EQ("own", client.getPeerPath());
        EXPECT_FALSE(server.close(false));
        EXPECT_FALSE(isSocketFile(m_own));
    });
}

} // namespace
