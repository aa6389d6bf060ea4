#include "support/Testing.h"

#include <common/MemoryPool.h>
#include <vesk/Condition.h>
#include <vesk/FileAccess.h>
#include <vesk/Mutex.h>
#include <vesk/SystemLogger.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <clocale>

// ---- the calls of the start-up, in order ----

namespace {

bool g_recording = false;
std::vector<std::string> g_calls;
struct sigaction g_last_action {};
// The times of the clocks, unless their seconds are 0.
timespec g_wall_clock{};
timespec g_monotonic_clock{};

/// Needs no memory before the recording, because a sanitizer's runtime may call it early.
void record(char const* call) {
    if (g_recording) {
        g_calls.emplace_back(call);
    }
}

void recordLocale(int category, char const* locale) {
    if (g_recording && locale != nullptr) {
        g_calls.push_back(
            "setlocale(" + std::string(category == LC_ALL ? "LC_ALL" : "other") + ", \"" + locale + "\")");
    }
}

void recordAction(int signal, struct sigaction const* action) {
    if (g_recording) {
        g_calls.push_back(
            "sigaction(" + std::string(signal == SIGPIPE ? "SIGPIPE" : "other") +
            (action == nullptr ? ", query)" : ", set)"));
        g_last_action = action != nullptr ? *action : g_last_action;
    }
}

} // namespace

VESK_INJECT_NOTING(
    char*, nullptr, setlocale, (int category, char const* locale), (category, locale),
    recordLocale(category, locale))
VESK_INJECT_NOTING(
    int, -1, sigaction, (int signal, struct sigaction const* action, struct sigaction* old),
    (signal, action, old), recordAction(signal, action))
VESK_INJECT_NOTING(void, , tzset, (), (), record("tzset()"))
VESK_INJECT_NOTING(void, , srand, (unsigned int seed), (seed), record("srand()"))
VESK_INJECT_NOTING(
    int, error, pthread_getschedparam, (pthread_t thread, int* policy, sched_param* param),
    (thread, policy, param), record("pthread_getschedparam()"))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

support::Injected inject_clock_gettime("clock_gettime");
extern "C" int clock_gettime(clockid_t clock, timespec* time) {
    bool const is_wall = clock == CLOCK_REALTIME;
    if (is_wall || clock == CLOCK_MONOTONIC) {
        record(is_wall ? "clock_gettime(CLOCK_REALTIME)" : "clock_gettime(CLOCK_MONOTONIC)");
        if (is_wall && inject_clock_gettime.fails()) {
            return -1;
        }
        timespec const& fake = is_wall ? g_wall_clock : g_monotonic_clock;
        if (fake.tv_sec != 0) {
            *time = fake;
            return 0;
        }
    }
    return inject_clock_gettime.getReal(clock_gettime)(clock, time);
}

// The value that is unavailable. The thread sanitizer calls this function before its own start.
namespace {
int g_unknown_number = -1;
} // namespace
extern "C" long __sysconf(int name);
extern "C" __attribute__((no_sanitize("thread"))) long sysconf(int name) {
    return name == g_unknown_number ? -1 : __sysconf(name);
}

// ---- before every initializer ----

