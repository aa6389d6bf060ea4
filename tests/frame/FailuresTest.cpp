#include "FailingCalls.h"
#include "Operations.h"
#include "support/AllocationFault.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/Processes.h"
#include "support/Testing.h"
#include "support/Threads.h"

#include <tarncommon/error/ErrorApi.h>

// The system calls below the operations fail: each one together with each of the calls that follow it, which are
// those of the clean-up, and 1 % of the calls of many operations at random. What must hold: nothing crashes, hangs
// or leaks, and the operations work again afterwards.

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr bool IS_SLOW = true; // A fork takes half a second.
#else
constexpr bool IS_SLOW = false;
#endif

using failing::Plan;
using operations::Row;

/// What the process uses, without what the C library keeps for later.
struct Usage {
    int descriptors = support::countDescriptors();
    int threads = support::countThreads();
    long long blocks = support::g_blocks;
};

testing::AssertionResult hasNotGrownSince(Usage const& before) {
    bool const back = support::eventually([&] { return support::countThreads() <= before.threads; });
    Usage const now;
    if (back && now.descriptors == before.descriptors && now.blocks <= before.blocks) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
        << now.descriptors - before.descriptors << " descriptors, " << now.threads - before.threads
        << " threads, " << now.blocks - before.blocks << " blocks more";
}

/// Suppresses the default actions of all events: some failures are events, as documented.
class NoActions {
public:
    NoActions() : m_previous(std::GlobalErrorHandler::setHook(&HOOK)) {}
    ~NoActions() { std::GlobalErrorHandler::setHook(m_previous); }
    NoActions(NoActions const&) = delete;
    NoActions& operator=(NoActions const&) = delete;

private:
    static constexpr std::GlobalErrorHandler::Hook HOOK{
        [](std::GlobalErrorHandler::Event const&, void*) { return true; }, nullptr};
    std::GlobalErrorHandler::Hook const* m_previous;
};

/// Runs an operation. Returns the number of system calls that it has made.
int runWith(Row const& row, Plan const& plan) {
    NoActions const no_actions;
    try {
        row.run();
    } catch (std::bad_alloc const&) {} // As without memory.
    int const count = plan.getCount();
    std::ErrorStorage::ack();
    std::ErrorStorage::Chain::ofThread().unmap();
    return count;
}

int runWith(Row const& row, int first, int second) {
    Plan const plan(first, second);
    return runWith(row, plan);
}

/// Returns whether an operation makes threads or children that are part of the failure: a failure of their pipe or
/// timer ends the process. Such an operation runs in a process of its own.
bool isFatal(Row const& row) {
    std::set<std::string> const names{
        "Poller",           "SignalQueue_pop",   "SignalDispatcher",  "Timer",
        "Timer_start",      "Timer_otherStarts", "Alarm_ofOwnEngine", "SignalCatcher",
        "ProcessTNG_start", "Dispatcher",        "VanillaQueue_push"};
    return names.count(row.name) != 0;
}

std::vector<Row> getRows(bool fatal) {
    std::vector<Row> rows = operations::getRows();
    rows.erase(
        std::remove_if(rows.begin(), rows.end(), [=](Row const& row) { return isFatal(row) != fatal; }),
        rows.end());
    return rows;
}

class Failures : public testing::TestWithParam<Row> {
protected:
    static void SetUpTestSuite() { operations::setUp(); }
    static void TearDownTestSuite() {
        operations::g_timer.reset();
        operations::removeNames();
    }
};

INSTANTIATE_TEST_SUITE_P(All, Failures, testing::ValuesIn(getRows(false)), support::RowName());

TEST_P(Failures, mayComeInPairs) {
    constexpr int FOLLOWING = 12; // The clean-up is not longer.
    constexpr int MOST = 60;      // Of operations that make the same calls for each file.
    Row const& row = GetParam();
    ASSERT_EQ(0, chdir("/"));
    ASSERT_FALSE(row.run()) << tarn_error.getReasonList();
    int const calls = std::min(runWith(row, 0, 0), MOST);
    for (int first = 1; first <= calls; ++first) {
        int const last = std::min(runWith(row, first, 0), first + FOLLOWING);
        for (int second = first + 1; second <= last; ++second) {
            runWith(row, first, second); // A cache of the C library may keep blocks.
            Usage const before;
            runWith(row, first, second);
            ASSERT_TRUE(hasNotGrownSince(before)) << "calls " << first << " and " << second;
            ASSERT_FALSE(row.run()) << "does not work any more after calls " << first << " and " << second
                                    << " have failed: " << tarn_error.getReasonList();
        }
    }
}

