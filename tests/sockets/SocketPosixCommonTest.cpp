#include "vesk/posix/sockets/SocketPosixCommon.h"

#include "SocketRows.h"
#include "TestSocket.h"
#include "support/calls/UDPCalls.h"

/// What the helpers below the socket classes do and the tests of the classes cannot see.

VESK_INJECT_ERRNO(int, -1, shutdown, (int fd, int how) noexcept, (fd, how))

namespace {

using namespace vesk::detail;
using namespace support;

TEST(SetNonBlocking, keepsTheAccessModeAndDropsEveryOtherFlag) {
    Ends ends = makeEnds();
    int const fd = ends.getPeer();
    ASSERT_EQ(0, fcntl(fd, F_SETFL, O_APPEND | O_ASYNC));
    EXPECT_FALSE(setNonBlocking(fd));
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(fd, F_GETFL));
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    for (int const end : {0, 1}) {
        EXPECT_FALSE(setNonBlocking(pipe_ends[end]));
        EXPECT_EQ((end == 0 ? O_RDONLY : O_WRONLY) | O_NONBLOCK, fcntl(pipe_ends[end], F_GETFL));
        close(pipe_ends[end]);
    }
    EXPECT_TRUE(setNonBlocking(-1));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EBADF));
}

TEST(SetReuse, setsTheOptionToOneOrZero) {
    Ends ends = makeTcpEnds();
    for (bool const on : {true, false, true}) {
        EXPECT_FALSE(setReuse(ends.getPeer(), on));
        EXPECT_EQ(on ? 1 : 0, getOption(ends.getPeer(), SOL_SOCKET, SO_REUSEADDR));
    }
}

TEST(WithoutADescriptor, helpersFailAnAssertionAndReturnAFailure) {
    sockaddr_in const address{};
    auto const* const generic = reinterpret_cast<sockaddr const*>(&address);
    struct {
        char const* name;
        std::function<bool()> call;
    } const helpers[] = {
        {"setReuse", [] { return setReuse(-1, true); }},
        {"bindSocket", [=] { return bindSocket(-1, generic, sizeof(sockaddr_in), true); }},
        {"connectSocket", [=] { return connectSocket(-1, generic, sizeof(sockaddr_in)) == -1; }},
        {"shutdownSocket", [] { return shutdownSocket(-1); }},
    };
    CallRecorder calls;
    Calls const shutdowns(inject_shutdown, 0);
    for (auto const& helper : helpers) {
        EventRecorder const events;
        EXPECT_TRUE(helper.call()) << helper.name;
        EXPECT_EQ("", calls.getText());
        EXPECT_EQ(
            std::string("ASSERT framework/src/vesk/posix/SocketPosixCommon ") + helper.name +
                ": p_socket_fd != INVALID_SOCKET_FD",
            events.getText());
        EXPECT_TRUE(chainIs("p_socket_fd is invalid", {std::CommonErrorId::INVALID_ARGUMENT}));
    }
}

TEST(CloseKeepingChain, keepsThePendingReports) {
    for (bool const close_fails : {false, true}) {
        report("here", Chain::NEW, SocketErrorId::CONNECTION_RESET, "text");
        report("there", Chain::ON_TOP, SysErrorId::SPOILED_INTEGRITY, "text");
        int failures = 0;
        closeKeepingChain(
            [&] {
                EXPECT_FALSE(std::ErrorStorage::isError(true)) << "the clean-up starts without reports";
                if (close_fails) {
                    report("close", Chain::NEW, SysErrorId::UNCLASSIFIED, "another");
                }
                return close_fails;
            },
            [&] { ++failures; });
        EXPECT_EQ(close_fails ? 1 : 0, failures);
        EXPECT_TRUE(chainIs("text", {SocketErrorId::CONNECTION_RESET, SysErrorId::SPOILED_INTEGRITY}));
    }
}

} // namespace
