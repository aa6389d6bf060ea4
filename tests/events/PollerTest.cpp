#include "support/AllocationCounter.h"
#include "support/Child.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <vesk/Poller.h>
#include <vesk/Timer.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_ERRNO(int, -1, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
VESK_INJECT_ERRNO(ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size))

namespace {
// The pipe that was made last.
int s_pipe[2] = {-1, -1};
// The descriptors that were closed while it was on.
std::vector<int>* s_closed = nullptr;
} // namespace

support::Injected inject_pipe("pipe");
extern "C" VESK_UNWATCHED int pipe(int* ends) {
    int error = 0;
    if (inject_pipe.fails(error)) {
        errno = error;
        return -1;
    }
    int const result = reinterpret_cast<int (*)(int*)>(inject_pipe.getReal())(ends);
    s_pipe[0] = ends[0];
    s_pipe[1] = ends[1];
    return result;
}

support::Injected inject_close("close");
extern "C" VESK_UNWATCHED int close(int fd) {
    if (s_closed != nullptr) {
        s_closed->push_back(fd);
    }
    return reinterpret_cast<int (*)(int)>(inject_close.getReal())(fd);
}

namespace {

using support::AllocationCounter;
using support::EventRecorder;
using support::Fault;
using support::getSlot;
using support::New;
using support::NewFault;
using support::runInChild;
using vesk::Poller;

/// What happened, in order. Belongs to the polling thread.
using Log = std::vector<std::string>;

/// Both ends of a stream between sockets; what is written into one end is read from the other.
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
    void send() const { EXPECT_EQ(1, send(m_ends[1], "x", 1, MSG_NOSIGNAL)); }
    void take() const {
        char byte = 0;
        EXPECT_EQ(1, recv(m_ends[0], &byte, 1, 0));
    }
    void closeMine() { closeEnd(m_ends[0]); }
    void closePeer() { closeEnd(m_ends[1]); }

private:
    static ssize_t send(int fd, void const* data, size_t size, int flags) {
        return ::send(fd, data, size, flags);
    }
    static void closeEnd(int& end) {
        if (end >= 0) {
            close(std::exchange(end, -1));
        }
    }

    int m_ends[2] = {-1, -1};
};

/// A client that logs its calls, by its name, and may do something in each.
class TestClient : public Poller::Client {
public:
    TestClient(Log& log, std::string name, int events = POLLIN)
        : m_log(log), m_name(std::move(name)), m_events(events) {}

    int poll_events(int fd) override {
        ++asked;
        last_asked = fd;
        if (on_poll_events) {
            on_poll_events(fd);
        }
        return m_events;
    }
    void read(int fd) override {
        m_log.push_back(m_name + " read");
        if (on_read) {
            on_read(fd);
        }
    }
    void write(int) override { m_log.push_back(m_name + " write"); }
    void error(int fd) override {
        m_log.push_back(m_name + " error");
        if (on_error) {
            on_error(fd);
        }
    }

    int asked = 0;
    int last_asked = -1;
    std::function<void(int)> on_poll_events;
    std::function<void(int)> on_read;
    std::function<void(int)> on_error;

private:
    Log& m_log;
    std::string m_name;
    int m_events;
};

class PollerTest : public testing::Test {
protected:
    PollerTest() {
        m_pipe[0] = s_pipe[0];
        m_pipe[1] = s_pipe[1];
    }

    /// Command bytes that no cycle has taken yet.
    int countCommands() const {
        int count = -1;
        EXPECT_EQ(0, ioctl(m_pipe[0], FIONREAD, &count));
        return count;
    }

    /// Serves as many cycles as there are commands, so that the next one waits for descriptors alone.
    void drain() {
        for (int left = countCommands(); left > 0; --left) {
            EXPECT_FALSE(m_poller.poll());
        }
        m_log.clear();
    }

    /// One cycle whose calls are the result.
    Log cycle() {
        m_log.clear();
        EXPECT_FALSE(m_poller.poll());
        return m_log;
    }

    Log m_log;
    Pair m_a;
    Pair m_b;
    TestClient m_client{m_log, "a"};
    TestClient m_other{m_log, "b"};
    Poller m_poller;
    int m_pipe[2];
};

// ---- Ready descriptors ----

TEST_F(PollerTest, aReadableDescriptorIsReadInEveryCycleWhileItIs) {
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{}, cycle()) << "not ready, but woken";
    m_a.send();
    int fd = -1;
    m_client.on_read = [&](int readable) { fd = readable; };
    EXPECT_EQ(Log{"a read"}, cycle());
    EXPECT_EQ(m_a.get(), fd);
    EXPECT_EQ(Log{"a read"}, cycle());
    m_a.take();
    m_poller.remove(99999);
    EXPECT_EQ(Log{}, cycle());
}

