#include "SignalSupport.h"
#include "support/Aborts.h"
#include "support/AllocationCounter.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <vesk/Poller.h>
#include <vesk/Timer.h>

#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>

VESK_INJECT_ERRNO(int, -1, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
VESK_INJECT_ERRNO(ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size))

namespace {

using namespace support;
using vesk::Poller;

/// The calls, in order, "A read, B error" for example. Belongs to the polling thread.
using Log = std::string;
using Steps = std::vector<std::string>;

/// Both ends of a stream between sockets. What one end sends, the other receives.
class Pair {
public:
    Pair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_ends)); }
    ~Pair() {
        closeMine();
        closePeer();
    }
    Pair(Pair const&) = delete;
    Pair& operator=(Pair const&) = delete;

    int get() const { return m_ends[0]; }
    void send() const { EXPECT_EQ(1, ::send(m_ends[1], "x", 1, MSG_NOSIGNAL)); }
    void take() const {
        char byte = 0;
        EXPECT_EQ(1, recv(m_ends[0], &byte, 1, 0));
    }
    void closeMine() { close(std::exchange(m_ends[0], -1)); }
    void closePeer() { close(std::exchange(m_ends[1], -1)); }

private:
    int m_ends[2] = {-1, -1};
};

/// A client that logs its calls, "A read" for example, and may react to them.
class TestClient : public Poller::Client {
public:
    TestClient(Log& log, std::string name, int client_events = POLLIN)
        : events(client_events), m_log(log), m_name(std::move(name)) {}

    int poll_events(int fd) override {
        asked.push_back(fd);
        react("asked");
        return events;
    }
    void read(int fd) override { call("read", fd); }
    void write(int fd) override { call("write", fd); }
    void error(int fd) override { call("error", fd); }

    int events;
    std::vector<int> asked; ///< The descriptors for which events were asked.
    std::map<std::string, std::function<void()>> reactions;
    int last_fd = -1;

private:
    void call(char const* name, int fd) {
        m_log += (m_log.empty() ? "" : ", ") + m_name + " " + name;
        last_fd = fd;
        react(name);
    }
    void react(char const* name) {
        auto const reaction = reactions.find(name);
        if (reaction != reactions.end()) {
            reaction->second();
        }
    }

    Log& m_log;
    std::string m_name;
};

class PollerTest : public testing::Test {
protected:
    /// Returns the number of commands that no cycle has taken yet.
    int countCommands() const {
        int count = -1;
        EXPECT_EQ(0, ioctl(s_pipe[0], FIONREAD, &count));
        return count;
    }
    /// Serves as many cycles as there are commands, so that the next one waits for descriptors alone.
    void drain() {
        for (int left = countCommands(); left > 0; --left) {
            EXPECT_FALSE(m_poller.poll());
        }
        forget();
    }
    void forget() {
        m_log.clear();
        m_client.asked.clear();
        m_other.asked.clear();
    }
    /// Serves one cycle. Returns its calls.
    Log cycle(bool stopped = false) {
        forget();
        EXPECT_EQ(stopped, m_poller.poll());
        return m_log;
    }
    /// Adds the client with readable data, and serves the command.
    void addReadable() {
        m_a.send();
        m_poller.add(m_client, m_a.get());
        drain();
    }

    Log m_log;
    Pair m_a;
    Pair m_b;
    Pair m_c;
    TestClient m_client{m_log, "A"};
    TestClient m_other{m_log, "B"};
    TestClient m_third{m_log, "C"};
    Poller m_poller;
};

// ---- scenarios ----

/// A sequence of steps with the clients A, B and C and the descriptors a, b and c.
struct Scenario {
    char const* name;
    Steps steps;
    std::map<std::string, Steps> reactions = {}; ///< Steps in a call, "A read" for example.
    int events = POLLIN;                         ///< Of all clients.
    char const* fatal_errors = "";               ///< Those that a process survives.
};