namespace {

char g_first_dir[32] = "not called";
constexpr char const* EARLY_DIR = "/set/before/any/initializer/ran/and/still/there";

// Runs before the initializers of all libraries. Code that depends on the order of files fails here.
void setDirBeforeInitializers() {
    strncpy(g_first_dir, vesk::Vesk::setDefaultConfigDir(EARLY_DIR).c_str(), sizeof g_first_dir - 1);
}
#if defined(__SANITIZE_THREAD__)
// This sanitizer's code cannot run that early, so an initializer of the program is used instead.
[[gnu::constructor]] void setDirInAnInitializer() {
    setDirBeforeInitializers();
}
#else
[[gnu::section(".preinit_array"),
  gnu::used]] void (*const g_before_initializers)() = setDirBeforeInitializers;
#endif

// ---- the tests ----

using namespace support;
using vesk::Vesk;
using namespace vesk::sched;

using Calls = std::vector<std::string>;

Calls const WHOLE_START_UP = {
    "setlocale(LC_ALL, \"\")",
    "sigaction(SIGPIPE, query)",
    "sigaction(SIGPIPE, set)",
    "tzset()",
    "clock_gettime(CLOCK_MONOTONIC)",
    "clock_gettime(CLOCK_REALTIME)",
    "srand()",
    "pthread_getschedparam()",
};

/// Returns the first calls of a start-up, and its last one.
Calls firstAndLast(int count) {
    Calls calls(WHOLE_START_UP.begin(), WHOLE_START_UP.begin() + count);
    calls.push_back(WHOLE_START_UP.back());
    return calls;
}

constexpr char const* START_UP_FAILED = "ABORT framework/src/vesk/common/vesk Vesk: Error initializing VESK";
constexpr char const* SECOND_START_UP =
    "ASSERT framework/src/vesk/common/vesk Vesk: !s_init_count.getCurrentCount()";

/// Constructs an object and returns the calls that its constructor makes.
Calls callsOf(bool lazy_process_init, bool second = false) {
    g_calls.clear();
    g_recording = true;
    Vesk const vesk(lazy_process_init, second);
    g_recording = false;
    return g_calls;
}

void choosePipeSignal(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ASSERT_EQ(0, sigaction(SIGPIPE, &action, nullptr));
}

struct sigaction getPipeSignal() {
    struct sigaction action {};
    EXPECT_EQ(0, sigaction(SIGPIPE, nullptr, &action));
    return action;
}

/// Runs a test in a process without a start-up, with `SIGPIPE` as a shell sets it.
template <typename Body>
void inFreshProcess(Body body) {
    expectInChild([&] {
        choosePipeSignal(SIG_DFL);
        body();
    });
}

long long getUptime() {
    long long ms = -1;
    EXPECT_FALSE(vesk::Time::getUptime(ms));
    return ms;
}

void expectAttr(Policy_E policy, int priority, int nice) {
    Attr const& attributes = Vesk::s_vesk_ctor_sched_attrs;
    EXPECT_EQ(policy, attributes.policy);
    EXPECT_EQ(priority, attributes.param.priority);
    EXPECT_EQ(nice, attributes.param.nice);
    EXPECT_EQ(0, attributes.param.reserved_byte);
    EXPECT_EQ(0u, attributes.param.reserved_word);
    EXPECT_EQ(0u, attributes.param.reserved_last);
}

void expectCount(unsigned int count, bool initialized = true) {
    EXPECT_EQ(count, Vesk::s_init_count.getCurrentCount());
    EXPECT_EQ(initialized, Vesk::s_initialized);
}

// ---- before the start-up ----

VESK_TEST_BY(inFreshProcess, VeskLoaded, nothingHasStarted) {
    EXPECT_FALSE(Vesk::s_ever_initialized);
    expectCount(0, false);
    expectAttr(VESK_SCHED_NOOP, 0, 0);
    g_monotonic_clock = {1000, 0};
    EXPECT_EQ(1000000, getUptime()) << "counted from 0";
}

TEST(VeskLoaded, hasTheNumbersOfTheMachine) {
    EXPECT_EQ(sysconf(_SC_PAGESIZE), static_cast<long>(Vesk::s_sys_info.page_size));
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), static_cast<long>(Vesk::s_sys_info.processor_count));
}

VESK_TEST_BY(inFreshProcess, VeskLoaded, locksAndConditionsAndFileConstantsWorkWithoutAStartUp) {
    vesk::Mutex mutex;
    vesk::Condition condition;
    bool ready = false;
    std::thread waiter([&] {
        vesk::MutexLock const lock(mutex);
        while (!ready) {
            EXPECT_FALSE(condition.wait(mutex));
        }
    });
    {
        vesk::MutexLock const lock(mutex);
        ready = true;
    }
    EXPECT_FALSE(condition.signal());
    waiter.join();
    EXPECT_FALSE(mutex.lock());
    EXPECT_TRUE(mutex.lock()) << "the error families work, too";
    EXPECT_FALSE(mutex.unlock());
    EXPECT_TRUE(chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}}));
    EXPECT_EQ(0700u, static_cast<mode_t>(vesk::FileAccess::owner_all));
    EXPECT_EQ(0u, Vesk::s_init_count.getCurrentCount());
}