/// How an operation tells its caller that one of its system calls has failed: a letter for each function.
/// R  it fails with a chain of reports
/// F  it fails without a report
/// E  an event of `GlobalErrorHandler`, such as the warning of a destructor, which has no other way
/// P  it succeeds, and a chain is pending: its result is not the one of the operation that failed
/// -  it succeeds, because it does not need the call
/// 2  several of these
/// X  the process ends with a message
/// Y  the process ends with an assertion and a message
struct Told : support::NamedRow {
    char const* functions;
};

Told const TOLD[] = {
    {"ErrorStorage_fiveLevels", "munmap:-"},
    {"FileInfo", "stat:R"},
    {"FileInfo_getOwner", "stat:P"},
    // The copy ends the process after its report. Here it continues, and the destructors close the files again.
    {"FileSys_copy", "close:2 open:R read:R unlink:- write:R"},
    // After its report, the constructor closes the descriptor again, and warns that it is closed.
    {"Directory", "closedir:E fcntl:- fdopendir:R open:R readdir:2"},
    {"Directory_curDir", "closedir:E fcntl:- fdopendir:R open:R openat:R readdir:2R"},
    {"StreamBinFileR", "close:- open:R"},
    // The file keeps its descriptor, which the destructors of both halves close again.
    {"StreamBinFileRW", "close:2 open:R"},
    {"BinTempFileRW", "close:E mkstemp:R unlink:E"},
    {"FmtFileWrapper", "close:E open:R read:R"},
    // The object keeps its descriptor, which the destructor closes again.
    {"SharedMemory", "close:2 ftruncate:R munmap:R shm_open:R shm_unlink:R"},
    {"SharedMemory_ring", "close:2 ftruncate:R munmap:R shm_open:R shm_unlink:R"},
    {"MsgQueue",
     "mq_close:2 mq_open:R mq_unlink:-R"}, // A name that is missing before the creation is no failure.
    {"Semaphore", "sem_close:R sem_open:R sem_unlink:-R"},
    {"NetDevice", "close:- ioctl:R socket:R"},
    {"NetDevice_all", "close:- if_nameindex:R socket:R"},
    {"ProcessInfo", "close:- open:R read:R"},
    {"ProcessInfo_getPIDs", "fdopendir:R open:R readdir:2R"}, // As `Directory`.
    {"ProcessTNG_settings", "stat:PR"},
    {"ProcessTNG_getProcessId", "fdopendir:P fopen:- open:P readdir:2P"}, // Returns nothing; as `Directory`.
    {"TCPSocket",
     "accept4:R bind:R close:P connect:R getpeername:- getsockname:-R listen:R setsockopt:R socket:R"},
    {"UDPSocket", "bind:R close:P connect:2 socket:R"}, // `open` has no result: it reports and warns.
    {"UnixSocket", "accept4:R bind:R close:P connect:R getpeername:- listen:R socket:R"},
    {"WidePath", "getcwd:F"},
    {"Path_getAbsolute", "getcwd:F"},
    {"Path_getCanonicalized", "realpath:F"},
    {"WidePath_getCanonicalized", "realpath:F"},
    {"FileSys_currentWD", "getcwd:R"},
    {"FileInfo_setModTime", "utimes:R"},
    {"FileSys_changeOwnerGroup", "chown:R"},
    {"FileSys_getMountPoints", "close:E open:F read:-F"},
    {"SecureRandom", "close:- open:R"},
    // As `StreamBinFileRW`. The row itself writes.
    {"SerialPort", "close:-2 open:R read:R tcgetattr:R tcsetattr:R write:F"},
    {"MemBinFileBase", "close:2 munmap:R open:R"},
    {"MsgQueue_systemMax", "close:E open:F read:R"},
    {"SemaphoreClient", "sem_close:R sem_open:R"},
    {"NetDevice_setAddress", "close:- socket:R"},
    {"NetDeviceMonitor_watch", "bind:R close:- recvmsg:-R sendmsg:R socket:R"},
    {"SystemLoad", "fopen:R"},
    // These end the process if the pipe fails that all their threads use. The results of timers and of `sigaction`
    // are not looked at, as their documentation says.
    {"Timer", "close:- fcntl:E pipe:Y sigaction:- timer_create:- timer_delete:- timer_settime:- write:X"},
    {"Alarm_ofOwnEngine",
     "close:- fcntl:E pipe:Y sigaction:- timer_create:- timer_delete:- timer_settime:- write:X"},
    {"SignalCatcher", "sigaction:-"},
    {"SignalDispatcher", "close:- fcntl:E pipe:Y write:X"},
    {"SignalQueue_pop", "close:- fcntl:E pipe:Y sigaction:-F write:X"},
    {"Poller", "close:- pipe:X poll:X read:- write:-"},
    {"ProcessTNG_start", "fork:R stat:P"},
};