class PollerScenario : public PollerTest, public testing::WithParamInterface<Scenario> {
protected:
    Pair& pair(std::string const& name) { return name == "a" ? m_a : name == "b" ? m_b : m_c; }
    int fd(std::string const& name) {
        return name == "a" || name == "b" || name == "c" ? pair(name).get() : std::stoi(name);
    }
    TestClient& client(std::string const& name) {
        return name == "A" ? m_client : name == "B" ? m_other : m_third;
    }

    void change(std::string const& verb, std::string const& first, std::string const& second) {
        if (verb == "add") {
            m_poller.add(client(first), fd(second));
        } else if (verb == "stop") {
            m_poller.stop();
        } else if (isupper(first[0]) != 0) {
            m_poller.remove(client(first));
        } else {
            m_poller.remove(fd(first));
        }
    }
    /// Takes a step while a cycle without calls sleeps in another thread.
    void changeAsleep(std::string const& step) {
        Fault const polls(inject_poll, 0, 1, 1, Fault::Threads::ALL);
        std::thread loop([this, &step] { EXPECT_EQ("", cycle(step == "stop")); });
        EXPECT_TRUE(eventually([&] { return polls.getCalls() != 0; }));
        run({step});
        loop.join();
    }

    void run(Steps const& steps) {
        for (std::string const& step : steps) {
            SCOPED_TRACE(step);
            std::istringstream words(step);
            std::string verb;
            std::string first;
            std::string second;
            std::string third;
            words >> verb >> first >> second >> third;
            std::string const rest = step.substr(std::min(verb.size() + 1, step.size()));
            std::map<std::string, std::function<void()>> const verbs{
                {"add", [&] { change(verb, first, second); }},
                {"remove", [&] { change(verb, first, second); }},
                {"stop", [&] { change(verb, first, second); }},
                {"refused",
                 [&] {
                     NewFault const no_memory(New::SINGLE, 1, NewFault::FOREVER);
                     EXPECT_THROW(change(first, second, third), std::bad_alloc);
                 }},
                {"thread", [&] { std::thread([&] { run({rest}); }).join(); }},
                {"sleeping", [&] { changeAsleep(rest); }},
                {"once", [&] { run(std::exchange(m_done_once, true) ? Steps() : Steps{rest}); }},
                {"throw", [&] { throw std::runtime_error(step); }},
                {"throwWhenAsked", [&] { client(first).reactions["asked"] = [this] { run({"throw"}); }; }},
                {"throws",
                 [&] {
                     EXPECT_THROW(m_poller.poll(), std::runtime_error);
                     m_client.reactions.clear();
                     m_other.reactions.clear();
                 }},
                {"inner", [&] { EXPECT_FALSE(m_poller.poll()); }},
                {"unreadable",
                 [&] {
                     Fault const fault(inject_read, EIO);
                     EXPECT_FALSE(m_poller.poll());
                 }},
                {"unreadAndHungUp",
                 [&] {
                     pollfd row{fd(first), POLLIN, 0};
                     EXPECT_EQ(1, poll(&row, 1, 0));
                     EXPECT_EQ(POLLIN | POLLHUP, row.revents);
                 }},
                {"last", [&] { EXPECT_EQ(fd(second), client(first).last_fd); }},
                {"send", [&] { pair(first).send(); }},
                {"take", [&] { pair(first).take(); }},
                {"hangup", [&] { pair(first).closePeer(); }},
                {"close", [&] { pair(first).closeMine(); }},
                {"drain", [&] { drain(); }},
                {"commands", [&] { EXPECT_EQ(std::stoi(first), countCommands()); }},
                {"asked",
                 [&] {
                     std::vector<int> expected;
                     for (std::string const& name : {second, third}) {
                         name.empty() ? void() : expected.push_back(fd(name));
                     }
                     EXPECT_EQ(expected, client(first).asked);
                 }},
                {"stopped", [&] { EXPECT_EQ("", cycle(true)); }},
                {"cycle:", [&] { EXPECT_EQ(rest, cycle()); }}};
            verbs.at(verb)();
        }
    }

private:
    bool m_done_once = false;
};