static_assert(sizeof(Vesk::SystemInfo) == 8 && offsetof(Vesk::SystemInfo, page_size) == 0);
static_assert(offsetof(Vesk::SystemInfo, processor_count) == 4);

TEST(VeskSystemInfo, numberThatIsUnavailableIsZero) {
    g_unknown_number = _SC_PAGESIZE;
    Vesk::SystemInfo const without_page;
    g_unknown_number = _SC_NPROCESSORS_ONLN;
    Vesk::SystemInfo const without_processors;
    g_unknown_number = -1;
    EXPECT_EQ(0u, without_page.page_size);
    EXPECT_EQ(Vesk::s_sys_info.processor_count, without_page.processor_count);
    EXPECT_EQ(Vesk::s_sys_info.page_size, without_processors.page_size);
    EXPECT_EQ(0u, without_processors.processor_count);
}

// ---- the start-up ----

static_assert(!std::is_polymorphic_v<Vesk> && sizeof(Vesk) == 1);
static_assert(std::is_trivially_destructible_v<Vesk>);

VESK_TEST_BY(inFreshProcess, VeskStartUp, takesItsStepsInOrder) {
    EXPECT_EQ(WHOLE_START_UP, callsOf(true));
    EXPECT_TRUE(Vesk::s_ever_initialized);
    expectCount(1);
    EXPECT_TRUE(chainIs({}));
}

VESK_TEST_BY(inFreshProcess, VeskStartUp, checksOneMoreSignalWhenProcessesAreSetUpAtOnce) {
    Calls expected = WHOLE_START_UP;
    expected.insert(expected.begin() + 5, "sigaction(other, query)"); // SIGCHLD must not be ignored.
    EXPECT_EQ(expected, callsOf(false));
    EXPECT_TRUE(chainIs({}));
}

VESK_TEST_BY(inFreshProcess, VeskStartUp, keepsItsFirstArgumentAndTheSecondHasNoEffect) {
    EXPECT_EQ(WHOLE_START_UP, callsOf(true, true));
    for (bool const second : {false, true}) {
        EXPECT_TRUE(Vesk(true, second).isProcessInitLazy());
        EXPECT_FALSE(Vesk(false, second).isProcessInitLazy());
    }
}

TEST(VeskStartUp, setsTheTimeZoneAndTheLocaleOfTheEnvironmentUnlessThatIsUnknown) {
    for (bool const is_known : {true, false}) {
        inFreshProcess([is_known] {
            ASSERT_EQ(0, setenv("LC_ALL", is_known ? "C.UTF-8" : "nowhere_NOWHERE", 1));
            ASSERT_EQ(0, setenv("TZ", "XYZ-5", 1));
            ASSERT_STREQ("C", setlocale(LC_ALL, nullptr));
            EventRecorder const recorder;
            Vesk const vesk(true, false);
            EXPECT_STREQ(is_known ? "C.UTF-8" : "C", setlocale(LC_ALL, nullptr));
            EXPECT_EQ("", recorder.getText());
            EXPECT_STREQ("XYZ", tzname[0]);
            EXPECT_EQ(-5 * 3600, timezone);
        });
    }
}

VESK_TEST_BY(inFreshProcess, VeskStartUp, isTheOriginOfTheUptimeAndSeedsRandAndKeepsAPendingError) {
    g_monotonic_clock = {1000, 0};
    g_wall_clock = {1700000000, 123999999};
    std::ErrorOutput("older", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
    Vesk const vesk(true, false);
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}}));
    EXPECT_EQ(0, getUptime());
    g_monotonic_clock = {1005, 250000000};
    EXPECT_EQ(5250, getUptime());
    std::vector<int> drawn(8);
    std::generate(drawn.begin(), drawn.end(), rand);
    srand(static_cast<unsigned int>(1700000000123 & 0xFFFFFFFF));
    for (int const number : drawn) {
        EXPECT_EQ(rand(), number);
    }
}

// ---- SIGPIPE ----

void handlePipe(int) {}
void handlePipeInfo(int, siginfo_t*, void*) {}

std::vector<int> signalsOf(sigset_t const& set) {
    std::vector<int> signals;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        signals.push_back(sigismember(&set, signal) == 1 ? signal : 0);
    }
    return signals;
}

