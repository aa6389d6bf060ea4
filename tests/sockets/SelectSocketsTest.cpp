#include "TestSocket.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Privileges.h"
#include "threads/ThreadSupport.h"

#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <ostream>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
/// What `select` was given, in each of its calls.
struct Call {
    int count;
    timeval* limit;
    timeval time;
    std::vector<int> marks[3];
};
std::vector<Call>* s_calls = nullptr;
// Whether a call comes back at once, as after its time.
bool s_pretend = false;
std::atomic<bool> s_waits{false};

std::vector<int> getMarked(fd_set const* marks) {
    std::vector<int> marked;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        if (FD_ISSET(fd, marks)) {
            marked.push_back(fd);
        }
    }
    return marked;
}
} // namespace

support::Injected inject_select("select");
extern "C" VESK_UNWATCHED int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
    if (s_calls != nullptr) {
        s_calls->push_back(
            {count,
             limit,
             limit != nullptr ? *limit : timeval{},
             {getMarked(read), getMarked(write), getMarked(except)}});
    }
    int error = 0;
    if (inject_select.fails(error)) {
        errno = error;
        return -1;
    }
    if (s_pretend) {
        return 0;
    }
    s_waits = true;
    return reinterpret_cast<int (*)(int, fd_set*, fd_set*, fd_set*, timeval*)>(inject_select.getReal())(
        count, read, write, except, limit);
}

namespace {

using support::chainIs;
using support::ChildEnd;
using support::Ends;
using support::EventRecorder;
using support::Fault;
using support::makeEnds;
using support::makeTcpEnds;
using support::rowText;
using support::runInChild;
using support::systemText;
using support::TestSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using Sockets = std::set<Socket const*>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Long enough for anything that happens at all.
constexpr unsigned int LONG = 60000;

/// Records what `select` is given, while it lives.
class Recorder {
public:
    Recorder() { s_calls = &m_calls; }
    ~Recorder() { s_calls = nullptr; }
    Recorder(Recorder const&) = delete;
    Recorder& operator=(Recorder const&) = delete;

    std::vector<Call> const& get() const { return m_calls; }

private:
    std::vector<Call> m_calls;
};

/// A connection with a socket on one end.
struct Connection {
    explicit Connection(Ends&& made) : ends(made.takeMine(), dup(made.getPeer())), socket(ends.takeMine()) {}
    Connection() : Connection(makeEnds()) {}

    /// Lets it take no more.
    void fill() {
        std::vector<char> const much(1 << 20, 'x');
        while (::send(socket.getSocketFd(), much.data(), much.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {}
    }

    Ends ends;
    TestSocket socket;
};

// ---- Ready ----

TEST(SelectSockets, leavesInEachSetWhatIsReadyAndRemovesTheOthers) {
    Connection silent;
    Connection talking;
    Connection full;
    full.fill();
    talking.ends.send("x");
    Sockets const all = {&silent.socket, &talking.socket, &full.socket};
    Sockets read = all;
    Sockets write = all;
    Sockets except = all;
    EXPECT_EQ(3, Socket::selectSockets(read, write, except, LONG, true));
    EXPECT_EQ((Sockets{&talking.socket}), read);
    EXPECT_EQ((Sockets{&silent.socket, &talking.socket}), write);
    EXPECT_EQ(Sockets{}, except);
    EXPECT_TRUE(chainIs({}));
}

TEST(SelectSockets, givesTheMarksOfEachSetToTheSystem) {
    Connection one;
    Connection two;
    Connection three;
    Sockets read = {&one.socket, &two.socket};
    Sockets write = {&three.socket};
    Sockets except = {&two.socket};
    int const fds[] = {one.socket.getSocketFd(), two.socket.getSocketFd(), three.socket.getSocketFd()};
    Recorder const recorder;
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, LONG, true));
    ASSERT_EQ(1U, recorder.get().size());
    Call const& call = recorder.get()[0];
    EXPECT_EQ(*std::max_element(std::begin(fds), std::end(fds)) + 1, call.count);
    std::vector<int> both = {fds[0], fds[1]};
    std::sort(both.begin(), both.end());
    EXPECT_EQ(both, call.marks[0]);
    EXPECT_EQ(std::vector<int>{fds[2]}, call.marks[1]);
    EXPECT_EQ(std::vector<int>{fds[1]}, call.marks[2]);
}

TEST(SelectSockets, countsMarksAndNotSockets) {
    Connection connection;
    connection.ends.send("x");
    Sockets read = {&connection.socket};
    Sockets write = {&connection.socket};
    Sockets except;
    EXPECT_EQ(2, Socket::selectSockets(read, write, except, LONG, true)) << "one socket in two sets";
    EXPECT_EQ(1U, read.size());
    EXPECT_EQ(1U, write.size());

    TestSocket again(connection.socket.getSocketFd());
    read = {&connection.socket, &again};
    write.clear();
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, LONG, true)) << "two sockets, one descriptor";
    EXPECT_EQ(2U, read.size());
    again.forget();
}

