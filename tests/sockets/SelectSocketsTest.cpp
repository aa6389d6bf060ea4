#include "SocketRows.h"
#include "TestSocket.h"
#include "threads/ThreadSupport.h"

#include <chrono>
#include <sys/select.h>
#include <sys/time.h>

namespace {

struct Call {
    int count;
    timeval* limit;
    timeval time;
    std::set<int> marks[3];
};

std::vector<Call> s_calls; ///< Since the last `Sets::select`.
/// Whether a call returns at once, as after its time.
bool s_times_out = false;
std::atomic<bool> s_waits{false};

std::set<int> getMarked(fd_set const* marks) {
    std::set<int> marked;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        if (FD_ISSET(fd, marks)) {
            marked.insert(fd);
        }
    }
    return marked;
}

} // namespace

support::Injected inject_select("select");
extern "C" VESK_UNWATCHED int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
    timeval const time = limit != nullptr ? *limit : timeval{};
    s_calls.push_back({count, limit, time, {getMarked(read), getMarked(write), getMarked(except)}});
    if (inject_select.fails()) {
        return -1;
    }
    if (s_times_out) {
        return 0;
    }
    s_waits = true;
    return reinterpret_cast<decltype(&select)>(inject_select.getReal())(count, read, write, except, limit);
}

namespace {

using namespace support;
using vesk::Socket;
using Sockets = std::set<Socket const*>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Longer than any event of a test takes.
constexpr unsigned int LONG = 60000;

struct Sets {
    Sockets read{};
    Sockets write{};
    Sockets except{};

    int select(unsigned int timeout_ms = LONG, bool use_timeout = true) {
        s_calls.clear();
        return Socket::selectSockets(read, write, except, timeout_ms, use_timeout);
    }
};

bool operator==(Sets const& left, Sets const& right) {
    return left.read == right.read && left.write == right.write && left.except == right.except;
}

void PrintTo(Sets const& sets, std::ostream* out) {
    *out << testing::PrintToString(sets.read) << ", " << testing::PrintToString(sets.write) << ", "
         << testing::PrintToString(sets.except);
}

Sets const EMPTY;

/// A connection with a socket on one end.
struct Connection : ConnectedSocket {
    using ConnectedSocket::ConnectedSocket;
    explicit Connection(char const* received) { ends.send(received); }