TEST_P(PollerScenario, makesTheExpectedCalls) {
    EventRecorder const recorder;
    for (auto const& [call, steps] : GetParam().reactions) {
        client(call.substr(0, 1)).reactions[call.substr(2)] = [this, &steps = steps] { run(steps); };
    }
    for (TestClient* const client : {&m_client, &m_other, &m_third}) {
        client->events = GetParam().events;
    }
    run(GetParam().steps);
    EXPECT_EQ(GetParam().fatal_errors, recorder.getText());
}

constexpr int READ_WRITE = POLLIN | POLLOUT;

Scenario const SCENARIOS[] = {
    // Ready descriptors.
    {"aReadableDescriptorIsReadInEveryCycle",
     {"add A a", "cycle:", "send a", "cycle: A read", "cycle: A read", "take a", "remove 99999", "cycle:"}},
    {"aDescriptorReadyForBothIsReadAndWritten",
     {"add A a", "send a", "cycle: A read, A write"},
     {},
     READ_WRITE},
    {"callsAreOrderedByKindAndThenByAddition",
     {"hangup c", "add A b", "add B a", "add C c", "send a", "send b",
      "cycle: C error, A read, B read, A write, B write"},
     {},
     READ_WRITE},
    {"eventsAreAskedForInEveryCycle",
     {"add A a", "add A b", "drain", "send a", "cycle: A read", "asked A a b", "last A a"}},
    {"onlySixteenBitsOfTheEventsCount", {"add A a", "send a", "cycle: A write"}, {}, 0x7FFF0000 | POLLOUT},
    {"aNegativeDescriptorIsNeverReady",
     {"send b", "add A -1", "add B b", "cycle: B read", "asked A -1", "remove -1", "cycle: B read",
      "asked A"}},
    // Changes by threads and callbacks.
    {"anAdditionTakesEffectInTheNextCycle", {"send a", "thread add A a", "asked A", "cycle: A read"}},
    {"aCycleWithoutClientsWaitsForACommand", {"sleeping stop"}},
    {"aSleepingCycleIsWokenByAnAdditionWhichTheNextServesAndByARemoval",
     {"send a", "sleeping add A a", "cycle: A read", "take a", "sleeping remove A", "send a", "remove A",
      "cycle:"}},
    {"aClientMayStillBeCalledAfterItsRemovalHasReturnedInAnotherThread",
     {"send a", "send b", "add A a", "add B b", "cycle: A read, B read", "cycle: A read"},
     {{"A read", {"thread remove B"}}}},
    {"anotherThreadMayContinuePolling", {"send a", "add A a", "cycle: A read", "thread cycle: A read"}},
    {"anAdditionOrRemovalWithoutMemoryThrowsAndReleasesTheLock",
     {"send a", "refused add A a", "commands 0", "add A a", "cycle: A read", "refused remove A", "commands 0",
      "cycle: A read", "remove A", "cycle:"}},
    {"addThenRemoveBeforeACycleLeavesTheAddition",
     {"send a", "add A a", "remove A", "remove a", "cycle: A read", "cycle: A read"}},
    {"removeThenAddBeforeACycleDoublesThePairAndALaterRemovalTakesBoth",
     {"send a", "add A a", "drain", "remove A", "add A a", "cycle: A read, A read", "asked A a a", "remove A",
      "cycle:", "asked A"}},
    {"aPairAddedTwiceGetsItsCallsTwice", {"send a", "add A a", "add A a", "cycle: A read, A read"}},
    {"anAdditionCancelsOnlyTheRemovalOfItsOwnPair",
     {"send a", "send b", "add A a", "add A b", "add B b", "drain", "remove A", "add A a",
      "cycle: A read, B read, A read"}},
    {"removingAClientTakesAllItsDescriptors",
     {"send a", "send b", "add A a", "add B a", "add A b", "drain", "remove A", "cycle: B read"}},
    {"removingADescriptorTakesItFromAllClients",
     {"send a", "send b", "add A a", "add B a", "add A b", "drain", "remove a", "cycle: A read"}},
    {"removingAnUnknownClientOrDescriptorStillWakesIt",
     {"remove A", "commands 1", "cycle:", "remove 12345", "remove -1", "commands 2",
      "cycle:", "cycle:", "commands 0"}},
    {"aCycleTakesOneCommandOnly",
     {"add A a", "add A b", "remove B", "commands 3", "cycle:", "commands 2", "cycle:", "commands 1",
      "cycle:", "commands 0"}},
    {"allChangesAreAppliedInTheNextCycle",
     {"send a", "send b", "add A a", "add B b", "cycle: A read, B read", "commands 1"}},
    {"aCallbackThatRemovesAnotherClientDoesNotSilenceItInThisCycle",
     {"send a", "send b", "add A a", "add B b", "cycle: A read, B read", "cycle:"},
     {{"A read", {"remove B", "remove A"}}}},
    {"aCallbackMayAdd",
     {"send a", "send b", "add A a", "cycle: A read", "cycle: B read"},
     {{"A read", {"remove A", "add B b"}}}},
    {"aCallbackMayServeACycle",
     {"send a", "send b", "add A a", "add B b", "cycle: A read, A read, B read, B read"},
     {{"A read", {"once inner"}}}},
    {"callsRunWithoutALock",
     {"hangup c", "send a", "add A a", "add C c", "cycle: C error, A read"},
     {{"A read", {"remove B"}}, {"C error", {"remove B"}}}},
    // Failures of clients.
    {"aHungUpDescriptorWithDataLeftGetsTheErrorOnly",
     {"send a", "hangup a", "unreadAndHungUp a", "add A a", "cycle: A error"}},
    // The row of the failed client belongs to the other one when that throws.
    {"anExceptionOfPollEventsIsPassedOnAndNoOtherClientIsDropped",
     {"add A a", "add B b", "cycle:", "hangup a", "send b", "cycle: A error, B read", "throws",
      "cycle: B read"},
     {{"B read", {"throwWhenAsked B"}}}},
    {"anExceptionOfACallIsPassedOnAndPollingMayContinue",
     {"send a", "add A a", "throws", "cycle: A read"},
     {{"A read", {"throw"}}}},
    {"pollEventsRunsWithTheLockLocked",
     {"add A a", "cycle:"},
     {{"A asked", {"remove B"}}},
     POLLIN,
     "ABORT framework/src/vesk/posix/Poller remove: error locking\n"
     "ABORT framework/src/vesk/posix/Poller poll: error unlocking"},
    {"aFailedClientIsCalledOnceAndDroppedAtTheNextCycle",
     {"send b", "add A a", "add B b", "drain", "hangup a", "cycle: A error, B read", "asked A a",
      "cycle: B read", "asked A"}},
    {"aClientWithoutEventsIsStillCalledForErrors",
     {"send a", "add A a", "cycle:", "hangup a", "cycle: A error"},
     {},
     0},
    {"aClosedDescriptorInTheSetIsAnError",
     {"add A a", "drain", "close a", "cycle: A error", "remove B", "cycle:"}},
    {"aFailedPairThatWasAddedTwiceIsCalledTwiceAndDroppedCompletely",
     {"add A a", "add A a", "drain", "hangup a", "cycle: A error, A error", "remove B", "cycle:"}},
    {"aFailedClientThatAddsItselfAgainIsCalledAgain",
     {"hangup a", "add A a", "cycle: A error", "cycle: A error"},
     {{"A error", {"add A a"}}}},
    {"aFailedClientMayRemoveItself",
     {"hangup a", "add A a", "cycle: A error", "cycle:", "commands 0"},
     {{"A error", {"remove A"}}}},
    // Stops.
    {"aCommandThatCannotBeReadIsReadInTheNextCycle", {"stop", "unreadable", "stopped"}},
    {"aStoppedCycleMakesNoCallsAndTheNextMakesThem",
     {"add A a", "drain", "send a", "stop", "stopped", "cycle: A read"}},
    {"aClientThatFailsInAStoppedCycleIsCalledInTheNext",
     {"add A a", "drain", "hangup a", "stop", "stopped", "cycle: A error"}},
    {"twoStopsEndTwoCycles", {"stop", "stop", "stopped", "stopped", "remove A", "cycle:"}},
    {"stopsAndChangesKeepTheirOrder", {"add A a", "stop", "remove A", "cycle:", "stopped", "cycle:"}},
    {"aCallbackMayStopTheNextCycle",
     {"send a", "add A a", "cycle: A read", "stopped"},
     {{"A read", {"stop"}}}},
    {"stopTakesNoLock", {"add A a", "cycle:", "stopped"}, {{"A asked", {"stop"}}}},
};