TEST(SelectSockets, endOfTheOtherSideMakesItReadyToRead) {
    Connection connection;
    connection.ends.closePeer();
    Sockets read = {&connection.socket};
    Sockets write;
    Sockets except;
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, LONG, true));
    EXPECT_EQ(1U, read.size());
}

TEST(SelectSockets, outOfBandDataIsAnException) {
    Connection with(makeTcpEnds());
    Connection without(makeTcpEnds());
    ASSERT_EQ(1, ::send(with.ends.getPeer(), "!", 1, MSG_OOB));
    ASSERT_EQ(1, ::send(without.ends.getPeer(), "!", 1, 0));
    Sockets read;
    Sockets write;
    Sockets except = {&with.socket, &without.socket};
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, LONG, true));
    EXPECT_EQ((Sockets{&with.socket}), except);
}

TEST(SelectSockets, needsNoOpenSocketOnlyADescriptor) {
    Connection connection;
    connection.socket.set(connection.socket.getSocketFd(), Socket::INACTIVE);
    Sockets read;
    Sockets write = {&connection.socket};
    Sockets except;
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, LONG, true));
    EXPECT_EQ(1U, write.size());
}

// ---- Time ----

TEST(SelectSockets, emptiesAllSetsAfterTheTime) {
    Connection one;
    Connection two;
    two.fill();
    Sockets read = {&one.socket, &two.socket};
    Sockets write = {&two.socket};
    Sockets except = {&one.socket};
    auto const start = Clock::now();
    EXPECT_EQ(0, Socket::selectSockets(read, write, except, 50, true));
    EXPECT_LE(milliseconds(50), Clock::now() - start);
    EXPECT_EQ(0U, read.size() + write.size() + except.size());
    EXPECT_TRUE(chainIs({}));
}

TEST(SelectSockets, withoutSocketsWaitsTheTime) {
    Sockets read;
    Sockets write;
    Sockets except;
    Recorder const recorder;
    auto const start = Clock::now();
    EXPECT_EQ(0, Socket::selectSockets(read, write, except, 50, true));
    EXPECT_LE(milliseconds(50), Clock::now() - start);
    ASSERT_EQ(1U, recorder.get().size());
    EXPECT_EQ(0, recorder.get()[0].count);
}

TEST(SelectSockets, withNoTimeOnlyLooks) {
    Connection connection;
    Sockets read = {&connection.socket};
    Sockets write;
    Sockets except;
    EXPECT_EQ(0, Socket::selectSockets(read, write, except, 0, true));
    EXPECT_EQ(0U, read.size());
    connection.ends.send("x");
    read = {&connection.socket};
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, 0, true));
    EXPECT_EQ(1U, read.size());
}

TEST(SelectSockets, timeIsToldInSecondsAndMicroseconds) {
    struct {
        unsigned int ms;
        long seconds;
        long microseconds;
    } const times[] = {
        {0, 0, 0},    {1, 0, 1000},      {999, 0, 999000},
        {1000, 1, 0}, {1234, 1, 234000}, {UINT_MAX, 4294967, 295000},
    };
    s_pretend = true;
    for (auto const& time : times) {
        Recorder const recorder;
        Sockets none;
        EXPECT_EQ(0, Socket::selectSockets(none, none, none, time.ms, true));
        ASSERT_EQ(1U, recorder.get().size());
        ASSERT_NE(nullptr, recorder.get()[0].limit);
        EXPECT_EQ(time.seconds, recorder.get()[0].time.tv_sec);
        EXPECT_EQ(time.microseconds, recorder.get()[0].time.tv_usec);
    }
    s_pretend = false;
}

TEST(SelectSockets, withoutALimitWaitsUntilSomethingIsReady) {
    Connection connection;
    Sockets read = {&connection.socket};
    Sockets write;
    Sockets except;
    Recorder const recorder;
    s_waits = false;
    std::thread peer([&connection] {
        EXPECT_TRUE(support::eventually([] { return s_waits.load(); }));
        connection.ends.send("x");
    });
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, 0, false)) << "the time does not count";
    peer.join();
    EXPECT_EQ(1U, read.size());
    ASSERT_EQ(1U, recorder.get().size());
    EXPECT_EQ(nullptr, recorder.get()[0].limit);
}

TEST(SelectSockets, withoutALimitAndWithoutSocketsWaitsForEver) {
    ChildEnd const end = runInChild([] {
        signal(SIGALRM, SIG_DFL);
        itimerval const soon{{0, 0}, {0, 300000}};
        ASSERT_EQ(0, setitimer(ITIMER_REAL, &soon, nullptr));
        Sockets none;
        int const result = Socket::selectSockets(none, none, none, 1, false);
        ADD_FAILURE() << "it came back with " << result;
    });
    EXPECT_EQ(SIGALRM, end.signal) << end.output << end.errors;
}