    /// Fills the buffers, so that nothing more can be written.
    void fill() const {
        std::vector<char> const block(1 << 20, 'x');
        while (::send(getSocketFd(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {}
    }
};

TEST(SelectSockets, leavesInEachSetWhatIsReady) {
    Connection const silent;
    Connection const talking("x");
    Connection const full;
    full.fill();
    Connection ended;
    ended.ends.closePeer();
    Connection inactive;
    inactive.set(inactive.getSocketFd(), Socket::INACTIVE);
    Sockets const all = {&silent, &talking, &full, &inactive};
    Sets sets{all, all, all};
    sets.read.insert(&ended);
    EXPECT_EQ(5, sets.select());
    EXPECT_EQ((Sets{{&talking, &ended}, {&silent, &talking, &inactive}, {}}), sets);
}

TEST(SelectSockets, passesTheMarksOfEachSetToTheSystem) {
    Connection const one;
    Connection const two;
    Connection const three;
    Sets sets{{&one, &two}, {&three}, {&two}};
    EXPECT_EQ(1, sets.select());
    ASSERT_EQ(1U, s_calls.size());
    Call const& call = s_calls[0];
    EXPECT_EQ(std::max({one.getSocketFd(), two.getSocketFd(), three.getSocketFd()}) + 1, call.count);
    EXPECT_EQ((std::set<int>{one.getSocketFd(), two.getSocketFd()}), call.marks[0]);
    EXPECT_EQ(std::set<int>{three.getSocketFd()}, call.marks[1]);
    EXPECT_EQ(std::set<int>{two.getSocketFd()}, call.marks[2]);
}

TEST(SelectSockets, countsMarksAndNotSockets) {
    Connection const connection("x");
    Sets twice{{&connection}, {&connection}};
    Sets const before = twice;
    EXPECT_EQ(2, twice.select()) << "one socket in two sets";
    EXPECT_EQ(before, twice);

    TestSocket same(connection.getSocketFd());
    Sets two{{&connection, &same}};
    EXPECT_EQ(1, two.select()) << "two sockets, one descriptor";
    EXPECT_EQ(2U, two.read.size());
    same.forget();
}

TEST(SelectSockets, outOfBandDataIsAnException) {
    Connection const with(makeTcpEnds());
    Connection const without(makeTcpEnds());
    ASSERT_EQ(1, ::send(with.ends.getPeer(), "!", 1, MSG_OOB));
    ASSERT_EQ(1, ::send(without.ends.getPeer(), "!", 1, 0));
    Sets sets{{}, {}, {&with, &without}};
    EXPECT_EQ(1, sets.select());
    EXPECT_EQ((Sets{{}, {}, {&with}}), sets);
}

TEST(SelectSockets, emptiesAllSetsAfterTheTimeAlsoWithoutSockets) {
    Connection const one;
    Connection const two;
    two.fill();
    Sets sets{{&one, &two}, {&two}, {&one}};
    auto const start = Clock::now();
    EXPECT_EQ(0, sets.select(50));
    EXPECT_EQ(EMPTY, sets);
    EXPECT_EQ(0, Sets().select(50));
    EXPECT_LE(milliseconds(100), Clock::now() - start);
    ASSERT_EQ(1U, s_calls.size());
    EXPECT_EQ(0, s_calls[0].count);
}

TEST(SelectSockets, doesNotWaitIfTheTimeIs0) {
    Connection const connection;
    Sets sets{{&connection}};
    EXPECT_EQ(0, sets.select(0));
    EXPECT_EQ(EMPTY, sets);
    connection.ends.send("x");
    sets.read = {&connection};
    EXPECT_EQ(1, sets.select(0));
    EXPECT_EQ(1U, sets.read.size());
}

TEST(SelectSockets, passesTheTimeInSecondsAndMicroseconds) {
    struct {
        unsigned int ms;
        long seconds;
        long microseconds;
    } const times[] = {
        {0, 0, 0},    {1, 0, 1000},      {999, 0, 999000},
        {1000, 1, 0}, {1234, 1, 234000}, {UINT_MAX, 4294967, 295000},
    };
    s_times_out = true;
    for (auto const& time : times) {
        EXPECT_EQ(0, Sets().select(time.ms));
        ASSERT_EQ(1U, s_calls.size());
        ASSERT_NE(nullptr, s_calls[0].limit);
        EXPECT_EQ(time.seconds, s_calls[0].time.tv_sec);
        EXPECT_EQ(time.microseconds, s_calls[0].time.tv_usec);
    }
    s_times_out = false;
}

TEST(SelectSockets, withoutALimitWaitsUntilASocketIsReady) {
    Connection const connection;
    Sets sets{{&connection}};
    s_waits = false;
    std::thread peer([&connection] {
        EXPECT_TRUE(eventually([] { return s_waits.load(); }));
        connection.ends.send("x");
    });
    EXPECT_EQ(1, sets.select(0, false)) << "the time has no effect";
    peer.join();
    EXPECT_EQ(1U, sets.read.size());
    ASSERT_EQ(1U, s_calls.size());
    EXPECT_EQ(nullptr, s_calls[0].limit);
}

TEST(SelectSockets, withoutALimitAndWithoutSocketsNeverReturns) {
    ChildEnd const end = runInChild([] {
        signal(SIGALRM, SIG_DFL);
        itimerval const soon{{0, 0}, {0, 300000}};
        ASSERT_EQ(0, setitimer(ITIMER_REAL, &soon, nullptr));
        int const result = Sets().select(1, false);
        ADD_FAILURE() << "it returned " << result;
    });
    EXPECT_EQ(SIGALRM, end.signal) << end.output << end.errors;
}

TEST(SelectSockets, repeatsTheCallWithTheSameMarksAndTimeWhileSignalsInterruptIt) {
    Connection const connection("x");
    Sockets const one = {&connection};
    for (bool const limited : {true, false}) {
        Sets sets{one, one, one};
        Fault const fault(inject_select, EINTR, 1, 3);
        EXPECT_EQ(2, sets.select(LONG, limited));
        ASSERT_EQ(4U, s_calls.size());
        for (Call const& call : s_calls) {
            EXPECT_EQ(s_calls[0].limit, call.limit) << "the system notes the time left in one object";
            EXPECT_EQ(limited, call.limit != nullptr);
            EXPECT_EQ(connection.getSocketFd() + 1, call.count);
            for (auto const& marks : call.marks) {
                EXPECT_EQ(std::set<int>{connection.getSocketFd()}, marks);
            }
        }
        EXPECT_EQ((Sets{one, one, {}}), sets);
    }
}

/// Sends the process a limited number of signals, one each 20 ms.
class Storm : tarnbase::NonCopyable {
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

    static int getLeft() { return s_left; }

private:
    static void ring(int period_us) {
        itimerval const period{{0, period_us}, {0, period_us}};
        setitimer(ITIMER_REAL, &period, nullptr);
    }

    static inline std::atomic<int> s_left{0};

    struct sigaction m_before {};
};

/// Returns whether the system notes the time left in its argument. Linux does; user-mode QEMU does not after a signal.
bool isTimeLeftNoted() {
    Storm const storm(2000);
    timeval const given{60, 0};
    timeval left = given;
    fd_set none;
    FD_ZERO(&none);
    EXPECT_EQ(-1, ::select(0, &none, &none, &none, &left));
    return timercmp(&left, &given, <);
}

TEST(SelectSockets, signalsDoNotProlongTheTime) {
    if (!isTimeLeftNoted()) {
        GTEST_SKIP() << "the emulator does not note the time left when a signal interrupts select";
    }
    Storm const storm(2000);
    auto const start = Clock::now();
    EXPECT_EQ(0, Sets().select(300));
    EXPECT_LE(milliseconds(300), Clock::now() - start);
    EXPECT_LT(0, Storm::getLeft()) << "it returned while signals were still sent";
    EXPECT_LT(2U, s_calls.size()) << "signals interrupted it";
    for (size_t i = 1; i < s_calls.size(); ++i) {
        EXPECT_TRUE(timercmp(&s_calls[i].time, &s_calls[i - 1].time, <));
    }
}

VESK_TEST_ROWS(
    SelectSocketsRow, isReportedAndEmptiesAllSets,
    errnoRows({
        {{ENOMEM}, {SysErrorId::OUT_OF_MEMORY}},
        {{EINVAL, EBADF}, {SysErrorId::SPOILED_INTEGRITY}},
        {{EFAULT, EAGAIN, EPERM}, {SysErrorId::UNCLASSIFIED}},
    })) {
    Connection const connection("x");
    Sets sets{{&connection}, {&connection}, {&connection}};
    Fault const fault(inject_select, GetParam().error);
    EXPECT_EQ(-1, sets.select());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(GetParam().reports));
    EXPECT_EQ(EMPTY, sets);
    EXPECT_FALSE(connection.hadError());
}

TEST(SelectSockets, failsIfADescriptorIsClosed) {
    Connection connection;
    Connection const other;
    ASSERT_EQ(0, close(connection.getSocketFd()));
    Sets sets{{&other}, {&connection}, {&other}};
    EXPECT_EQ(-1, sets.select());
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
    EXPECT_EQ(EMPTY, sets);
    connection.forget();
}

constexpr auto bySet = [](testing::TestParamInfo<Sockets Sets::*> const& set) {
    return std::string(set.param == &Sets::read ? "read" : set.param == &Sets::write ? "write" : "except");
};

/// The set with a socket that cannot be selected.
class SelectSocketsSet : public testing::TestWithParam<Sockets Sets::*> {
protected:
    static void expectRefused(Socket const* refused) {
        Connection const one("x");
        Connection const two;
        Sockets const others = {&one, &two};
        Sets sets{others, others, others};
        (sets.*GetParam()).insert(refused);
        Sets const before = sets;
        Calls const calls(inject_select, 0);
        errno = EXDEV;
        EXPECT_EQ(-1, sets.select());
        EXPECT_TRUE(causeIs(Socket::ErrorId::INVALID_SOCKET, EXDEV));
        EXPECT_EQ(before, sets);
    }
};

INSTANTIATE_TEST_SUITE_P(
    sets, SelectSocketsSet, testing::Values(&Sets::read, &Sets::write, &Sets::except), bySet);

TEST_P(SelectSocketsSet, isKeptIfASocketHasNoDescriptorOrIsNull) {
    TestSocket without;
    expectRefused(&without);
    EXPECT_FALSE(without.hadError());
    without.forget();
    expectRefused(&without);
    expectRefused(nullptr);
}

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

TEST_P(SelectSocketsSet, withADescriptorBeyondThoseOfSelectEndsTheProcess) {
    ChildEnd const end = runInChild([] {
        std::GlobalErrorHandler::setHook(nullptr);
        Connection const connection;
        ASSERT_TRUE(copyTo(FD_SETSIZE, connection.getSocketFd())) << strerror(errno);
        TestSocket beyond(FD_SETSIZE);
        Sets sets;
        sets.*GetParam() = {&connection, &beyond};
        sets.select(0);
        ADD_FAILURE() << "it returned";
    });
    EXPECT_EQ(SIGABRT, end.signal) << end.output;
    EXPECT_NE(std::string::npos, end.errors.find("descriptor 1024 is beyond what select can watch"))
        << end.errors;
}

TEST(SelectSockets, takesTheHighestDescriptorOfSelect) {
    expectInChild([] {
        Connection const connection("x");
        ASSERT_TRUE(copyTo(FD_SETSIZE - 1, connection.getSocketFd())) << strerror(errno);
        TestSocket const highest(FD_SETSIZE - 1);
        Sets sets{{&highest}};
        EXPECT_EQ(1, sets.select());
        EXPECT_EQ(1U, sets.read.size());
    });
}

TEST(SelectSockets, checksTheSetsInTheOrderReadWriteExcept) {
    TestSocket const without;
    TestSocket beyond(FD_SETSIZE);
    Sockets const missing = {&without};
    Sockets const too_high = {&beyond};
    // The first set decides: a socket without a descriptor is reported, one beyond the limit ends the process.
    struct {
        Sets sets;
        size_t aborts;
    } cases[] = {
        {{missing, too_high, {}}, 0}, {{too_high, missing, {}}, 1}, {{missing, {}, too_high}, 0},
        {{too_high, {}, missing}, 1}, {{{}, missing, too_high}, 0}, {{{}, too_high, missing}, 1},
    };
    for (auto& [sets, aborts] : cases) {
        EventRecorder const events;
        EXPECT_EQ(-1, sets.select(0));
        EXPECT_EQ(aborts, events.getCount()) << events.getText();
        if (aborts == 0) {
            EXPECT_TRUE(chainIs({Socket::ErrorId::INVALID_SOCKET}));
        }
    }
    beyond.forget();
}

} // namespace