INSTANTIATE_TEST_SUITE_P(All, PollerScenario, testing::ValuesIn(SCENARIOS), RowName());

TEST_F(PollerTest, aClientWithOnlyTheRequiredOperationIsCalledForErrorsOnly) {
    class Silent : public Poller::Client {
    public:
        void error(int) override { ++errors; }
        int errors = 0;
    } silent;
    EXPECT_EQ(0, silent.poll_events(m_a.get()));
    silent.read(m_a.get());
    silent.write(m_a.get());
    m_poller.add(silent, m_a.get());
    m_a.send();
    cycle();
    EXPECT_EQ(0, silent.errors);
    m_a.closePeer();
    cycle();
    EXPECT_EQ(1, silent.errors);
}

TEST_F(PollerTest, aPipeWithoutAReaderIsAnError) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    m_client.events = POLLOUT;
    m_poller.add(m_client, ends[1]);
    EXPECT_EQ("A write", cycle());
    close(ends[0]);
    EXPECT_EQ("A error", cycle());
    close(ends[1]);
}

// ---- threads ----

/// Receives one byte and notifies the thread that sent it.
class Acknowledger : public Poller::Client {
public:
    int poll_events(int) override {
        ++asked;
        return POLLIN;
    }
    void read(int fd) override {
        char byte = 0;
        if (recv(fd, &byte, 1, MSG_DONTWAIT) == 1) {
            std::lock_guard<std::mutex> const lock(m_mutex);
            ++m_bytes;
            m_condition.notify_one();
        }
    }
    void error(int) override { ADD_FAILURE() << "no descriptor fails here"; }

