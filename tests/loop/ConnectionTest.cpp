#include "LoopSupport.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/TempFolder.h"

#include <vesk/loop/Datagram.h>
#include <vesk/loop/Listener.h>

#include <algorithm>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

using namespace support;
using vesk::loop::Address;
using vesk::loop::Connection;
using vesk::loop::Datagram;
using vesk::loop::Fd;
using vesk::loop::Listener;
using vesk::loop::LoopErrorId::ADDRESS_REFUSED;

// ---- addresses ----

TEST(AddressTest, readsAndWritesEachKind) {
    struct Row {
        char const* text;
        int family;
        int port;
    };
    for (Row const& row :
         {Row{"192.0.2.1:80", AF_INET, 80}, Row{"[2001:db8::1]:65535", AF_INET6, 65535},
          Row{"[::]:0", AF_INET6, 0}, Row{"unix:/run/name", AF_UNIX, 0}, Row{"unix:@name", AF_UNIX, 0}}) {
        Address const address = valueOf(Address::parse(row.text));
        EXPECT_EQ(row.text, address.text());
        EXPECT_EQ(row.family, address.family());
        EXPECT_EQ(row.port, address.port());
        EXPECT_EQ(address, Address(address.get(), address.size()));
        EXPECT_NE(address, Address());
    }
}

TEST(AddressTest, refusesWhatIsNoAddress) {
    for (char const* const text :
         {"", "80", ":80", "host", "host:80", "192.0.2.1", "192.0.2.1:", "192.0.2.1:http", "::1:80", "[::1]",
          "[::1]80", "[]:80", "[::1:80", "unix:"}) {
        auto const address = Address::parse(text);
        ASSERT_FALSE(address) << text;
        EXPECT_TRUE(address.error() == std::errc::invalid_argument) << text;
        EXPECT_EQ(ADDRESS_REFUSED, address.error().head().getID());
    }
    EXPECT_TRUE(Address::parse("unix:/" + std::string(200, 'x')).error() == std::errc::filename_too_long);
}