// ---- Signals ----

TEST(SelectSockets, isRepeatedWithTheSameMarksAndTimeWhileASignalInterruptsIt) {
    Connection connection;
    connection.ends.send("x");
    for (bool const limited : {true, false}) {
        Sockets read = {&connection.socket};
        Sockets write = {&connection.socket};
        Sockets except = {&connection.socket};
        Recorder const recorder;
        Fault const fault(inject_select, EINTR, 1, 3);
        EXPECT_EQ(2, Socket::selectSockets(read, write, except, LONG, limited));
        ASSERT_EQ(4U, recorder.get().size());
        for (Call const& call : recorder.get()) {
            EXPECT_EQ(recorder.get()[0].limit, call.limit) << "one object, in which the time left is noted";
            EXPECT_EQ(limited, call.limit != nullptr);
            EXPECT_EQ(connection.socket.getSocketFd() + 1, call.count);
            for (auto const& marks : call.marks) {
                EXPECT_EQ(std::vector<int>{connection.socket.getSocketFd()}, marks);
            }
        }
        EXPECT_EQ(1U, read.size());
        EXPECT_EQ(1U, write.size());
        EXPECT_EQ(0U, except.size());
        EXPECT_TRUE(chainIs({}));
    }
}

/// Signals that come every 20 ms, a limited number of them.
class Storm {
public:
    explicit Storm(int signals) {
        s_left = signals;
        struct sigaction action {};
        action.sa_handler = [](int) {
            if (--s_left == 0) {
                ring(0);
            }
        };
        EXPECT_EQ(0, sigaction(SIGALRM, &action, &m_before));
        ring(20000);
    }
    ~Storm() {
        ring(0);
        EXPECT_EQ(0, sigaction(SIGALRM, &m_before, nullptr));
    }
    Storm(Storm const&) = delete;
    Storm& operator=(Storm const&) = delete;

    static int getLeft() { return s_left; }

private:
    static void ring(int period_us) {
        itimerval const period{{0, period_us}, {0, period_us}};
        setitimer(ITIMER_REAL, &period, nullptr);
    }

    static inline std::atomic<int> s_left{0};

    struct sigaction m_before {};
};

/// Whether the system writes the time left into the time that it was given: Linux does, user-mode QEMU does not when a
/// signal comes.
bool isTimeLeftNoted() {
    Storm const storm(2000);
    timeval const given{60, 0};
    timeval left = given;
    fd_set none;
    FD_ZERO(&none);
    EXPECT_EQ(-1, select(0, &none, &none, &none, &left));
    return timercmp(&left, &given, <);
}

TEST(SelectSockets, signalsDoNotProlongTheTime) {
    if (!isTimeLeftNoted()) {
        GTEST_SKIP() << "the emulator does not note the time left when a signal interrupts select";
    }
    Storm const storm(2000);
    Sockets none;
    Recorder const recorder;
    auto const start = Clock::now();
    EXPECT_EQ(0, Socket::selectSockets(none, none, none, 300, true));
    EXPECT_LE(milliseconds(300), Clock::now() - start);
    EXPECT_LT(0, Storm::getLeft()) << "it ended while signals still came";
    EXPECT_LT(2U, recorder.get().size()) << "signals did come";
    for (size_t i = 1; i < recorder.get().size(); ++i) {
        EXPECT_TRUE(timercmp(&recorder.get()[i].time, &recorder.get()[i - 1].time, <));
    }
}

// ---- Failure ----

struct Row {
    int error;
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class SelectSocketsRow : public testing::TestWithParam<Row> {};

TEST_P(SelectSocketsRow, isReportedAndEmptiesAllSets) {
    Connection connection;
    connection.ends.send("x");
    Sockets read = {&connection.socket};
    Sockets write = {&connection.socket};
    Sockets except = {&connection.socket};
    Fault const fault(inject_select, GetParam().error);
    EXPECT_EQ(-1, Socket::selectSockets(read, write, except, LONG, true));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(
        chainIs({{SysError, GetParam().id, rowText(SysError, GetParam().id, systemText(GetParam().error))}}));
    EXPECT_EQ(0U, read.size() + write.size() + except.size());
    EXPECT_FALSE(connection.socket.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    rows, SelectSocketsRow,
    testing::Values(
        Row{ENOMEM, 1},                  //
        Row{EINVAL, 10}, Row{EBADF, 10}, //
        Row{EFAULT, 19}, Row{EAGAIN, 19}, Row{EPERM, 19}));

TEST(SelectSockets, descriptorThatWasClosedBehindASocketsBackFails) {
    Connection connection;
    Connection other;
    ASSERT_EQ(0, close(connection.socket.getSocketFd()));
    Sockets read = {&other.socket};
    Sockets write = {&connection.socket};
    Sockets except = {&other.socket};
    EXPECT_EQ(-1, Socket::selectSockets(read, write, except, LONG, true));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EBADF))}}));
    EXPECT_EQ(0U, read.size() + write.size() + except.size());
    connection.socket.forget();
}