TEST_F(PollerTest, aDescriptorThatCanBeBothIsReadAndWritten) {
    TestClient both(m_log, "both", POLLIN | POLLOUT);
    m_poller.add(both, m_a.get());
    m_a.send();
    EXPECT_EQ((Log{"both read", "both write"}), cycle());
}

TEST_F(PollerTest, callsComeByKindFirstAndInTheOrderOfAddWithinAKind) {
    Pair failed;
    failed.closePeer();
    TestClient first(m_log, "first", POLLIN | POLLOUT);
    TestClient second(m_log, "second", POLLIN | POLLOUT);
    TestClient third(m_log, "third", POLLIN | POLLOUT);
    m_poller.add(first, m_b.get());
    m_poller.add(second, m_a.get());
    m_poller.add(third, failed.get());
    m_a.send();
    m_b.send();
    EXPECT_EQ((Log{"third error", "first read", "second read", "first write", "second write"}), cycle());
}

TEST_F(PollerTest, eventsAreAskedForInEveryCycle) {
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_client, m_b.get());
    drain();
    m_a.send();
    int const before = m_client.asked;
    cycle();
    EXPECT_EQ(before + 2, m_client.asked);
    EXPECT_EQ(m_b.get(), m_client.last_asked);
}

TEST_F(PollerTest, onlySixteenBitsOfTheEventsCount) {
    TestClient wide(m_log, "wide", 0x7FFF0000 | POLLOUT);
    m_poller.add(wide, m_a.get());
    m_a.send();
    EXPECT_EQ(Log{"wide write"}, cycle());
}

TEST_F(PollerTest, aClientOfOneOperationHearsOfErrorsOnly) {
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
    EXPECT_EQ(Log{}, cycle());
    EXPECT_EQ(0, silent.errors);
    m_a.closePeer();
    cycle();
    EXPECT_EQ(1, silent.errors);
}

TEST_F(PollerTest, aCycleWithoutClientsWaitsForACommand) {
    std::thread other([this] { m_poller.stop(); });
    EXPECT_TRUE(m_poller.poll());
    other.join();
}

// ---- Adding and removing ----

TEST_F(PollerTest, addThenRemoveBeforeACycleLeavesTheAddition) {
    m_a.send();
    m_poller.add(m_client, m_a.get());
    m_poller.remove(m_client);
    m_poller.remove(m_a.get());
    EXPECT_EQ(Log{"a read"}, cycle());
    EXPECT_EQ(Log{"a read"}, cycle());
}

TEST_F(PollerTest, removeThenAddBeforeACycleDoublesThePairAndALaterRemovalTakesBoth) {
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    m_poller.remove(m_client);
    m_poller.add(m_client, m_a.get());
    int const before = m_client.asked;
    EXPECT_EQ((Log{"a read", "a read"}), cycle());
    EXPECT_EQ(before + 2, m_client.asked) << "two rows";
    m_poller.remove(m_client);
    EXPECT_EQ(Log{}, cycle());
    EXPECT_EQ(before + 2, m_client.asked);
}

TEST_F(PollerTest, aPairAddedTwiceGetsItsCallsTwice) {
    m_a.send();
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ((Log{"a read", "a read"}), cycle());
}

TEST_F(PollerTest, anAdditionCancelsOnlyTheRemovalOfItsOwnPair) {
    m_a.send();
    m_b.send();
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_client, m_b.get());
    m_poller.add(m_other, m_b.get());
    drain();
    m_poller.remove(m_client);
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ((Log{"a read", "b read", "a read"}), cycle()) << "the addition stands at the end";
}

TEST_F(PollerTest, removingAClientTakesAllItsDescriptors) {
    m_a.send();
    m_b.send();
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_a.get());
    m_poller.add(m_client, m_b.get());
    drain();
    m_poller.remove(m_client);
    EXPECT_EQ(Log{"b read"}, cycle());
}

TEST_F(PollerTest, removingADescriptorTakesItFromAllClients) {
    m_a.send();
    m_b.send();
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_a.get());
    m_poller.add(m_client, m_b.get());
    drain();
    m_poller.remove(m_a.get());
    EXPECT_EQ(Log{"a read"}, cycle());
}

TEST_F(PollerTest, removingAnUnknownClientOrDescriptorStillWakesIt) {
    m_poller.remove(m_client);
    EXPECT_EQ(1, countCommands());
    EXPECT_FALSE(m_poller.poll());
    m_poller.remove(12345);
    m_poller.remove(-1);
    EXPECT_EQ(2, countCommands());
    EXPECT_FALSE(m_poller.poll());
    EXPECT_FALSE(m_poller.poll());
    EXPECT_EQ(0, countCommands());
}

