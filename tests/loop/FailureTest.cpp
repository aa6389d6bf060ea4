#include "LoopSupport.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/SyscallFault.h"

#include <vesk/loop/Datagram.h>
#include <vesk/loop/FileWatch.h>
#include <vesk/loop/Interfaces.h>
#include <vesk/loop/Listener.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

/// What the operations report when a system call or an allocation fails, and how they do without a missing call.

VESK_INJECT_ERRNO(int, -1, epoll_create1, (int flags) noexcept, (flags))
VESK_INJECT_ERRNO(int, -1, eventfd, (unsigned int count, int flags) noexcept, (count, flags))
VESK_INJECT_ERRNO(int, -1, timerfd_create, (clockid_t clock, int flags) noexcept, (clock, flags))
VESK_INJECT_ERRNO(int, -1, signalfd, (int fd, sigset_t const* set, int flags) noexcept, (fd, set, flags))
VESK_INJECT_ERRNO(
    int, -1, epoll_ctl, (int epoll, int operation, int fd, epoll_event* event) noexcept,
    (epoll, operation, fd, event))
VESK_INJECT_ERRNO(
    int, -1, epoll_wait, (int epoll, epoll_event* events, int size, int timeout),
    (epoll, events, size, timeout))
VESK_INJECT_ERRNO(int, -1, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
VESK_INJECT_ERRNO(int, -1, listen, (int fd, int backlog) noexcept, (fd, backlog))
VESK_INJECT_ERRNO(int, -1, inotify_init1, (int flags) noexcept, (flags))
VESK_INJECT_ERRNO(int, -1, pipe2, (int* ends, int flags) noexcept, (ends, flags))

namespace {

using namespace support;
using vesk::loop::Address;
using vesk::loop::Connection;
using vesk::loop::Datagram;
using vesk::loop::FileEvent;
using vesk::loop::FileWatch;
using vesk::loop::Listener;
using vesk::loop::lookUp;

constexpr long PIDFD_OPEN = 434;
constexpr long EPOLL_PWAIT2 = 441;

struct Row {
    char const* name;
    Injected& function;
    int nth;
    std::function<std::error_code(Loop&)> operation;
};
template <typename T>
std::error_code codeOf(Result<T> const& result) {
    return result.code();
}
std::error_code watchPipe(Loop& loop) {
    TestPipe const pipe;
    return loop.onReadable(pipe.getReader(), [] {}).code();
}
std::error_code onNewLoop(Loop& /*loop*/) {
    return Loop().post([] {}).code();
}
std::error_code watchChild(Loop& loop) {
    pid_t const child = startChild(0);
    std::error_code const result = loop.onExit(child, [](Exit const&) {}).code();
    waitpid(child, nullptr, 0);
    return result;
}

std::error_code openListener(Loop& loop) {
    return Listener::open(loop, "127.0.0.1:0", [](Connection const&) {}).code();
}
std::error_code openConnection(Loop& loop) {
    Listener const server =
        valueOf(Listener::open(loop, "unix:@vesk-loop-failure", [](Connection const&) {}));
    Address const address = server.address();
    return Connection::open(loop, address).code();
}
std::error_code openDatagram(Loop& loop) {
    return Datagram::open(loop, "127.0.0.1:0", [](std::string_view, Address const&) {}).code();
}
std::error_code openFiles(Loop& loop) {
    return FileWatch::open(loop, [](FileEvent const&) {}).code();
}

std::error_code openInterfaces(Loop& loop) {
    return vesk::loop::watchInterfaces(loop, [](auto const&) {}).code();
}

/// Waits for the end, so that the thread of the look-up has closed its descriptors.
std::error_code lookUpNumber(Loop& loop) {
    auto const watch = lookUp(loop, "127.0.0.1:7", [](auto) {});
    EXPECT_TRUE(loop.runToEnd());
    return watch.code();
}

Row const ROWS[] = {
    {"socketOfAListener", inject_socket, 1, openListener},
    {"listen", inject_listen, 1, openListener},
    {"epollCtlOfAListener", inject_epoll_ctl, 1, openListener},
    {"socketOfAConnection", inject_socket, 2, openConnection},
    {"epollCtlOfAConnection", inject_epoll_ctl, 2, openConnection},
    {"socketOfDatagrams", inject_socket, 1, openDatagram},
    {"epollCtlOfDatagrams", inject_epoll_ctl, 1, openDatagram},
    {"inotify", inject_inotify_init1, 1, openFiles},
    {"epollCtlOfFiles", inject_epoll_ctl, 1, openFiles},
    {"eventfdOfInterfaces", inject_eventfd, 1, openInterfaces},
    {"epollCtlOfInterfaces", inject_epoll_ctl, 1, openInterfaces},
    {"pipeOfALookUp", inject_pipe2, 1, lookUpNumber},
    {"epollCreate", inject_epoll_create1, 1, onNewLoop},
    {"eventfd", inject_eventfd, 1, onNewLoop},
    {"epollCtlOfTheLoop", inject_epoll_ctl, 1, onNewLoop},
    {"epollCtl", inject_epoll_ctl, 1, watchPipe},
    {"epollWait", inject_epoll_wait, 1, [](Loop& loop) { return codeOf(loop.runOnce()); }},
    {"signalfd", inject_signalfd, 1, [](Loop& loop) { return codeOf(loop.onSignal(SIGURG, [] {})); }},
    {"epollCtlOfSignals", inject_epoll_ctl, 1,
     [](Loop& loop) { return codeOf(loop.onSignal(SIGURG, [] {})); }},
    {"timerfd", inject_timerfd_create, 1, [](Loop& loop) { return codeOf(loop.fd()); }},
    {"timerfdOfTheClock", inject_timerfd_create, 1,
     [](Loop& loop) { return codeOf(loop.onClockSet([] {})); }},
    {"epollCtlOfTheTimer", inject_epoll_ctl, 1, [](Loop& loop) { return codeOf(loop.fd()); }},
    {"pidfdOpen", inject_syscall, 1, watchChild},
    {"epollCtlOfAChild", inject_epoll_ctl, 1, watchChild},
};

class LoopFailure : public testing::TestWithParam<Row> {};

TEST_P(LoopFailure, reportsTheNumberOnceAndThenSucceeds) {
    Loop loop;
    g_failing_syscall = PIDFD_OPEN;
    {
        Fault const fault(GetParam().function, EMFILE, GetParam().nth);
        std::error_code const code = GetParam().operation(loop);
        EXPECT_TRUE(code == std::errc::too_many_files_open) << code.message();
    }
    EXPECT_FALSE(GetParam().operation(loop));
}

INSTANTIATE_TEST_SUITE_P(All, LoopFailure, testing::ValuesIn(ROWS), [](auto const& row) {
    return std::string(row.param.name);
});

TEST(LoopOnAnOldSystem, waitsForItsTimersByADescriptorOrInMilliseconds) {
    g_failing_syscall = EPOLL_PWAIT2;
    for (int const timerfd_error : {0, EMFILE}) {
        for (int const missing : {ENOSYS, EPERM}) {
            Fault const old(inject_syscall, missing, 1, Fault::FOREVER);
            Fault const none(inject_timerfd_create, timerfd_error, 1, Fault::FOREVER);
            Loop loop;
            int calls = 0;
            Clock::time_point const begin = Clock::now();
            Timer const timer = valueOf(loop.every(2ms, [&] {
                if (++calls == 3) {
                    loop.stop();
                }
            }));
            EXPECT_TRUE(loop.run());
            EXPECT_LE(6ms, Clock::now() - begin);
        }
    }
}

TEST(LoopOnAnOldSystem, waitsForChildrenInAThread) {
    g_failing_syscall = PIDFD_OPEN;
    for (int const missing : {ENOSYS, EPERM}) {
        Fault const old(inject_syscall, missing, 1, Fault::FOREVER);
        Loop loop;
        TestPipe gate;
        pid_t const children[] = {startChild(7), startChild(8, gate.getReader())};
        std::vector<int> codes;
        auto const add = [&codes](Exit const& end) { codes.push_back(end.code); };
        Watch const first = valueOf(loop.onExit(children[0], add));
        Watch const second = valueOf(loop.onExit(children[1], add));
        EXPECT_TRUE(runUntil(loop, [&codes] { return codes.size() == 1; }));
        gate.write("x");
        EXPECT_TRUE(loop.runToEnd());
        EXPECT_EQ((std::vector{7, 8}), codes);
    }
    Fault const old(inject_syscall, ENOSYS);
    Fault const no_pipe(inject_pipe2, EMFILE);
    Loop loop;
    EXPECT_TRUE(watchChild(loop) == std::errc::too_many_files_open);
}

TEST(LoopWithoutMemory, reportsThatFromEachOperationAndKeepsWorking) {
    static std::string const LARGE(2000000, 'x');
    using Operation = std::function<std::error_code(Loop&)>;
    Operation const operations[] = {
        [](Loop& loop) { return codeOf(loop.post([] {})); },
        [](Loop& loop) { return codeOf(loop.after(1h, [] {})); },
        [](Loop& loop) { return codeOf(loop.onReadable(0, [] {})); },
        [](Loop& loop) { return codeOf(loop.onSignal(SIGURG, [] {})); },
        [](Loop& loop) { return codeOf(loop.onIdle([] {})); },
        [](Loop& loop) { return codeOf(loop.onClockSet([] {})); },
        openListener,
        openDatagram,
        openFiles,
        [](Loop& loop) {
            int sockets[2];
            EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets));
            vesk::loop::Fd const other(sockets[1]);
            auto connection = Connection::adopt(loop, vesk::loop::Fd(sockets[0]));
            return connection ? codeOf(connection->write(LARGE)) : connection.code();
        },
    };
    for (Operation const& operation : operations) {
        Loop loop;
        int nth = 1;
        for (std::error_code code = std::make_error_code(std::errc::not_enough_memory); code; ++nth) {
            TestPipe pipe;
            dup2(pipe.getReader(), 0);
            NewFault const fault(New::SINGLE, nth);
            code = operation(loop);
            EXPECT_TRUE(!code || code == std::errc::not_enough_memory) << code.message();
        }
        EXPECT_LT(2, nth);
        EXPECT_TRUE(loop.post([&loop] { loop.stop(); }));
        EXPECT_TRUE(loop.run());
    }
}

} // namespace