    void awaitBytes(int count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [&] { return m_bytes >= count; });
    }

    int asked = 0; // Not atomic: belongs to the polling thread.

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    int m_bytes = 0;
};

/// A poller that one thread serves while others change it.
class PollerStorm : public PollerTest {
protected:
    static constexpr int THREADS = 3;

    /// Runs `change` in several threads while another thread polls. `finish` precedes the stop.
    template <typename Change, typename Finish>
    void storm(Change change, Finish finish) {
        std::thread loop([this] {
            while (!m_poller.poll()) {}
        });
        runInThreads(THREADS, change);
        finish();
        m_poller.stop();
        loop.join();
    }
    /// Checks that the poller does not ask a client any more.
    void expectRemoved(Acknowledger const& client) {
        int const asked = client.asked;
        m_poller.stop();
        EXPECT_TRUE(m_poller.poll());
        EXPECT_EQ(asked, client.asked) << "still in the set";
    }
};

TEST_F(PollerStorm, threadsAddAndRemoveWhileAnotherPolls) {
    // Even the smallest pipe has room for a command of each call, so that no thread blocks on it.
    // Fewer where the loop is slow: as long as it does not keep up, the set grows, and each cycle takes longer.
    constexpr int ROUNDS = IS_SLOW ? 100 : 500;
    // They outlive the loop: a removed client may still be called, and its descriptor is used until the next
    // cycle.
    std::vector<Pair> pairs(THREADS);
    std::vector<Acknowledger> clients(THREADS);
    auto const change = [&](int thread) {
        auto const i = static_cast<size_t>(thread);
        for (int round = 0; round < ROUNDS; ++round) {
            m_poller.add(clients[i], pairs[i].get());
            pairs[i].send();
            clients[i].awaitBytes(round + 1);
            if (round % 2 == 0) {
                m_poller.remove(clients[i]);
            } else {
                m_poller.remove(pairs[i].get());
            }
        }
    };
    storm(change, [] {});
    // A removal may have come before the cycle of its addition, which then stays.
    for (Acknowledger const& client : clients) {
        m_poller.remove(client);
    }
    m_poller.stop();
    while (!m_poller.poll()) {}
    for (Acknowledger const& client : clients) {
        EXPECT_GE(client.asked, ROUNDS);
        expectRemoved(client);
    }
}