/// Which of the sets has the socket that cannot be watched.
class SelectSocketsSet : public testing::TestWithParam<int> {
protected:
    void expectRefused(Socket const* refused) {
        Connection one;
        Connection two;
        one.ends.send("x");
        Sockets const others = {&one.socket, &two.socket};
        Sockets sets[] = {others, others, others};
        sets[GetParam()].insert(refused);
        Sockets const before[] = {sets[0], sets[1], sets[2]};
        Fault const calls(inject_select, 0);
        errno = EXDEV;
        EXPECT_EQ(-1, Socket::selectSockets(sets[0], sets[1], sets[2], LONG, true));
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::INVALID_SOCKET,
              rowText(Socket::ErrorId::INVALID_SOCKET, systemText(EXDEV))}}));
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(before[i], sets[i]) << i;
        }
        EXPECT_EQ(0, calls.getCalls());
    }
};

TEST_P(SelectSocketsSet, withASocketWithoutADescriptorFailsAndKeepsAllSets) {
    TestSocket without;
    expectRefused(&without);
    EXPECT_FALSE(without.hadError());
    without.forget();
    expectRefused(&without);
}

TEST_P(SelectSocketsSet, withANullPointerFailsAndKeepsAllSets) {
    expectRefused(nullptr);
}

INSTANTIATE_TEST_SUITE_P(sets, SelectSocketsSet, testing::Values(0, 1, 2));

/// Makes a descriptor of this number a copy of another one's.
bool copyTo(int number, int fd) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    auto const needed = static_cast<rlim_t>(number) + 1;
    limit.rlim_cur = std::max(limit.rlim_cur, needed);
    limit.rlim_max = std::max(limit.rlim_max, needed);
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && dup2(fd, number) == number;
}

class SelectSocketsBeyond : public testing::TestWithParam<int> {};

TEST_P(SelectSocketsBeyond, whatSelectCanWatchTheProcessEnds) {
    ChildEnd const end = runInChild([] {
        Connection connection;
        ASSERT_TRUE(copyTo(FD_SETSIZE, connection.socket.getSocketFd())) << strerror(errno);
        TestSocket beyond(FD_SETSIZE);
        Sockets sets[3];
        sets[GetParam()] = {&connection.socket, &beyond};
        Socket::selectSockets(sets[0], sets[1], sets[2], 0, true);
        ADD_FAILURE() << "it came back";
    });
    EXPECT_EQ(SIGABRT, end.signal) << end.output;
    EXPECT_NE(std::string::npos, end.errors.find("descriptor 1024 is beyond what select can watch"))
        << end.errors;
}

INSTANTIATE_TEST_SUITE_P(sets, SelectSocketsBeyond, testing::Values(0, 1, 2));

TEST(SelectSockets, highestDescriptorThatSelectCanWatchIsWatched) {
    support::expectInChild([] {
        Connection connection;
        ASSERT_TRUE(copyTo(FD_SETSIZE - 1, connection.socket.getSocketFd())) << strerror(errno);
        TestSocket highest(FD_SETSIZE - 1);
        connection.ends.send("x");
        Sockets read = {&highest};
        Sockets write;
        Sockets except;
        EXPECT_EQ(1, Socket::selectSockets(read, write, except, LONG, true));
        EXPECT_EQ(1U, read.size());
    });
}

TEST(SelectSockets, setsAreLookedThroughInTheOrderReadWriteExcept) {
    TestSocket without;
    TestSocket beyond(FD_SETSIZE);
    Sockets const nobody = {&without};
    Sockets const too_high = {&beyond};
    // What is looked at first decides: a socket without a descriptor is reported, one beyond the limit ends the process.
    struct {
        Sockets read;
        Sockets write;
        Sockets except;
        size_t aborts;
    } cases[] = {
        {nobody, too_high, {}, 0}, {too_high, nobody, {}, 1}, {nobody, {}, too_high, 0},
        {too_high, {}, nobody, 1}, {{}, nobody, too_high, 0}, {{}, too_high, nobody, 1},
    };
    for (auto& each : cases) {
        EventRecorder const events;
        EXPECT_EQ(-1, Socket::selectSockets(each.read, each.write, each.except, 0, true));
        EXPECT_EQ(each.aborts, events.getCount()) << events.getText();
        if (each.aborts == 0) {
            EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
        }
    }
    beyond.forget();
}

} // namespace