TEST_F(PollerTest, aCycleTakesOneCommandOnly) {
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_client, m_b.get());
    m_poller.remove(m_other);
    for (int left = 3; left > 0; --left) {
        EXPECT_EQ(left, countCommands());
        EXPECT_EQ(Log{}, cycle());
    }
    EXPECT_EQ(0, countCommands());
}

TEST_F(PollerTest, allChangesAreAppliedInTheFirstCycleAfterThem) {
    m_a.send();
    m_b.send();
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    EXPECT_EQ((Log{"a read", "b read"}), cycle());
    EXPECT_EQ(1, countCommands());
}

TEST_F(PollerTest, anAdditionWhileNobodyPollsWaits) {
    m_a.send();
    std::thread([this] { m_poller.add(m_client, m_a.get()); }).join();
    EXPECT_EQ(0, m_client.asked);
    EXPECT_EQ(Log{"a read"}, cycle());
}

TEST_F(PollerTest, aBlockedCycleIsWokenByAnAdditionAndServesItInTheNext) {
    Fault const polls(inject_poll, 0, 1, 1, Fault::Threads::ALL);
    std::thread loop([this] {
        EXPECT_FALSE(m_poller.poll());
        EXPECT_EQ(Log{}, m_log);
        EXPECT_FALSE(m_poller.poll());
        EXPECT_EQ(Log{"a read"}, m_log);
    });
    while (polls.getCalls() == 0) {
        std::this_thread::yield();
    }
    m_a.send();
    m_poller.add(m_client, m_a.get());
    loop.join();
}

TEST_F(PollerTest, aBlockedCycleIsWokenByARemoval) {
    m_poller.add(m_client, m_a.get());
    drain();
    Fault const polls(inject_poll, 0, 1, 1, Fault::Threads::ALL);
    std::thread loop([this] { EXPECT_EQ(Log{}, cycle()); });
    while (polls.getCalls() == 0) {
        std::this_thread::yield();
    }
    m_poller.remove(m_client);
    loop.join();
    m_a.send();
    m_poller.remove(m_client);
    EXPECT_EQ(Log{}, cycle());
}

TEST_F(PollerTest, aClientMayStillBeCalledAfterItsRemovalHasReturnedInAnotherThread) {
    m_a.send();
    m_b.send();
    m_client.on_read = [this](int) { std::thread([this] { m_poller.remove(m_other); }).join(); };
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    EXPECT_EQ((Log{"a read", "b read"}), cycle());
    EXPECT_EQ(Log{"a read"}, cycle());
}

TEST_F(PollerTest, aCallbackThatRemovesAnotherClientDoesNotSilenceItInThisCycle) {
    m_a.send();
    m_b.send();
    m_client.on_read = [this](int) {
        m_poller.remove(m_other);
        m_poller.remove(m_client);
    };
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    EXPECT_EQ((Log{"a read", "b read"}), cycle());
    EXPECT_EQ(Log{}, cycle());
}

TEST_F(PollerTest, aCallbackMayAdd) {
    m_a.send();
    m_b.send();
    m_client.on_read = [this](int) {
        m_poller.remove(m_client);
        m_poller.add(m_other, m_b.get());
    };
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{"a read"}, cycle());
    EXPECT_EQ(Log{"b read"}, cycle());
}

TEST_F(PollerTest, aNegativeDescriptorIsNeverReady) {
    m_b.send();
    m_poller.add(m_client, -1);
    m_poller.add(m_other, m_b.get());
    EXPECT_EQ(Log{"b read"}, cycle());
    EXPECT_EQ(1, m_client.asked);
    m_poller.remove(-1);
    EXPECT_EQ(Log{"b read"}, cycle());
    EXPECT_EQ(1, m_client.asked);
}

TEST_F(PollerTest, aCallbackMayServeACycleOfItsOwn) {
    m_a.send();
    m_b.send();
    bool inside = false;
    m_client.on_read = [&](int) {
        if (!std::exchange(inside, true)) {
            EXPECT_FALSE(m_poller.poll());
        }
    };
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    EXPECT_EQ((Log{"a read", "a read", "b read", "b read"}), cycle());
}

// ---- Failed descriptors ----

TEST_F(PollerTest, aFailedClientIsToldOnceAndDroppedAtTheNextCycle) {
    m_b.send();
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    drain();
    m_a.closePeer();
    int const before = m_client.asked;
    EXPECT_EQ((Log{"a error", "b read"}), cycle());
    EXPECT_EQ(before + 1, m_client.asked);
    EXPECT_EQ(Log{"b read"}, cycle());
    EXPECT_EQ(before + 1, m_client.asked);
}