VESK_TEST_BY(inFreshProcess, VeskPipeSignal, isIgnoredWithAFullMaskAndNoFlags) {
    callsOf(true);
    EXPECT_EQ(SIG_IGN, g_last_action.sa_handler);
    EXPECT_EQ(0, g_last_action.sa_flags);
    sigset_t full;
    sigfillset(&full);
    EXPECT_EQ(signalsOf(full), signalsOf(g_last_action.sa_mask));
    EXPECT_EQ(SIG_IGN, getPipeSignal().sa_handler);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    close(ends[0]);
    EXPECT_EQ(-1, write(ends[1], "x", 1));
    EXPECT_EQ(EPIPE, errno);
    close(ends[1]);
}

struct Disposition : NamedRow {
    void (*choose)(struct sigaction& action);
};

Disposition const DISPOSITIONS[] = {
    {"ignored", [](struct sigaction& action) { action.sa_handler = SIG_IGN; }},
    {"handled", [](struct sigaction& action) { action.sa_handler = handlePipe; }},
    {"handledWithInformation", [](struct sigaction& action) {
         action.sa_sigaction = handlePipeInfo;
         action.sa_flags = SA_SIGINFO;
     }}};

VESK_TEST_TABLE(VeskPipeSignalChosen, isKept, testing::Test, DISPOSITIONS) {
    inFreshProcess([] {
        struct sigaction chosen {};
        GetParam().choose(chosen);
        sigaddset(&chosen.sa_mask, SIGUSR1);
        chosen.sa_flags |= SA_NODEFER;
        ASSERT_EQ(0, sigaction(SIGPIPE, &chosen, nullptr));
        struct sigaction const before = getPipeSignal();
        Calls expected = WHOLE_START_UP;
        expected.erase(expected.begin() + 2); // It is not set.
        EXPECT_EQ(expected, callsOf(true));
        struct sigaction const after = getPipeSignal();
        EXPECT_EQ(before.sa_sigaction, after.sa_sigaction);
        EXPECT_EQ(before.sa_flags, after.sa_flags);
        EXPECT_EQ(signalsOf(before.sa_mask), signalsOf(after.sa_mask));
    });
}

// ---- a start-up that fails ----

/// A call of the start-up that fails, the number of calls up to it, and the report that stays pending.
struct FailureRow : NamedRow {
    Injected* function;
    int error;
    int nth;
    int calls;
    std::vector<ExpectedReport> reports;
};

FailureRow const VESK_FAILURE_ROWS[] = {
    {"pipeSignalThatCannotBeRead", &inject_sigaction, EINVAL, 1, 2, {}},
    {"pipeSignalThatCannotBeSet", &inject_sigaction, EPERM, 2, 3, {}},
    {"clockThatIsMissing", &inject_clock_gettime, EINVAL, 1, 6, {vesk::SysErrorId::NOT_IMPLEMENTED}},
    {"clockThatCannotBeRead",
     &inject_clock_gettime,
     EPERM,
     1,
     6,
     {vesk::Time::ErrorId::GET_TIMESTAMP_FAILED}}};

VESK_TEST_TABLE(VeskFailureRows, endsTheStartUp, testing::Test, VESK_FAILURE_ROWS) {
    inFreshProcess([] {
        FailureRow const& row = GetParam();
        EventRecorder const recorder;
        {
            Fault const fault(*row.function, row.error, row.nth);
            // A hook that suppresses the abort lets the constructor continue behind the steps.
            EXPECT_EQ(firstAndLast(row.calls), callsOf(true));
        }
        EXPECT_EQ(START_UP_FAILED, recorder.getText());
        EXPECT_TRUE(chainIs(withErrno(row.reports, row.error)));
    });
}

VESK_TEST_BY(inFreshProcess, VeskFailure, isTheResultOfTheStep) {
    Vesk vesk(true, false);
    EXPECT_FALSE(vesk.preInit());
    EXPECT_FALSE(vesk.postInit());
    for (int const nth : {1, 2}) {
        choosePipeSignal(SIG_DFL);
        Fault const fault(inject_sigaction, EINVAL, nth);
        EXPECT_TRUE(vesk.preInit());
    }
    EXPECT_TRUE(chainIs({}));
    Fault const fault(inject_clock_gettime, EINVAL);
    EXPECT_TRUE(vesk.postInit());
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::NOT_IMPLEMENTED}}));
}