/// Operations without a row make no system call that this program replaces.
std::string getTold(char const* operation) {
    for (Told const& row : TOLD) {
        if (strcmp(row.what, operation) == 0) {
            return row.functions;
        }
    }
    return "";
}

std::string getText(std::map<std::string, std::set<char>> const& told) {
    std::string text;
    for (auto const& [function, letters] : told) {
        text += (text.empty() ? "" : " ") + function + ":" + std::string(letters.begin(), letters.end());
    }
    return text;
}

/// Counts the chains that were replaced before the test has seen them.
class Discarded {
public:
    Discarded() { s_count = 0; }
    size_t getCount() const { return s_count; }

private:
    static inline thread_local size_t s_count;
    std::ErrorStorage m_store{[](void*, char const*, std::ErrorObject const*, unsigned int) { ++s_count; }};
};

/// Runs an operation while this call fails, and adds the letter of what happens to those of the function.
void addTold(Row const& row, int nth, bool others, std::map<std::string, std::set<char>>& told) {
    Discarded const discarded;
    support::EventRecorder const events;
    Plan const plan(nth, 0, others);
    bool const failed = row.run();
    bool const pending = std::ErrorStorage::isError(true);
    std::ErrorStorage::ack();
    size_t const times = discarded.getCount() + events.getCount() + (pending ? 1 : 0);
    char const once = events.getCount() != 0 ? 'E' : failed ? 'R' : 'P';
    told[plan.getFailed()].insert(times > 1 ? '2' : times == 1 ? once : failed ? 'F' : '-');
}

TEST_P(Failures, areToldOnce) {
    Row const& row = GetParam();
    ASSERT_EQ(0, chdir("/"));
    ASSERT_FALSE(row.run()) << tarn_error.getReasonList();
    int const calls = std::min(runWith(row, 0, 0), 60);
    std::map<std::string, std::set<char>> told;
    for (int nth = 1; nth <= calls; ++nth) {
        addTold(row, nth, false, told);
        addTold(row, nth, true, told);
    }
    EXPECT_EQ(getTold(row.name), getText(told));
}

// Named so that it runs first, before the process has threads: each case forks.
class FatalFailuresDeathTest : public testing::TestWithParam<Row> {
protected:
    /// Runs the operation in a process of its own while these calls fail. Returns the letter of what happens:
    /// X  the process ends with a message, Y with several; otherwise those of `Told`
    char run(int first, int second, bool others = false) {
        *m_calls = 0;
        *m_told = 'X';
        *m_failed = "";
        Plan::s_note = &*m_failed;
        support::ChildEnd const end = support::runInChild([&] {
            operations::setUp();
            EXPECT_FALSE(GetParam().run()) << tarn_error.getReasonList();
            Discarded const discarded;
            Plan const plan(first, second, others);
            bool const failed = GetParam().run();
            bool const pending = std::ErrorStorage::isError(true);
            std::ErrorStorage::ack();
            *m_calls = plan.getCount();
            *m_told = discarded.getCount() + (pending ? 1 : 0) > 1 ? '2'
                : pending                                          ? failed ? 'R' : 'P'
                : failed                                           ? 'F'
                                                                   : '-';
        });
        Plan::s_note = nullptr;
        auto const lines = std::count(end.errors.begin(), end.errors.end(), '\n');
        EXPECT_EQ("", end.output);
        EXPECT_TRUE(end.signal == 0 || (end.signal == SIGABRT && lines != 0)) << end.signal << end.errors;
        if (end.signal != 0) {
            return lines == 1 ? 'X' : 'Y';
        }
        if (lines != 0) {
            return *m_told == '-' || *m_told == 'F' ? 'E' : '2';
        }
        return *m_told;
    }
    int getCalls() const { return *m_calls; }
    std::string getFailed() const { return *m_failed; }

private:
    support::SharedObject<int> m_calls;
    support::SharedObject<char> m_told;
    support::SharedObject<char const*> m_failed;
};