TEST_F(PollerTest, aClientWithoutEventsIsStillToldOfErrors) {
    TestClient nothing(m_log, "nothing", 0);
    m_a.send();
    m_poller.add(nothing, m_a.get());
    EXPECT_EQ(Log{}, cycle());
    m_a.closePeer();
    EXPECT_EQ(Log{"nothing error"}, cycle());
}

TEST_F(PollerTest, aHungUpDescriptorWithDataLeftGetsTheErrorOnly) {
    m_a.send();
    m_a.closePeer();
    pollfd row{m_a.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&row, 1, 0));
    ASSERT_EQ(POLLIN | POLLHUP, row.revents);
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{"a error"}, cycle());
}

TEST_F(PollerTest, aClosedDescriptorInTheSetIsAnError) {
    m_poller.add(m_client, m_a.get());
    drain();
    m_a.closeMine();
    EXPECT_EQ(Log{"a error"}, cycle());
    m_poller.remove(m_other);
    EXPECT_EQ(Log{}, cycle());
}

TEST_F(PollerTest, aPipeWithoutAReaderIsAnError) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    TestClient writer(m_log, "writer", POLLOUT);
    m_poller.add(writer, ends[1]);
    EXPECT_EQ(Log{"writer write"}, cycle());
    close(ends[0]);
    EXPECT_EQ(Log{"writer error"}, cycle());
    close(ends[1]);
}

TEST_F(PollerTest, aFailedPairInTwoRowsIsToldTwiceAndDroppedAltogether) {
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_client, m_a.get());
    drain();
    m_a.closePeer();
    EXPECT_EQ((Log{"a error", "a error"}), cycle());
    m_poller.remove(m_other);
    EXPECT_EQ(Log{}, cycle());
}

TEST_F(PollerTest, aFailedClientThatAddsItselfAgainIsToldAgain) {
    m_a.closePeer();
    m_client.on_error = [this](int fd) { m_poller.add(m_client, fd); };
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{"a error"}, cycle());
    EXPECT_EQ(Log{"a error"}, cycle());
}

TEST_F(PollerTest, aFailedClientMayRemoveItself) {
    m_a.closePeer();
    m_client.on_error = [this](int) { m_poller.remove(m_client); };
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{"a error"}, cycle());
    EXPECT_EQ(Log{}, cycle());
    EXPECT_EQ(0, countCommands());
}

// ---- Stopping ----

TEST_F(PollerTest, aStoppedCycleMakesNoCallsAndTheNextMakesThem) {
    m_poller.add(m_client, m_a.get());
    drain();
    m_a.send();
    m_poller.stop();
    EXPECT_TRUE(m_poller.poll());
    EXPECT_EQ(Log{}, m_log);
    EXPECT_EQ(Log{"a read"}, cycle());
}

TEST_F(PollerTest, aClientThatFailedInAStoppedCycleIsToldInTheNext) {
    m_poller.add(m_client, m_a.get());
    drain();
    m_a.closePeer();
    m_poller.stop();
    EXPECT_TRUE(m_poller.poll());
    EXPECT_EQ(Log{}, m_log);
    EXPECT_EQ(Log{"a error"}, cycle());
}

TEST_F(PollerTest, twoStopsGiveTwoTrueResults) {
    m_poller.stop();
    m_poller.stop();
    EXPECT_TRUE(m_poller.poll());
    EXPECT_TRUE(m_poller.poll());
    m_poller.remove(m_client);
    EXPECT_FALSE(m_poller.poll());
}

TEST_F(PollerTest, stopsAndChangesKeepTheirOrder) {
    m_poller.add(m_client, m_a.get());
    m_poller.stop();
    m_poller.remove(m_client);
    EXPECT_FALSE(m_poller.poll());
    EXPECT_TRUE(m_poller.poll());
    EXPECT_FALSE(m_poller.poll());
}

TEST_F(PollerTest, aCallbackMayStop) {
    m_a.send();
    m_client.on_read = [this](int) { m_poller.stop(); };
    m_poller.add(m_client, m_a.get());
    EXPECT_FALSE(m_poller.poll()) << "the cycle is served to its end";
    EXPECT_TRUE(m_poller.poll());
}

TEST_F(PollerTest, stopTakesNoLock) {
    EventRecorder const recorder;
    m_client.on_poll_events = [this](int) { m_poller.stop(); };
    m_poller.add(m_client, m_a.get());
    EXPECT_FALSE(m_poller.poll());
    m_client.on_poll_events = nullptr;
    EXPECT_TRUE(m_poller.poll());
    EXPECT_EQ("", recorder.getText());
}

// ---- Threads ----

TEST_F(PollerTest, anotherThreadMayGoOnPolling) {
    m_a.send();
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{"a read"}, cycle());
    std::thread([this] { EXPECT_EQ(Log{"a read"}, cycle()); }).join();
}