// ---- further objects ----

VESK_TEST_BY(inFreshProcess, VeskSecond, changesNothingButTheCount) {
    g_monotonic_clock = {1000, 0};
    { Vesk const first(true, false); }
    expectCount(1);
    g_monotonic_clock = {1005, 0};
    int const kept_nice = Vesk::s_vesk_ctor_sched_attrs.param.nice;
    ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 19));
    choosePipeSignal(SIG_DFL);
    EventRecorder const recorder;
    EXPECT_EQ(Calls{}, callsOf(true));
    expectCount(2);
    EXPECT_EQ(Calls{}, callsOf(false)) << "with any arguments";
    expectCount(3);
    EXPECT_EQ(5000, getUptime());
    EXPECT_EQ(SIG_DFL, getPipeSignal().sa_handler);
    EXPECT_EQ(kept_nice, Vesk::s_vesk_ctor_sched_attrs.param.nice);
    EXPECT_EQ("", recorder.getText());
}

VESK_TEST_BY(inFreshProcess, VeskSecond, threadsThatConstructFurtherOnesLoseNoCount) {
    constexpr unsigned int ROUNDS = 5000;
    Vesk const vesk(true, false);
    runInThreads(4, [](int) {
        for (unsigned int round = 0; round < ROUNDS; ++round) {
            Vesk const further(false, false);
        }
    });
    expectCount(1 + 4 * ROUNDS);
}

// ---- cleanupAll ----

VESK_TEST_BY(inFreshProcess, VeskCleanup, startUpAfterItTripsAnAssertionAndRunsAllTheSame) {
    Vesk const vesk(true, false);
    Vesk::cleanupAll();
    EXPECT_TRUE(Vesk::s_ever_initialized);
    expectCount(1, false);
    g_monotonic_clock = {1000, 0};
    choosePipeSignal(SIG_DFL);
    EventRecorder const recorder;
    EXPECT_EQ(WHOLE_START_UP, callsOf(true));
    EXPECT_EQ(SECOND_START_UP, recorder.getText());
    EXPECT_EQ(0, getUptime()) << "the uptime begins again";
    expectCount(2);
    EXPECT_EQ(Calls{}, callsOf(true)) << "the library is running again";
    EXPECT_EQ(1u, recorder.getCount());
    expectCount(3);
}

VESK_TEST_BY(inFreshProcess, VeskCleanup, beforeAnyStartUpDoesNothing) {
    Vesk::cleanupAll();
    EventRecorder const recorder;
    EXPECT_EQ(WHOLE_START_UP, callsOf(true));
    EXPECT_EQ("", recorder.getText());
}

// ---- the default actions of events ----

/// What causes an event without a hook, the signal that ends the process, and what is written.
struct EventRow : NamedRow {
    void (*cause)();
    int signal;
    std::vector<char const*> parts;
};

EventRow const VESK_EVENT[] = {
    {"failedStartUp",
     [] {
         Fault const fault(inject_sigaction, EINVAL);
         Vesk const vesk(true, false);
     },
     SIGABRT,
     {"framework/src/vesk/common/vesk", "Error initializing VESK"}},
    {"startUpAfterACleanup",
     [] {
         { Vesk const vesk(true, false); }
         Vesk::cleanupAll();
         { Vesk const vesk(true, false); }
         expectCount(2);
     },
     0,
     {"!s_init_count.getCurrentCount()"}},
    {"failedLockOfTheSystemLogger",
     [] {
         Fault const fault(inject_pthread_mutex_lock, EAGAIN);
         vesk::SystemLogger::getInstance();
     },
     SIGABRT,
     {"framework/src/vesk/linux/SystemLogger", "getInstance", "error locking"}},
    {"itemThatIsNotFromItsPool",
     [] {
         std::MemoryPool<std::UsePoolOnDepletion, std::FakeLock, std::FakeCondition> pool(8, 1);
         int elsewhere = 0;
         pool.thankYou(&elsewhere);
     },
     SIGABRT,
     {"item is not from here!"}}};