TEST_F(PollerStorm, threadsChangeTheSameClient) {
    Acknowledger client;
    auto const change = [&](int) {
        for (int round = 0; round < 400; ++round) {
            m_poller.add(client, m_a.get());
            m_poller.remove(client);
        }
    };
    storm(change, [&] {
        m_poller.remove(client);
        m_poller.add(client, m_b.get());
        m_b.send();
        client.awaitBytes(1);
        m_poller.remove(client);
    });
    expectRemoved(client);
}

// ---- memory ----

TEST_F(PollerTest, aSteadyStateDoesNotUseTheHeap) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "a sanitizer counts its own allocations";
    }
    class Quiet : public Poller::Client {
        int poll_events(int) override { return POLLIN | POLLOUT; }
        void error(int) override {}
    } quiet;
    m_a.send();
    m_poller.add(quiet, m_a.get());
    m_poller.add(quiet, m_b.get());
    for (int i = 0; i < 4; ++i) {
        m_poller.poll();
        m_poller.remove(quiet);
        m_poller.add(quiet, m_a.get());
        m_poller.poll();
        m_poller.remove(m_b.get());
        m_poller.add(quiet, m_b.get());
        m_poller.poll();
    }
    m_poller.remove(quiet);
    m_poller.poll();
    AllocationCounter const counter;
    for (int i = 0; i < 100; ++i) {
        m_poller.add(quiet, m_a.get());
        m_poller.poll();
        m_poller.remove(quiet);
        m_poller.poll();
    }
    EXPECT_EQ(0, counter.getCount());
}

TEST_F(PollerTest, aCycleWithoutMemoryThrowsAndLosesNothing) {
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    drain();
    m_a.closePeer();
    m_b.send();
    EXPECT_EQ("A error, B read", cycle());
    // The next cycle drops the failed client and adds others.
    std::vector<Pair> pairs(40);
    for (Pair const& pair : pairs) {
        m_poller.add(m_client, pair.get());
    }
    pairs.back().send();
    int refused = 0;
    bool served = false;
    for (int allowed = 0; !served && allowed < 20; ++allowed) {
        m_log.clear();
        m_client.asked.reserve(1000);
        m_other.asked.reserve(1000);
        m_log.reserve(1000);
        try {
            NewFault const no_memory(New::SINGLE, allowed + 1, NewFault::FOREVER);
            served = !m_poller.poll();
        } catch (std::bad_alloc const&) {
            EXPECT_EQ("", m_log) << "a cycle that fails makes no call";
            ++refused;
        }
    }
    EXPECT_TRUE(served);
    EXPECT_GE(refused, 3) << "several lists grow";
    EXPECT_EQ("B read, A read", cycle());
}

// ---- signals ----

VESK_TEST_BY(expectInChild, PollerSignals, thatAreOffDoNotInterruptACycleAndTimersRingOnTheirThread) {
    constexpr int CALLS = 100;
    static std::atomic<int> calls{0};
    static Poller poller;
    vesk::Timer timer(
        [](vesk::Timer*) {
            if (++calls == CALLS) {
                poller.stop();
            }
        },
        false);
    Poller::SignalsOff const signals_off;
    timer.start(1, true);
    while (!poller.poll()) {}
    timer.stop();
    EXPECT_LE(CALLS, calls);
}