INSTANTIATE_TEST_SUITE_P(All, FatalFailuresDeathTest, testing::ValuesIn(getRows(true)), support::RowName());

TEST_P(FatalFailuresDeathTest, areToldOnceAndMayComeInPairs) {
    constexpr int FOLLOWING = IS_SLOW ? 0 : 4;
    ASSERT_EQ('-', run(0, 0));
    int const calls = getCalls();
    std::map<std::string, std::set<char>> told;
    for (int first = 1; first <= calls; ++first) {
        char const letter = run(first, 0);
        told[getFailed()].insert(letter);
        told[getFailed()].insert(run(first, 0, true));
        int const last = letter >= 'X' ? 0 : std::min(getCalls(), first + FOLLOWING);
        for (int second = first + 1; second <= last; ++second) {
            run(first, second);
        }
    }
    EXPECT_EQ(getTold(GetParam().name), getText(told));
}

class RandomFailures : public testing::TestWithParam<unsigned long> {
protected:
    static void SetUpTestSuite() { operations::setUp(); }
    static void TearDownTestSuite() {
        operations::g_timer.reset();
        operations::removeNames();
    }

    /// Runs a thousand operations. Returns the number of failures.
    static int runAll(unsigned long seed) {
        std::vector<Row> const rows = getRows(false);
        std::minstd_rand random(static_cast<std::minstd_rand::result_type>(seed));
        int failures = 0;
        for (int i = 0; i < 1000; ++i) {
            Row const& row = rows[random() % rows.size()];
            Plan const plan(random);
            runWith(row, plan);
            failures += plan.getFailures();
        }
        return failures;
    }
};

/// VESK_SEED in the environment is a further seed.
std::vector<unsigned long> getSeeds() {
    char const* const seed = getenv("VESK_SEED");
    std::vector<unsigned long> seeds{1, 2};
    if (seed != nullptr) {
        seeds.push_back(strtoul(seed, nullptr, 10));
    }
    return seeds;
}

INSTANTIATE_TEST_SUITE_P(
    Seed, RandomFailures, testing::ValuesIn(getSeeds()), testing::PrintToStringParamName());

TEST_P(RandomFailures, leaveNothingBehind) {
    runAll(GetParam()); // Fills the caches of the C library.
    Usage const before;
    EXPECT_GT(runAll(GetParam()), 10);
    EXPECT_TRUE(hasNotGrownSince(before)) << "seed " << GetParam();
    for (Row const& row : getRows(false)) {
        EXPECT_FALSE(row.run()) << row.name << ", seed " << GetParam() << ": " << tarn_error.getReasonList();
    }
}

class RandomFailuresDeathTest : public testing::TestWithParam<unsigned long> {
protected:
    static void TearDownTestSuite() { operations::removeNames(); }
};

INSTANTIATE_TEST_SUITE_P(
    Seed, RandomFailuresDeathTest, testing::ValuesIn(getSeeds()), testing::PrintToStringParamName());

TEST_P(RandomFailuresDeathTest, endAProcessOnlyWithAMessage) {
    std::minstd_rand random(static_cast<std::minstd_rand::result_type>(GetParam()));
    std::vector<Row> const rows = operations::getRows();
    for (int process = 0; process < (IS_SLOW ? 3 : 20); ++process) {
        auto const seed = random();
        support::ChildEnd const end = support::runInChild([&] {
            operations::setUp();
            std::minstd_rand its_random(seed);
            for (int i = 0; i < 50; ++i) {
                Row const& row = rows[its_random() % rows.size()];
                Plan const plan(its_random);
                row.run();
                std::ErrorStorage::ack();
            }
        });
        SCOPED_TRACE("seed " + std::to_string(GetParam()) + ", process " + std::to_string(process));
        EXPECT_EQ("", end.output);
        EXPECT_TRUE(end.signal == 0 || end.signal == SIGABRT) << end.signal << end.errors;
        EXPECT_EQ(end.signal == SIGABRT, end.errors.find("fatal") != std::string::npos) << end.errors;
    }
}

} // namespace