TEST(LookUp, callsBackInTheLoopWithAddressesOrTheFailure) {
    Loop loop;
    std::vector<std::string> texts;
    Watch const number = valueOf(vesk::loop::lookUp(loop, "127.0.0.1:7", [&](auto result) {
        texts.push_back(valueOf(std::move(result)).front().text());
    }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("127.0.0.1:7", texts.at(0));
    Watch const none = valueOf(vesk::loop::lookUp(loop, "[no such host]:7", [&](auto result) {
        ASSERT_FALSE(result);
        EXPECT_EQ(ADDRESS_REFUSED, result.error().head().getID());
        texts.emplace_back("none");
    }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(2u, texts.size());
    EXPECT_TRUE(vesk::loop::lookUp(loop, "name", [](auto) {}).error() == std::errc::invalid_argument);
}

// ---- connections ----

/// Both ends of a connection of two loops' watches.
class ConnectionTest : public testing::Test {
protected:
    /// Makes two connected ends, and notes what the second one gets.
    void connectPair() {
        int sockets[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets));
        one = valueOf(Connection::adopt(loop, Fd(sockets[0])));
        other = valueOf(Connection::adopt(loop, Fd(sockets[1])));
        listenTo(other);
    }
    void listenTo(Connection& connection) {
        connection.onEnd([this](Result<> const& how) {
            ++ends;
            end = how.code();
        });
        ASSERT_TRUE(connection.onData([this](std::string_view data) { text += data; }));
    }
    testing::AssertionResult runUntilEnds(int count) {
        return runUntil(loop, [&] { return ends == count; });
    }

    Loop loop;
    Connection one;
    Connection other;
    std::string text;
    int ends = 0;
    std::error_code end;
};

class ServerTest : public ConnectionTest, public testing::WithParamInterface<char const*> {};

TEST_P(ServerTest, echoesUntilBothSidesAreClosed) {
    TempFolder const folder;
    std::string const address =
        std::string(GetParam()) == "unix:" ? "unix:" + folder.getPath() + "/socket" : GetParam();
    Connection session;
    auto const server = valueOf(Listener::open(loop, address, [&](Connection peer) {
        session = std::move(peer);
        session.onEnd([&](Result<> const& how) {
            EXPECT_TRUE(how);
            EXPECT_TRUE(session.close());
        });
        EXPECT_TRUE(session.onData([&](std::string_view data) { EXPECT_TRUE(session.write(data)); }));
    }));
    bool is_open = false;
    one = valueOf(Connection::open(loop, server.address()));
    one.onOpen([&] { is_open = true; });
    listenTo(one);
    EXPECT_EQ(false, valueOf(one.write(std::string(2000000, 'y')))) << "above the high mark";
    EXPECT_TRUE(runUntil(loop, [&] { return text.size() == 2000000; }));
    EXPECT_TRUE(is_open);
    EXPECT_EQ(server.address(), one.peer());
    EXPECT_EQ(0u, one.queued());
    EXPECT_EQ(0, shutdown(one.fd(), SHUT_WR));
    EXPECT_TRUE(runUntilEnds(1));
    EXPECT_FALSE(end);
}

INSTANTIATE_TEST_SUITE_P(
    All, ServerTest, testing::Values("127.0.0.1:0", "[::1]:0", "unix:", "unix:@vesk-loop-test"));

TEST_F(ConnectionTest, closeSendsWhatIsQueued) {
    connectPair();
    other.pause();
    std::string const sent(3000000, 'x');
    std::optional<std::error_code> closed;
    EXPECT_FALSE(valueOf(one.write(sent)));
    EXPECT_TRUE(one.close([&](Result<> const& how) { closed = how.code(); }));
    EXPECT_TRUE(one.write("y").error() == std::errc::broken_pipe);
    EXPECT_TRUE(one.close().error() == std::errc::broken_pipe);
    EXPECT_TRUE(other.resume());
    EXPECT_TRUE(runUntilEnds(1));
    EXPECT_EQ(sent, text);
    EXPECT_FALSE(closed);
    EXPECT_TRUE(other.close());
    EXPECT_TRUE(runUntil(loop, [&] { return closed.has_value(); }));
    EXPECT_FALSE(*closed);
    EXPECT_EQ(-1, one.fd());
}

TEST_F(ConnectionTest, destroyingDropsTheQueueAtOnce) {
    connectPair();
    EXPECT_TRUE(one.write(std::string(3000000, 'x')));
    one = Connection();
    EXPECT_TRUE(runUntilEnds(1));
    EXPECT_GT(3000000u, text.size());
}

TEST_F(ConnectionTest, tellsWhenTheQueueIsShortAgain) {
    connectPair();
    one.setMarks(1000, 2000);
    int drained = 0;
    one.onDrain([&] {
        ++drained;
        EXPECT_GE(1000u, one.queued());
    });
    other.pause();
    int writes = 0;
    while (valueOf(one.write(std::string(1000, 'x')))) {
        ++writes;
    }
    EXPECT_LT(2, writes) << "the system takes some";
    EXPECT_LT(2000u, one.queued());
    EXPECT_TRUE(loop.runOnce());
    EXPECT_EQ(0, drained);
    EXPECT_TRUE(other.resume());
    EXPECT_TRUE(runUntil(loop, [&] { return drained == 1; }));
    EXPECT_TRUE(runUntil(loop, [&] { return text.size() == static_cast<size_t>(writes + 1) * 1000; }));
}

TEST_F(ConnectionTest, failureOfAWriteIsReportedOnceMoreWithTheEnd) {
    connectPair();
    one.onEnd([this](Result<> const& how) {
        ++ends;
        end = how.code();
    });
    other = Connection();
    EXPECT_TRUE(one.write("x").error() == std::errc::broken_pipe);
    EXPECT_TRUE(one.write("x").error() == std::errc::broken_pipe);
    EXPECT_EQ(0, ends);
    EXPECT_TRUE(runUntilEnds(1));
    EXPECT_TRUE(end == std::errc::broken_pipe);
    EXPECT_FALSE(one.isActive());
    EXPECT_TRUE(one.resume().error() == std::errc::broken_pipe);
}

TEST_F(ConnectionTest, refusedConnectionEndsWithThatError) {
    Listener server = valueOf(Listener::open(loop, "127.0.0.1:0", [](Connection const&) {}));
    Address const address = server.address();
    server = Listener();
    one = valueOf(Connection::open(loop, address));
    listenTo(one);
    EXPECT_TRUE(one.write("queued"));
    EXPECT_TRUE(runUntilEnds(1));
    EXPECT_TRUE(end == std::errc::connection_refused) << end.message();
    EXPECT_TRUE(Connection::open(loop, "unix:/no/such").error() == std::errc::no_such_file_or_directory);
}

TEST_F(ConnectionTest, eachDeadlineEndsTheConnection) {
    constexpr Clock::duration NONE{};
    for (auto const& row :
         {Connection::Deadlines{5ms, NONE, NONE}, Connection::Deadlines{NONE, 5ms, NONE},
          Connection::Deadlines{NONE, NONE, 5ms}}) {
        ends = 0;
        connectPair();
        one.onEnd([this](Result<> const& how) {
            ++ends;
            end = how.code();
        });
        other.onEnd([](Result<> const&) {});
        other.pause();
        ASSERT_TRUE(one.onData([](std::string_view) {}));
        EXPECT_TRUE(one.write(std::string(row.write > NONE ? 3000000 : 1, 'x')));
        Clock::time_point const begin = Clock::now();
        one.setDeadlines(row);
        EXPECT_TRUE(runUntilEnds(1));
        EXPECT_TRUE(end == std::errc::timed_out) << end.message();
        EXPECT_LE(5ms, Clock::now() - begin);
    }
}

TEST_F(ConnectionTest, activityPutsADeadlineOff) {
    connectPair();
    constexpr int SLOWDOWN = support::IS_SLOW ? 10 : 1;
    other.setDeadlines({SLOWDOWN * 40ms, {}, SLOWDOWN * 40ms});
    Timer const timer = valueOf(loop.every(5ms, [this] { EXPECT_TRUE(one.write("x")); }));
    EXPECT_TRUE(runUntil(loop, [this] { return text.size() >= SLOWDOWN * 20 || ends > 0; }));
    EXPECT_EQ(0, ends);
}

TEST_F(ConnectionTest, passesDescriptorsInTheOrderOfTheData) {
    connectPair();
    std::vector<std::string> log;
    other.onFd([&](Fd fd) {
        char letter = 0;
        EXPECT_EQ(1, read(fd.get(), &letter, 1));
        log.emplace_back(1, letter);
    });
    ASSERT_TRUE(other.onData([&](std::string_view data) { log.emplace_back(data); }));
    EXPECT_TRUE(loop.runOnce(1ms)); // Its descriptor of timers, on an old system.
    int const before = countDescriptors();
    for (char const* const letter : {"1", "2"}) {
        TestPipe pipe;
        pipe.write(letter);
        EXPECT_TRUE(one.write(letter[0] == '1' ? "a" : "b", Fd(dup(pipe.getReader()))));
        EXPECT_TRUE(one.write("-"));
    }
    EXPECT_TRUE(runUntil(loop, [&] { return log.size() >= 4 && log.back().back() == '-'; }));
    EXPECT_EQ((std::vector<std::string>{"1", "a-", "2", "b-"}), log);
    EXPECT_EQ(before, countDescriptors());
    EXPECT_TRUE(one.write("", Fd(dup(0))).error() == std::errc::invalid_argument);
    EXPECT_EQ(getpid(), valueOf(one.credentials()).pid);
    EXPECT_EQ(getuid(), valueOf(one.credentials()).user);
}

TEST_F(ConnectionTest, callbackMayReplaceItselfAndEndTheConnection) {
    connectPair();
    ASSERT_TRUE(other.onData([this](std::string_view data) {
        std::string const kept(data);
        EXPECT_TRUE(other.onData([this](std::string_view) { other = Connection(); }));
        text += kept;
    }));
    EXPECT_TRUE(one.write("first"));
    EXPECT_TRUE(runUntil(loop, [this] { return text == "first"; }));
    EXPECT_TRUE(one.write("second"));
    EXPECT_TRUE(runUntil(loop, [this] { return !other.isActive(); }));
    EXPECT_EQ("first", text);
}

TEST_F(ConnectionTest, withoutASocketEachOperationFails) {
    EXPECT_TRUE(one.onData([](std::string_view) {}).error() == std::errc::broken_pipe);
    EXPECT_TRUE(one.write("x").error() == std::errc::broken_pipe);
    EXPECT_TRUE(one.close().error() == std::errc::broken_pipe);
    EXPECT_TRUE(one.resume().error() == std::errc::broken_pipe);
    EXPECT_FALSE(one.credentials());
    EXPECT_EQ("", one.peer().text());
    one.pause();
}

TEST(ConnectionStorm, isEndedInAnotherThreadAtAnyMomentOfAnEcho) {
    Loop loop;
    Watch const keeps = valueOf(loop.every(1h, [] {}));
    std::thread runner([&loop] { EXPECT_TRUE(loop.run()); });
    std::string buffer(1000, 'x');
    for (int round = 0; round < 300; ++round) {
        int sockets[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets));
        Fd const client(sockets[1]);
        std::atomic<bool> is_over{false};
        std::atomic<int> calls{0};
        Connection connection = valueOf(Connection::adopt(loop, Fd(sockets[0])));
        std::atomic<bool> is_ready{false};
        EXPECT_TRUE(loop.post([&] {
            connection.setDeadlines({1ms * (round % 7), 1ms * (round % 5), 1ms * (round % 3)});
            connection.onEnd([&](Result<> const&) {
                ++calls;
                EXPECT_FALSE(is_over);
            });
            EXPECT_TRUE(connection.onData([&](std::string_view data) {
                ++calls;
                EXPECT_FALSE(is_over);
                (void)connection.write(data);
                if (round % 4 == 0) {
                    (void)connection.close();
                }
            }));
            is_ready = true;
        }));
        EXPECT_TRUE(eventually([&is_ready] { return is_ready.load(); }));
        for (int i = 0; i < round % 6; ++i) {
            (void)send(client.get(), buffer.data(), buffer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            (void)recv(
                client.get(), buffer.data(), buffer.size(),
                i % 2 == 0 ? MSG_DONTWAIT : MSG_PEEK | MSG_DONTWAIT);
        }
        EXPECT_TRUE(round % 6 == 0 || eventually([&calls] { return calls > 0; }));
        connection.cancel();
        is_over = true;
    }
    loop.stop();
    runner.join();
}

// ---- listeners ----

TEST(ListenerTest, replacesALeftOverSocketFileButNotOneInUse) {
    TempFolder const folder;
    std::string const address = "unix:" + folder.getPath() + "/socket";
    {
        Address const parsed = valueOf(Address::parse(address));
        Fd const left(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, bind(left.get(), parsed.get(), parsed.size()));
    }
    Loop loop;
    {
        auto const server = valueOf(Listener::open(loop, address, [](Connection const&) {}));
        auto const second = Listener::open(loop, address, [](Connection const&) {});
        EXPECT_TRUE(second.error() == std::errc::address_in_use);
    }
    EXPECT_NE(0, access((folder.getPath() + "/socket").c_str(), F_OK));
}

TEST(ListenerTest, waitsForDescriptorsAndAcceptsThen) {
    Loop loop;
    std::vector<Connection> sessions;
    auto const server = valueOf(
        Listener::open(loop, "127.0.0.1:0", [&](Connection peer) { sessions.push_back(std::move(peer)); }));
    Connection const client = valueOf(Connection::open(loop, server.address()));
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    rlimit const none{static_cast<rlim_t>(countDescriptors()), limit.rlim_max};
    std::vector<Fd> fillers;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    for (Fd filler(dup(0)); filler; filler = Fd(dup(0))) {
        fillers.push_back(std::move(filler));
    }
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(loop.runOnce(5ms));
    }
    EXPECT_TRUE(sessions.empty());
    EXPECT_FALSE(valueOf(loop.runOnce())) << "does not turn in circles meanwhile";
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_TRUE(runUntil(loop, [&] { return sessions.size() == 1; }));
}

// ---- datagrams ----

TEST(DatagramTest, carriesWholeDatagramsWithTheirSender) {
    for (char const* const address : {"127.0.0.1:0", "[::1]:0", "unix:@vesk-loop-datagram"}) {
        Loop loop;
        std::vector<std::string> log;
        Datagram server;
        server = valueOf(Datagram::open(loop, address, [&](std::string_view data, Address const& from) {
            EXPECT_TRUE(server.sendTo(from, std::string(data) + '!'));
        }));
        std::string const own = std::string(address) + (address[0] == 'u' ? "-client" : "");
        Datagram const client =
            valueOf(Datagram::open(loop, own, [&](std::string_view data, Address const& from) {
                EXPECT_EQ(server.address(), from);
                log.emplace_back(data);
            }));
        EXPECT_TRUE(client.sendTo(server.address(), "one"));
        EXPECT_TRUE(client.sendTo(server.address(), ""));
        EXPECT_TRUE(runUntil(loop, [&] { return log.size() == 2; }));
        EXPECT_EQ((std::vector<std::string>{"one!", "!"}), log);
        EXPECT_FALSE(client.sendTo(server.address(), std::string(1000000, 'x')));
    }
}

TEST(DatagramTest, hasTheSettingsOfMulticastAndBroadcast) {
    Loop loop;
    for (char const* const row : {"0.0.0.0:0 239.1.2.3:7", "[::]:0 [ff02::123]:7"}) {
        std::string const text = row;
        size_t const space = text.find(' ');
        Datagram const socket =
            valueOf(Datagram::open(loop, text.substr(0, space), [](std::string_view, Address const&) {}));
        Address const group = valueOf(Address::parse(text.substr(space + 1)));
        EXPECT_TRUE(socket.setMulticast(3, false));
        // For 64-bit programs QEMU's user mode passes another index than that of the interface.
        if (group.family() == AF_INET6 || sizeof(void*) == 4 || !support::IS_EMULATED) {
            EXPECT_TRUE(socket.join(group, "lo"));
            EXPECT_TRUE(socket.leave(group, "lo"));
        }
        EXPECT_FALSE(socket.leave(group, "lo"));
        EXPECT_TRUE(socket.join(group, "no such").error() == std::errc::no_such_device);
        EXPECT_TRUE(socket.setMulticast(300, false).error() == std::errc::invalid_argument);
        bool const is_v6 = group.family() == AF_INET6;
        int value = -1;
        socklen_t size = sizeof value;
        EXPECT_EQ(
            0,
            getsockopt(
                socket.fd(), is_v6 ? IPPROTO_IPV6 : IPPROTO_IP,
                is_v6 ? IPV6_MULTICAST_HOPS : IP_MULTICAST_TTL, &value, &size));
        EXPECT_EQ(3, value);
        EXPECT_TRUE(socket.setBroadcast(true));
    }
    EXPECT_FALSE(Datagram().setBroadcast(true));
    EXPECT_EQ("", Datagram().address().text());
}

} // namespace