TEST(PollerSignals, areBlockedInAScopeExceptThoseOfFaults) {
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    sigset_t inside;
    {
        Poller::SignalsOff const signals_off;
        pthread_sigmask(SIG_SETMASK, nullptr, &inside);
    }
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int const signal : {SIGINT, SIGTERM, SIGCHLD, SIGUSR1, SIGRTMIN + 2, SIGRTMIN + 3, SIGRTMAX - 2}) {
        EXPECT_EQ(1, sigismember(&inside, signal)) << signal;
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
    for (int const signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
        EXPECT_EQ(0, sigismember(&inside, signal)) << signal;
    }
}

TEST(PollerSignals, thatAreHandledInThePollingThreadEndTheProcess) {
    EXPECT_TRUE(abortsWith(
        "vesk::Poller::poll: poll failed, errno=" + std::to_string(EINTR) + " (" + strerror(EINTR) + ")", [] {
            ActionGuard const handled(
                SIGUSR1, [](int) {}, SA_RESTART);
            Poller poller;
            pid_t const target = getpid();
            if (fork() == 0) {
                // A signal may come before the call: then another one follows. Ends with its parent.
                while (getppid() == target) {
                    kill(target, SIGUSR1);
                    sched_yield();
                }
                _exit(0);
            }
            poller.poll();
        }));
}

// ---- the pipe ----

TEST(PollerPipe, usesTwoDescriptorsThatAreBlockingAndInheritedByNewPrograms) {
    int const before = countDescriptors();
    {
        Poller const poller;
        EXPECT_EQ(before + 2, countDescriptors());
        for (int const end : s_pipe) {
            int const flags = fcntl(end, F_GETFL);
            ASSERT_GE(flags, 0);
            EXPECT_EQ(0, flags & O_NONBLOCK);
            EXPECT_EQ(0, fcntl(end, F_GETFD)) << "no close-on-exec";
        }
    }
    EXPECT_EQ(before, countDescriptors());
}

TEST(PollerPipe, theDestructorClosesTheReadEndAndThenTheWriteEndAndNoClients) {
    Log log;
    Pair pair;
    TestClient client(log, "a");
    std::vector<int> closed;
    closed.reserve(8);
    int ends[2];
    {
        Poller poller;
        ends[0] = s_pipe[0];
        ends[1] = s_pipe[1];
        poller.add(client, pair.get());
        EXPECT_FALSE(poller.poll());
        s_closed = &closed;
    }
    s_closed = nullptr;
    EXPECT_EQ((std::vector<int>{ends[0], ends[1]}), closed);
    EXPECT_EQ("", log) << "clients are not called";
    EXPECT_GE(fcntl(pair.get(), F_GETFD), 0);
}

TEST(PollerPipe, creationThatFailsIsFatalButAPollerThatContinuesServesItsClients) {
    for (int const error : {EMFILE, ENFILE}) {
        SCOPED_TRACE(error);
        EventRecorder const recorder;
        Log log;
        Pair pair;
        TestClient client(log, "A");
        int const before = countDescriptors();
        {
            Fault fault(inject_pipe, error);
            Poller poller;
            EXPECT_EQ(before, countDescriptors());
            pair.send();
            poller.add(client, pair.get());
            poller.stop();
            EXPECT_FALSE(poller.poll());
            EXPECT_EQ("A read", log);
        }
        EXPECT_EQ(before, countDescriptors());
        EXPECT_EQ(
            "ABORT framework/src/vesk/posix/Poller Poller: vesk::Poller::c'tor: cannot create self-pipe, "
            "errno=" +
                std::to_string(error) + " (" + strerror(error) + ")",
            recorder.getText());
    }
}

TEST_F(PollerTest, writeToThePipeThatFailsIsIgnored) {
    m_a.send();
    for (int const error : {EBADF, EPIPE, EINTR, EIO}) {
        SCOPED_TRACE(error);
        {
            Fault const fault(inject_write, error, 1, Fault::FOREVER);
            m_poller.add(m_client, m_a.get());
            m_poller.remove(m_other);
            m_poller.remove(m_b.get());
            m_poller.stop();
            EXPECT_EQ(4, fault.getCalls());
        }
        EXPECT_EQ(0, countCommands());
        EXPECT_EQ("A read", cycle()) << "the change takes effect, the stop is lost";
        m_poller.remove(m_client);
        EXPECT_EQ("", cycle());
    }
}