VESK_TEST_TABLE(VeskEvent, endsTheProcessIfItIsAnAbort, testing::Test, VESK_EVENT) {
    ChildEnd const end = runInChild([] {
        choosePipeSignal(SIG_DFL);
        GetParam().cause();
    });
    EXPECT_EQ(GetParam().signal, end.signal) << end.output;
    EXPECT_EQ(GetParam().signal == 0 ? 0 : -1, end.exit_code) << end.output;
    for (char const* const part : GetParam().parts) {
        EXPECT_NE(std::string::npos, end.errors.find(part)) << part << " in " << end.errors;
    }
}

// ---- the main thread's scheduling ----

TEST(VeskSchedAttrs, areKeptForARealTimeThread) {
    ChildEnd const end = runInChild([] {
        sched_param param{};
        param.sched_priority = 3;
        if (int const refused = pthread_setschedparam(pthread_self(), SCHED_RR, &param)) {
            fprintf(stderr, "REFUSED %s", systemText(refused).c_str());
            return;
        }
        Vesk const vesk(true, false);
        expectAttr(VESK_SCHED_POLICY_RR, 3, 0);
    });
    if (end.errors.find("REFUSED") == 0) {
        GTEST_SKIP() << "no real-time scheduling here: " << end.errors;
    }
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

VESK_TEST_BY(inFreshProcess, VeskSchedAttrs, areThoseOfTheThreadUnlessTheyCannotBeReadWhichIsAcknowledged) {
    ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 19));
    Vesk const first(true, false);
    expectAttr(VESK_SCHED_POLICY_NORMAL, 0, 19);
    Vesk::cleanupAll();
    EventRecorder const recorder;
    Fault const fault(inject_pthread_getschedparam, EPERM);
    Vesk const second(true, false);
    expectAttr(VESK_SCHED_NOOP, 0, 0);
    EXPECT_FALSE(std::ErrorStorage::isError(false));
    EXPECT_EQ(SECOND_START_UP, recorder.getText()) << "and no abort";
    EXPECT_TRUE(Vesk::s_initialized);
}

// ---- the configuration directory ----

VESK_TEST_BY(inFreshProcess, VeskConfigDir, isEmptyAtFirstAndSettingItReturnsACopyOfThePreviousOne) {
    EXPECT_STREQ("", g_first_dir);
    std::string const& stored = vesk::getDefaultConfigDir();
    EXPECT_EQ(EARLY_DIR, stored) << "set before the initializers";
    EXPECT_EQ(EARLY_DIR, Vesk::setDefaultConfigDir(stored)) << "set to itself";
    std::string previous = EARLY_DIR;
    for (std::string const next : {"/etc/one", "/etc/two", "", "/etc/three"}) {
        EXPECT_EQ(previous, stored);
        EXPECT_EQ(previous, Vesk::setDefaultConfigDir(next));
        previous = next;
    }
    EXPECT_EQ("/etc/three", vesk::getDefaultConfigDir());
    EXPECT_EQ(&stored, &vesk::getDefaultConfigDir());
    static_assert(std::is_same_v<std::string, decltype(Vesk::setDefaultConfigDir(""))>);
    static_assert(std::is_same_v<std::string const&, decltype(vesk::getDefaultConfigDir())>);
}

// ---- arguments and errors ----

TEST(VeskArguments, areLeftAlone) {
    char name[] = "program";
    char* list[] = {name, nullptr};
    int argc = 1;
    char** argv = list;
    vesk::getMainFwArgs(&argc, &argv);
    EXPECT_EQ(1, argc);
    EXPECT_EQ(list, argv);
    EXPECT_STREQ("program", list[0]);
    vesk::getMainFwArgs(nullptr, nullptr);
}

TEST(VeskError, hasItsRowAndNoParentAndNamesTheSetUpThatFailed) {
    expectRows(Vesk::Error, {"Unable to initialize VESK: \"%s\" failed"}, 1, false);
    for (std::string const part :
         {"process impl. object is invalid", "process static impl. object is invalid"}) {
        std::ErrorOutput("source", 1, true)(Vesk::ErrorId::INIT_FAILED, part);
        EXPECT_TRUE(
            chainIs({{Vesk::ErrorId::INIT_FAILED, "Unable to initialize VESK: \"" + part + "\" failed"}}));
    }
}

} // namespace
