#include "LoopSupport.h"

#include <vesk/loop/Command.h>
#include <vesk/loop/Datagram.h>
#include <vesk/loop/FileWatch.h>
#include <vesk/loop/Listener.h>

#include <sys/socket.h>

/// What the documentation of libuv promises for its loop and handles, as a checklist: each row is named after the
/// function, and does the same with this library. Where this library promises something else, the row says so.

namespace {

using namespace support;
using namespace vesk::loop;

struct Row {
    char const* name;
    void (*check)(Loop& loop, std::string& log);
};

auto note(std::string& log, char const* text) {
    return [&log, text] { log += text; };
}
template <typename T>
std::error_code codeOf(Result<T> const& result) {
    return result.code();
}
std::error_code number(std::errc error) {
    return {static_cast<int>(error), std::system_category()};
}
/// Starts a program and returns how it ended.
Output outputOf(Loop& loop, Command const& command) {
    Output result;
    Process const process = valueOf(loop.start(command, [&](Output output) { result = std::move(output); }));
    EXPECT_TRUE(loop.runToEnd());
    return result;
}
Command shell(char const* script) {
    return Command("sh").arg("-c").arg(script).out(Stream::capture());
}
/// A connection to a socket whose other end is `peer`.
Connection connectTo(Loop& loop, Fd& peer) {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    peer = Fd(ends[1]);
    return valueOf(Connection::adopt(loop, Fd(ends[0])));
}

Row const ROWS[] = {
    {"runDefaultEndsWithoutActiveHandles",
     [](Loop& loop, std::string& log) {
         Timer const timer = valueOf(loop.after(0s, note(log, "a")));
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("a", log);
     }},
    {"runOnceBlocksForOneRound",
     [](Loop& loop, std::string& log) {
         Timer const timer = valueOf(loop.every(1ms, note(log, "a")));
         EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
         EXPECT_EQ("a", log);
     }},
    {"runNoWaitDoesNotBlock",
     [](Loop& loop, std::string& /*log*/) {
         Timer const timer = valueOf(loop.after(1h, [] {}));
         EXPECT_FALSE(valueOf(loop.runOnce()));
     }},
    {"runIsNotReentrant",
     [](Loop& loop, std::string& /*log*/) {
         EXPECT_TRUE(loop.post([&] { EXPECT_FALSE(loop.run()); }));
         EXPECT_TRUE(loop.runToEnd());
     }},
    {"stopBeforeRunEndsItAndTheNextRunGoesOn",
     [](Loop& loop, std::string& log) {
         Timer const timer = valueOf(loop.after(0s, note(log, "a")));
         loop.stop();
         EXPECT_TRUE(loop.run());
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("a", log);
     }},
    {"loopCloseWithActiveHandlesEndsThem",
     [](Loop& /*loop*/, std::string& log) {
         auto own = std::make_unique<Loop>();
         Timer const timer = valueOf(own->after(0s, note(log, "a")));
         own.reset(); // Not EBUSY: the handles may outlive their loop.
         EXPECT_FALSE(timer.isActive());
     }},
    {"backendFdCanBePolled",
     [](Loop& loop, std::string& log) {
         Loop outer;
         Watch const inside =
             valueOf(outer.onReadable(valueOf(loop.fd()), [&] { EXPECT_TRUE(loop.runOnce()); }));
         EXPECT_TRUE(loop.post(note(log, "a")));
         EXPECT_TRUE(runUntil(outer, [&] { return log == "a"; }));
     }},
    {"closeInTheCallbackIsAllowed",
     [](Loop& loop, std::string& log) {
         Timer timer;
         timer = valueOf(loop.every(1ms, [&] {
             log += "a";
             timer = Timer();
         }));
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("a", log);
     }},
    {"closedHandleIsNotCalledThoughItIsDue",
     [](Loop& loop, std::string& log) {
         Timer other;
         Timer const first = valueOf(loop.after(
             0s, [&] { other = Timer(); }, Priority::HIGH));
         other = valueOf(loop.after(0s, note(log, "a")));
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("", log);
     }},
    {"timersOfOneMomentExpireInTheOrderOfTheirStarts",
     [](Loop& loop, std::string& log) {
         auto const moment = Clock::now() + 1ms;
         Timer const a = valueOf(loop.at(moment, note(log, "a")));
         Timer const b = valueOf(loop.at(moment, note(log, "b")));
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("ab", log);
     }},
    {"timerStopAndStartAgain",
     [](Loop& loop, std::string& log) {
         Timer timer = valueOf(loop.after(0s, note(log, "a")));
         timer.stop();
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("", log);
         timer.restart(0s);
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("a", log);
     }},
    {"timerStoppedInItsCallbackDoesNotRepeat",
     [](Loop& loop, std::string& log) {
         Timer timer;
         timer = valueOf(loop.every(1ms, [&] {
             log += "a";
             timer.stop();
         }));
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("a", log);
     }},
    {"timerThatNeverWasIsNotStartedAgain",
     [](Loop& loop, std::string& /*log*/) {
         Timer timer;
         timer.restart(0s);
         EXPECT_FALSE(timer.isActive());
         EXPECT_TRUE(loop.runToEnd());
     }},
    {"asyncSendsOfAnyThreadAllArrive",
     [](Loop& loop, std::string& log) {
         std::thread([&] {
             EXPECT_TRUE(loop.post(note(log, "a")));
             EXPECT_TRUE(loop.post(note(log, "b"))); // Not coalesced.
         }).join();
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("ab", log);
     }},
    {"idleKeepsTheLoopFromBlocking",
     [](Loop& loop, std::string& log) {
         Watch const idle = valueOf(loop.onIdle(note(log, "i")));
         EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
         EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
         EXPECT_EQ("ii", log);
     }},
    {"pollOfOneDirectionTwiceIsRefused",
     [](Loop& loop, std::string& /*log*/) {
         TestPipe const pipe;
         Watch const watch = valueOf(loop.onReadable(pipe.getReader(), [] {}));
         EXPECT_EQ(number(std::errc::file_exists), codeOf(loop.onReadable(pipe.getReader(), [] {})));
     }},
    {"pollOfAClosedDescriptorIsRefused",
     [](Loop& loop, std::string& /*log*/) {
         EXPECT_EQ(number(std::errc::bad_file_descriptor), codeOf(loop.onReadable(-1, [] {})));
     }},
    {"pollStopThenCloseOfTheDescriptorIsSafeAtOnce",
     [](Loop& loop, std::string& log) {
         TestPipe pipe;
         Watch watch = valueOf(loop.onWritable(pipe.getWriter(), note(log, "a")));
         watch = Watch();
         pipe.closeWriter();
         EXPECT_FALSE(valueOf(loop.runOnce()));
         EXPECT_EQ("", log);
     }},
    {"signalReachesAllItsHandles",
     [](Loop& loop, std::string& log) {
         Watch const a = valueOf(loop.onSignal(SIGUSR2, note(log, "x")));
         Watch const b = valueOf(loop.onSignal(SIGUSR2, note(log, "x")));
         EXPECT_EQ(0, raise(SIGUSR2));
         EXPECT_TRUE(runUntil(loop, [&] { return log == "xx"; }));
     }},
    {"signalThatCannotBeCaughtIsRefused",
     [](Loop& loop, std::string& /*log*/) {
         EXPECT_EQ(number(std::errc::invalid_argument), codeOf(loop.onSignal(SIGKILL, [] {})));
     }},
    {"spawnReportsAMissingProgram",
     [](Loop& loop, std::string& /*log*/) {
         EXPECT_EQ(
             number(std::errc::no_such_file_or_directory),
             codeOf(loop.start(Command("no-such-program"), [](Output const&) {})));
     }},
    {"spawnReportsStatusAndOutput",
     [](Loop& loop, std::string& /*log*/) {
         Output const output = outputOf(loop, shell("echo hello; exit 3"));
         EXPECT_EQ(3, output.code);
         EXPECT_EQ("hello\n", output.out);
     }},
    {"spawnSetsFolderAndEnvironment",
     [](Loop& loop, std::string& /*log*/) {
         EXPECT_EQ("/ x\n", outputOf(loop, shell("echo \"$PWD $A\"").folder("/").env("A", "x")).out);
     }},
    {"processKillReportsTheSignal",
     [](Loop& loop, std::string& /*log*/) {
         Output result;
         Process process = valueOf(
             loop.start(Command("sleep").arg("1000"), [&](Output const& output) { result = output; }));
         EXPECT_TRUE(process.kill(SIGTERM));
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ(SIGTERM, result.signal);
         EXPECT_EQ(number(std::errc::no_such_process), codeOf(process.kill(0)));
     }},
    {"readStartReportsDataAndThenTheEnd",
     [](Loop& loop, std::string& log) {
         Fd peer;
         Connection connection = connectTo(loop, peer);
         connection.onEnd([&](Result<> const& result) { log += result ? "end" : "error"; });
         EXPECT_TRUE(connection.onData([&](std::string_view data) { log += data; }));
         EXPECT_EQ(1, send(peer.get(), "a", 1, 0));
         peer.close();
         EXPECT_TRUE(runUntil(loop, [&] { return log.size() >= 4; }));
         EXPECT_EQ("aend", log);
     }},
    {"readStopKeepsTheData",
     [](Loop& loop, std::string& log) {
         Fd peer;
         Connection connection = connectTo(loop, peer);
         EXPECT_TRUE(connection.onData([&](std::string_view data) { log += data; }));
         connection.pause();
         EXPECT_EQ(1, send(peer.get(), "a", 1, 0));
         EXPECT_FALSE(valueOf(loop.runOnce()));
         EXPECT_TRUE(connection.resume());
         EXPECT_TRUE(runUntil(loop, [&] { return log == "a"; }));
     }},
    {"shutdownWaitsForPendingWrites",
     [](Loop& loop, std::string& log) {
         Fd peer;
         Connection connection = connectTo(loop, peer);
         std::string const data(1 << 20, 'x');
         EXPECT_TRUE(connection.write(data));
         EXPECT_TRUE(connection.close([&](Result<> const& result) { log += result ? "closed" : "failed"; }));
         EXPECT_EQ(number(std::errc::broken_pipe), codeOf(connection.write("y"))) << "after the close";
         size_t received = 0;
         std::thread reader([&] {
             char buffer[65536];
             for (ssize_t size = 1; size > 0; received += static_cast<size_t>(size)) {
                 size = recv(peer.get(), buffer, sizeof buffer, 0);
             }
             peer.close();
         });
         EXPECT_TRUE(runUntil(loop, [&] { return log == "closed"; }));
         reader.join();
         EXPECT_EQ(data.size(), received);
     }},
    {"bindOfAnAddressInUseIsRefused",
     [](Loop& loop, std::string& /*log*/) {
         Listener const first = valueOf(Listener::open(loop, "127.0.0.1:0", [](Connection const&) {}));
         EXPECT_EQ(
             number(std::errc::address_in_use), // At once, not by the listen.
             codeOf(Listener::open(loop, first.address().text(), [](Connection const&) {})));
     }},
    {"pipeNameThatIsTooLongIsRefused",
     [](Loop& loop, std::string& /*log*/) {
         std::string const address = "unix:/" + std::string(200, 'x');
         EXPECT_EQ(
             number(std::errc::filename_too_long),
             codeOf(Listener::open(loop, address, [](Connection const&) {})));
     }},
    {"udpDeliversAnEmptyDatagramWithItsSender",
     [](Loop& loop, std::string& log) {
         Datagram const datagram =
             valueOf(Datagram::open(loop, "127.0.0.1:0", [&](std::string_view data, Address const& from) {
                 log = std::to_string(data.size()) + ' ' + from.text();
             }));
         EXPECT_TRUE(datagram.sendTo(datagram.address(), ""));
         EXPECT_TRUE(runUntil(loop, [&] { return !log.empty(); }));
         EXPECT_EQ("0 " + datagram.address().text(), log);
     }},
    {"fsEventOfAMissingPathIsRefused",
     [](Loop& loop, std::string& /*log*/) {
         FileWatch watch = valueOf(FileWatch::open(loop, [](FileEvent const&) {}));
         EXPECT_EQ(number(std::errc::no_such_file_or_directory), codeOf(watch.add("/no/such/path")));
     }},
    {"getaddrinfoCallsBackInTheLoop",
     [](Loop& loop, std::string& log) {
         auto const self = std::this_thread::get_id();
         Watch const watch =
             valueOf(lookUp(loop, "127.0.0.1:7", [&](Result<std::vector<Address>> const& found) {
                 EXPECT_EQ(self, std::this_thread::get_id());
                 log = valueOf(found).at(0).text();
             }));
         EXPECT_EQ("", log);
         EXPECT_TRUE(loop.runToEnd());
         EXPECT_EQ("127.0.0.1:7", log);
     }},
};

class LoopChecklist : public testing::TestWithParam<Row> {};

TEST_P(LoopChecklist, holds) {
    Loop loop;
    std::string log;
    GetParam().check(loop, log);
}

INSTANTIATE_TEST_SUITE_P(All, LoopChecklist, testing::ValuesIn(ROWS), [](auto const& row) {
    return std::string(row.param.name);
});

} // namespace