// ---- fatal failures, after which a process that survives continues ----

/// A failure in a cycle with a readable client.
struct FatalRow {
    std::string name;
    std::string text;
    std::function<void()> fail;
    int poll_error = 0;
};

FatalRow unknownCommand(unsigned char command) {
    return {
        "command" + std::to_string(command),
        "vesk::Poller::poll(): unsupported command code " + std::to_string(command) + " on self-pipe!",
        [command] { ASSERT_EQ(1, write(s_pipe[1], &command, 1)); }};
}

FatalRow failedPoll(int error) {
    return {
        strerrorname_np(error),
        "vesk::Poller::poll: poll failed, errno=" + std::to_string(error) + " (" + strerror(error) + ")",
        [] {}, error};
}

class PollerFatalTest : public PollerTest {
protected:
    EventRecorder const m_recorder;
};

FatalRow const FATAL_ROWS[] = {
    unknownCommand(2),
    unknownCommand(7),
    unknownCommand(127),
    unknownCommand(128),
    unknownCommand(255),
    failedPoll(EINTR),
    failedPoll(EINVAL),
    failedPoll(ENOMEM),
    failedPoll(EFAULT),
    {"closedReadEnd", "vesk::Poller::poll: self-pipe failed", [] { EXPECT_EQ(0, close(s_pipe[0])); }},
    {"closedWriteEnd", "vesk::Poller::poll: self-pipe failed", [] {
         int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
         ASSERT_EQ(s_pipe[1], dup2(null, s_pipe[1]));
         close(null);
     }}};

VESK_TEST_TABLE(
    PollerFatal, failureIsFatalAndACycleThatContinuesServesTheReadyDescriptors, PollerFatalTest, FATAL_ROWS) {
    addReadable();
    GetParam().fail();
    {
        Fault const fault(inject_poll, GetParam().poll_error);
        EXPECT_EQ(GetParam().poll_error == 0 ? "A read" : "", cycle());
        EXPECT_EQ(1, fault.getCalls()) << "not repeated";
    }
    EXPECT_EQ("ABORT framework/src/vesk/posix/Poller poll: " + GetParam().text, m_recorder.getText());
    if (GetParam().name == "closedReadEnd") {
        int const null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(s_pipe[0], dup2(null, s_pipe[0])); // For the destructor.
        if (null != s_pipe[0]) {
            close(null);
        }
        return;
    }
    EXPECT_EQ(0, countCommands());
    if (GetParam().poll_error != 0) {
        EXPECT_EQ("A read", cycle());
    }
}

// ---- the poller of the process ----

using Reference = std::SharedBase::Ptr<Poller>;

TEST(PollerDefault, existsWhileThereIsAReferenceAndALaterOneGetsANewPoller) {
    Log log;
    Pair pair;
    TestClient client(log, "A");
    pair.send();
    int const before = countDescriptors();
    {
        Reference const first(Poller::DEFAULT);
        EXPECT_EQ(before + 2, countDescriptors());
        Reference const second(Poller::DEFAULT);
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(before + 2, countDescriptors());
        Poller own;
        EXPECT_NE(&own, first.get());
        first->stop();
    }
    EXPECT_EQ(before, countDescriptors());
    Reference const poller(Poller::DEFAULT);
    poller->add(client, pair.get());
    EXPECT_FALSE(poller->poll()) << "the old one was stopped";
    EXPECT_EQ("A read", log);
}

TEST(PollerClass, virtualOperationsOfAClientFollowItsDestructors) {
    EXPECT_EQ(2, getSlot(&Poller::Client::poll_events));
    EXPECT_EQ(3, getSlot(&Poller::Client::read));
    EXPECT_EQ(4, getSlot(&Poller::Client::write));
    EXPECT_EQ(5, getSlot(&Poller::Client::error));
    EXPECT_TRUE(std::is_abstract_v<Poller::Client>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Poller::Client>);
    EXPECT_FALSE(std::is_polymorphic_v<Poller>);
}

} // namespace