/// Takes one byte and tells the thread that sent it.
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
    void error(int) override { ADD_FAILURE() << "nothing fails here"; }

    void awaitBytes(int count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [&] { return m_bytes >= count; });
    }

    int asked = 0; // Not atomic: the polling thread's.

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    int m_bytes = 0;
};

TEST_F(PollerTest, threadsAddAndRemoveInAStormWhileAnotherPolls) {
    constexpr int THREADS = 3;
    // Even the smallest pipe has room for a command of each call, so that nobody blocks on it.
    constexpr int ROUNDS = 500;
    // They outlive the loop: a removal is no silence, and gives no descriptor free before the next cycle.
    std::vector<Pair> pairs(THREADS);
    std::vector<Acknowledger> clients(THREADS);
    std::thread loop([this] {
        while (!m_poller.poll()) {}
    });
    std::vector<std::thread> threads;
    for (size_t i = 0; i < THREADS; ++i) {
        threads.emplace_back([this, &pair = pairs[i], &client = clients[i]] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_poller.add(client, pair.get());
                pair.send();
                client.awaitBytes(round + 1);
                if (round % 2 == 0) {
                    m_poller.remove(client);
                } else {
                    m_poller.remove(pair.get());
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_poller.stop();
    loop.join();
    // A removal may have come before the cycle of its addition, which then stands.
    for (Acknowledger const& client : clients) {
        m_poller.remove(client);
    }
    m_poller.stop();
    while (!m_poller.poll()) {}
    std::vector<int> asked;
    for (Acknowledger const& client : clients) {
        EXPECT_GE(client.asked, ROUNDS);
        asked.push_back(client.asked);
    }
    m_poller.stop();
    EXPECT_TRUE(m_poller.poll());
    for (size_t i = 0; i < THREADS; ++i) {
        EXPECT_EQ(asked[i], clients[i].asked) << "still in the set";
    }
}

TEST_F(PollerTest, threadsChangeTheSameClientInAStorm) {
    constexpr int THREADS = 3;
    constexpr int ROUNDS = 400;
    Acknowledger client;
    std::thread loop([this] {
        while (!m_poller.poll()) {}
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this, &client] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_poller.add(client, m_a.get());
                m_poller.remove(client);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_poller.remove(client);
    m_poller.add(client, m_b.get());
    m_b.send();
    client.awaitBytes(1);
    m_poller.remove(client);
    m_poller.stop();
    loop.join();
    int const asked = client.asked;
    m_poller.stop();
    EXPECT_TRUE(m_poller.poll());
    EXPECT_EQ(asked, client.asked);
}

// ---- Memory ----

TEST_F(PollerTest, aSteadyStateDoesNotUseTheHeap) {
    if (!support::COUNTS_ALLOCATIONS) {
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

TEST_F(PollerTest, anAdditionWithoutMemoryPassesTheExceptionAndFreesTheLock) {
    EventRecorder const recorder;
    {
        NewFault const no_memory(New::SINGLE, 1, NewFault::FOREVER);
        EXPECT_THROW(m_poller.add(m_client, m_a.get()), std::bad_alloc);
    }
    EXPECT_EQ(0, countCommands());
    m_a.send();
    m_poller.add(m_client, m_a.get());
    EXPECT_EQ(Log{"a read"}, cycle());
    EXPECT_EQ("", recorder.getText());
}

TEST_F(PollerTest, aRemovalWithoutMemoryPassesTheExceptionAndFreesTheLock) {
    EventRecorder const recorder;
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    {
        NewFault const no_memory(New::SINGLE, 1, NewFault::FOREVER);
        EXPECT_THROW(m_poller.remove(m_client), std::bad_alloc);
    }
    EXPECT_EQ(0, countCommands());
    EXPECT_EQ(Log{"a read"}, cycle());
    m_poller.remove(m_client);
    EXPECT_EQ(Log{}, cycle());
    EXPECT_EQ("", recorder.getText());
}

TEST_F(PollerTest, aCycleWithoutMemoryPassesTheExceptionAndLosesNothing) {
    EventRecorder const recorder;
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    drain();
    m_a.closePeer();
    m_b.send();
    EXPECT_EQ((Log{"a error", "b read"}), cycle());
    // Now a failed client is to be dropped and others are to come in.
    std::vector<std::unique_ptr<Pair>> pairs;
    for (int i = 0; i < 40; ++i) {
        pairs.push_back(std::make_unique<Pair>());
        m_poller.add(m_client, pairs.back()->get());
    }
    pairs.back()->send();
    int refused = 0;
    bool served = false;
    for (int allowed = 0; !served && allowed < 20; ++allowed) {
        m_log.clear();
        try {
            NewFault const no_memory(New::SINGLE, allowed + 1, NewFault::FOREVER);
            m_client.on_read = nullptr;
            served = !m_poller.poll();
        } catch (std::bad_alloc const&) {
            EXPECT_EQ(Log{}, m_log) << "nobody is called in half a cycle";
            ++refused;
        }
    }
    EXPECT_TRUE(served);
    EXPECT_GE(refused, 3) << "several lists grow";
    EXPECT_EQ((Log{"b read", "a read"}), cycle());
    EXPECT_EQ("", recorder.getText());
}

// ---- Exceptions of clients ----

TEST_F(PollerTest, anExceptionOfPollEventsPassesOutAndNoOtherClientIsTakenForFailed) {
    EventRecorder const recorder;
    m_poller.add(m_client, m_a.get());
    m_poller.add(m_other, m_b.get());
    drain();
    m_a.closePeer();
    m_b.send();
    EXPECT_EQ((Log{"a error", "b read"}), cycle());
    // The failed client's row is now that of the other one.
    m_other.on_poll_events = [](int) { throw std::runtime_error("bad"); };
    EXPECT_THROW(m_poller.poll(), std::runtime_error);
    m_other.on_poll_events = nullptr;
    EXPECT_EQ(Log{"b read"}, cycle());
    EXPECT_EQ("", recorder.getText());
}

TEST_F(PollerTest, anExceptionOfACallPassesOutAndItCanBePolledAgain) {
    m_a.send();
    m_client.on_read = [](int) { throw std::runtime_error("bad"); };
    m_poller.add(m_client, m_a.get());
    EXPECT_THROW(m_poller.poll(), std::runtime_error);
    m_client.on_read = nullptr;
    EXPECT_EQ(Log{"a read"}, cycle());
}

// ---- Signals ----

TEST(PollerSignals, thatAreOffDoNotInterruptACycleAndTimersRingOnTheirThread) {
    support::ChildEnd const end = support::runInChild([] {
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
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(PollerSignals, areBlockedInAScopeAllButThoseOfFaults) {
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

// ---- The pipe ----

TEST(PollerPipe, bothEndsAreBlocking) {
    Poller const poller;
    for (int const end : s_pipe) {
        int const flags = fcntl(end, F_GETFL);
        ASSERT_GE(flags, 0);
        EXPECT_EQ(0, flags & O_NONBLOCK);
    }
}

TEST(PollerPipe, theEndClosesTheReadEndAndThenTheWriteEndAndNoClients) {
    Log log;
    Pair pair;
    TestClient client(log, "a");
    std::vector<int> closed;
    int ends[2];
    {
        Poller poller;
        ends[0] = s_pipe[0];
        ends[1] = s_pipe[1];
        poller.add(client, pair.get());
        EXPECT_FALSE(poller.poll());
        closed.reserve(8);
        s_closed = &closed;
    }
    s_closed = nullptr;
    EXPECT_EQ((std::vector<int>{ends[0], ends[1]}), closed);
    EXPECT_EQ(Log{}, log) << "clients are not told";
    EXPECT_GE(fcntl(pair.get(), F_GETFD), 0);
}

TEST(PollerPipe, keepsTwoDescriptors) {
    int const before = support::countDescriptors();
    {
        Poller const poller;
        EXPECT_EQ(before + 2, support::countDescriptors());
    }
    EXPECT_EQ(before, support::countDescriptors());
}

class PollerPipeCreation : public testing::TestWithParam<int> {};

TEST_P(PollerPipeCreation, failureIsFatal) {
    EventRecorder const recorder;
    int const before = support::countDescriptors();
    {
        Fault fault(inject_pipe, GetParam());
        Poller const poller;
        EXPECT_EQ(before, support::countDescriptors());
    }
    EXPECT_EQ(before, support::countDescriptors());
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/Poller Poller: vesk::Poller::c'tor: cannot create self-pipe, errno=" +
            std::to_string(GetParam()) + " (" + strerror(GetParam()) + ")",
        recorder.getText());
}

TEST_P(PollerPipeCreation, whereItIsSurvivedClientsAreServedAllTheSame) {
    EventRecorder const recorder;
    Log log;
    Pair pair;
    TestClient client(log, "a");
    Fault fault(inject_pipe, GetParam());
    Poller poller;
    pair.send();
    poller.add(client, pair.get());
    poller.stop();
    EXPECT_FALSE(poller.poll());
    EXPECT_EQ(Log{"a read"}, log);
    EXPECT_EQ(1U, recorder.getCount());
}

INSTANTIATE_TEST_SUITE_P(All, PollerPipeCreation, testing::Values(EMFILE, ENFILE));

class PollerPipeWrite : public PollerTest, public testing::WithParamInterface<int> {};

TEST_P(PollerPipeWrite, failureIsIgnored) {
    EventRecorder const recorder;
    m_a.send();
    {
        Fault const fault(inject_write, GetParam(), 1, Fault::FOREVER);
        m_poller.add(m_client, m_a.get());
        m_poller.remove(m_other);
        m_poller.remove(m_b.get());
        m_poller.stop();
        EXPECT_EQ(4, fault.getCalls());
    }
    EXPECT_EQ(0, countCommands());
    EXPECT_EQ(Log{"a read"}, cycle()) << "the change itself stands, the stop is lost";
    EXPECT_EQ("", recorder.getText());
}

INSTANTIATE_TEST_SUITE_P(All, PollerPipeWrite, testing::Values(EBADF, EPIPE, EINTR, EIO));

TEST_F(PollerTest, aCommandThatCannotBeReadIsReadInTheNextCycle) {
    EventRecorder const recorder;
    m_poller.stop();
    {
        Fault const fault(inject_read, EIO);
        EXPECT_FALSE(m_poller.poll());
    }
    EXPECT_TRUE(m_poller.poll());
    EXPECT_EQ("", recorder.getText());
}

class PollerCommand : public PollerTest, public testing::WithParamInterface<int> {};

TEST_P(PollerCommand, anUnknownOneIsFatal) {
    EventRecorder const recorder;
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    auto const command = static_cast<unsigned char>(GetParam());
    ASSERT_EQ(1, write(m_pipe[1], &command, 1));
    EXPECT_EQ(Log{"a read"}, cycle()) << "the code behind a fatal error goes on";
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/Poller poll: vesk::Poller::poll(): unsupported command code " +
            std::to_string(GetParam()) + " on self-pipe!",
        recorder.getText());
    EXPECT_EQ(0, countCommands());
}

INSTANTIATE_TEST_SUITE_P(All, PollerCommand, testing::Values(2, 7, 127, 128, 255));

TEST_F(PollerTest, aClosedReadEndIsFatal) {
    EventRecorder const recorder;
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    int const null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(null, 0);
    close(m_pipe[0]);
    EXPECT_EQ(Log{"a read"}, cycle()) << "the code behind a fatal error goes on";
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/Poller poll: vesk::Poller::poll: self-pipe failed",
        recorder.getText());
    ASSERT_EQ(m_pipe[0], dup2(null, m_pipe[0])); // For the destructor.
    close(null);
}

TEST_F(PollerTest, aClosedWriteEndIsFatal) {
    EventRecorder const recorder;
    int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(null, 0);
    ASSERT_EQ(m_pipe[1], dup2(null, m_pipe[1]));
    close(null);
    EXPECT_FALSE(m_poller.poll());
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/Poller poll: vesk::Poller::poll: self-pipe failed",
        recorder.getText());
}

// ---- The system's call fails ----

class PollerPollRows : public PollerTest, public testing::WithParamInterface<int> {};

TEST_P(PollerPollRows, anyFailureIsFatal) {
    EventRecorder const recorder;
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    {
        Fault const fault(inject_poll, GetParam());
        EXPECT_EQ(Log{}, cycle()) << "the code behind a fatal error goes on, with nothing ready";
        EXPECT_EQ(1, fault.getCalls()) << "not repeated";
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/Poller poll: vesk::Poller::poll: poll failed, errno=" +
            std::to_string(GetParam()) + " (" + strerror(GetParam()) + ")",
        recorder.getText());
    EXPECT_EQ(Log{"a read"}, cycle());
}

INSTANTIATE_TEST_SUITE_P(All, PollerPollRows, testing::Values(EINTR, EINVAL, ENOMEM, EFAULT));

TEST_F(PollerTest, aSignalHandledInThePollingThreadEndsTheProcess) {
    support::ChildEnd const end = runInChild([this] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
        pid_t const target = getpid();
        if (fork() == 0) {
            // A signal may come before the call: then another one follows. Ends with its parent.
            while (getppid() == target) {
                kill(target, SIGUSR1);
                sched_yield();
            }
            _exit(0);
        }
        m_poller.poll();
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(
        std::string::npos,
        end.errors.find(
            "vesk::Poller::poll: poll failed, errno=" + std::to_string(EINTR) + " (" + strerror(EINTR) + ")"))
        << end.errors;
}

// ---- The lock fails ----

struct Operation {
    char const* function;
    void (*call)(Poller& poller, Poller::Client& client);
    int nth = 1;
};

void PrintTo(Operation const& operation, std::ostream* out) {
    *out << operation.function << " lock " << operation.nth;
}

class PollerLock : public PollerTest, public testing::WithParamInterface<Operation> {
protected:
    std::string text(char const* message) const {
        return std::string("ABORT framework/src/vesk/posix/Poller ") + GetParam().function + ": " + message;
    }
};

TEST_P(PollerLock, failingToLockIsFatal) {
    EventRecorder const recorder;
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL, GetParam().nth);
        GetParam().call(m_poller, m_client);
    }
    EXPECT_EQ(text("error locking") + "\n" + text("error unlocking"), recorder.getText());
}

TEST_P(PollerLock, failingToUnlockIsFatal) {
    EventRecorder const recorder;
    m_a.send();
    m_poller.add(m_client, m_a.get());
    drain();
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM, GetParam().nth);
        GetParam().call(m_poller, m_client);
    }
    EXPECT_EQ(text("error unlocking"), recorder.getText().substr(0, text("error unlocking").size()));
    if (recorder.getCount() == 1) {
        m_poller.remove(m_other); // Frees the lock.
    }
    EXPECT_EQ(2U, recorder.getCount());
}

TEST_P(PollerLock, fatalMeansThatTheProcessEnds) {
    support::ChildEnd const end = runInChild([this] {
        m_a.send();
        m_poller.add(m_client, m_a.get());
        m_poller.poll();
        Fault const fault(inject_pthread_mutex_lock, EINVAL, GetParam().nth);
        GetParam().call(m_poller, m_client);
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error locking")) << end.errors;
}

INSTANTIATE_TEST_SUITE_P(
    All, PollerLock,
    testing::Values(
        Operation{"add", [](Poller& poller, Poller::Client& client) { poller.add(client, 5); }},
        Operation{"remove", [](Poller& poller, Poller::Client& client) { poller.remove(client); }},
        Operation{"remove", [](Poller& poller, Poller::Client&) { poller.remove(5); }},
        Operation{"poll", [](Poller& poller, Poller::Client&) { poller.poll(); }},
        Operation{"poll", [](Poller& poller, Poller::Client&) { poller.poll(); }, 2}));

TEST_F(PollerTest, pollEventsRunsWithTheLockHeld) {
    EventRecorder const recorder;
    m_client.on_poll_events = [this](int) { m_poller.remove(m_other); };
    m_poller.add(m_client, m_a.get());
    EXPECT_FALSE(m_poller.poll());
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/Poller remove: error locking\n"
        "ABORT framework/src/vesk/posix/Poller poll: error unlocking",
        recorder.getText());
}

TEST_F(PollerTest, callsRunWithoutALock) {
    EventRecorder const recorder;
    Pair failed;
    failed.closePeer();
    TestClient third(m_log, "c");
    m_a.send();
    m_client.on_read = [this](int) { m_poller.remove(m_other); };
    third.on_error = [this](int) { m_poller.remove(m_other); };
    m_poller.add(m_client, m_a.get());
    m_poller.add(third, failed.get());
    EXPECT_EQ((Log{"c error", "a read"}), cycle());
    EXPECT_EQ("", recorder.getText());
}

// ---- The poller of the process ----

TEST(PollerDefault, existsWhileSomebodyHoldsAReference) {
    using Reference = std::SharedBase::Ptr<Poller>;
    int const before = support::countDescriptors();
    {
        Reference const first(Poller::DEFAULT);
        EXPECT_EQ(before + 2, support::countDescriptors());
        Reference const second(Poller::DEFAULT);
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(before + 2, support::countDescriptors());
        Poller own;
        EXPECT_NE(&own, first.get());
    }
    EXPECT_EQ(before, support::countDescriptors());
}

TEST(PollerDefault, aLaterReferenceGetsAFreshOne) {
    using Reference = std::SharedBase::Ptr<Poller>;
    Log log;
    Pair pair;
    TestClient client(log, "a");
    {
        Reference const poller(Poller::DEFAULT);
        poller->stop();
    }
    Reference const poller(Poller::DEFAULT);
    pair.send();
    poller->add(client, pair.get());
    EXPECT_FALSE(poller->poll()) << "the stop went with the old one";
    EXPECT_EQ(Log{"a read"}, log);
}

// ---- The class ----

TEST(PollerClass, virtualOperationsOfAClientFollowItsDestructors) {
    EXPECT_EQ(2, getSlot(&Poller::Client::poll_events));
    EXPECT_EQ(3, getSlot(&Poller::Client::read));
    EXPECT_EQ(4, getSlot(&Poller::Client::write));
    EXPECT_EQ(5, getSlot(&Poller::Client::error));
    EXPECT_TRUE(std::is_abstract_v<Poller::Client>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Poller::Client>);
    EXPECT_FALSE(std::is_polymorphic_v<Poller>);
}

TEST(PollerPipe, isInheritedByNewPrograms) {
    Poller const poller;
    for (int const end : s_pipe) {
        EXPECT_EQ(0, fcntl(end, F_GETFD)) << "no close-on-exec";
    }
}

} // namespace
