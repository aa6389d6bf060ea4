#include "services/FakeProc.h"
#include "services/Loads.h"

#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/Processes.h"

#include <vesk/ProcessInfo.h>

#include <dirent.h>
#include <sys/prctl.h>

namespace {

std::function<void()> const* s_before_read = nullptr; // Runs before each read.
size_t s_read_size = 0;                               // Of the last read.
long s_processors = 0; // The number that the system reports; 0 is the true one.

} // namespace

VESK_INJECT_NOTING(
    ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size), s_read_size = size;
    if (s_before_read != nullptr) { (*s_before_read)(); })
VESK_INJECT_ERRNO(dirent*, nullptr, readdir, (DIR * directory), (directory))
VESK_INJECT(
    long, , sysconf, (int name), (name),
    if (name == _SC_NPROCESSORS_ONLN && s_processors != 0) { return s_processors; })

namespace {

using namespace support;
using vesk::ProcessInfo;
using vesk::Time;
namespace SysErrorId = vesk::SysErrorId;

constexpr unsigned int STAT_VALUES =
    ProcessInfo::NAME | ProcessInfo::USER_TIME | ProcessInfo::SYSTEM_TIME | ProcessInfo::THREADS;
constexpr unsigned int ALL_VALUES = STAT_VALUES | ProcessInfo::RESIDENT;

static_assert(ProcessInfo::NAME == 1 && ProcessInfo::USER_TIME == 2 && ProcessInfo::SYSTEM_TIME == 4);
static_assert(ProcessInfo::THREADS == 8 && ProcessInfo::RESIDENT == 16);

/// Returns a number of processor ticks in milliseconds.
unsigned long getMilliseconds(unsigned long ticks) {
    return ticks * 1000 / static_cast<unsigned long>(sysconf(_SC_CLK_TCK));
}

size_t getPageSize() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

testing::AssertionResult isFailedQuery(int error) {
    return causeIs(SysErrorId::QUERY_FAILED, error);
}

/// Returns the content of a snapshot: whether it is valid, what is available, name, user time, system time,
/// threads, resident memory and timestamp.
std::string describe(ProcessInfo const& info) {
    std::string text = std::to_string(info.valid) + " " + std::to_string(info.available) + " " + info.name;
    for (auto const value : std::initializer_list<unsigned long long>{
             info.user_time, info.system_time, info.threads, info.resident}) {
        text += " " + std::to_string(value);
    }
    return text + " " + std::to_string(info.timestamp);
}

/// Returns the content of an invalid snapshot of the daemon, of which this is available.
std::string describeInvalid(unsigned int available, std::string const& name = "daemon") {
    return available == STAT_VALUES      ? "0 15 daemon 3000 2500 17 0 0"
        : available == ProcessInfo::NAME ? "0 1 " + name + " 0 0 0 0 0"
                                         : "0 0  0 0 0 0 0";
}

TEST(ProcessInfo, isEmptyBeforeTheFirstInit) {
    ProcessInfo const info(PID);
    EXPECT_EQ(PID, info.getPID());
    EXPECT_EQ(describeInvalid(0), describe(info));
}

TEST(ProcessInfo, readsEachValueFromItsFieldOfTwoFiles) {
    FakeDaemon const proc;
    FakeClock const clock(1700000000, 123456789);
    ProcessInfo const info = takeSnapshot();
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("daemon", info.name);
    EXPECT_EQ(getMilliseconds(300), info.user_time);
    EXPECT_EQ(getMilliseconds(250), info.system_time);
    EXPECT_EQ(1700000000123, info.timestamp);
    EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
    EXPECT_EQ(17u, info.threads);
    EXPECT_EQ(33u * getPageSize(), info.resident);
    ASSERT_EQ(2u, proc.getOpened().size());
    EXPECT_EQ("/proc/4711/stat", proc.getOpened()[0].path);
    EXPECT_EQ("/proc/4711/statm", proc.getOpened()[1].path);
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, proc.getOpened()[0].flags);
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, proc.getOpened()[1].flags);
}

TEST(ProcessInfo, everyProcessIdIsLookedUpButZeroTripsAnAssertion) {
    EventRecorder const recorder;
    FakeProc const proc;
    for (int const pid : {INT_MIN, 0}) {
        EXPECT_FALSE(takeSnapshot(pid).valid);
        EXPECT_TRUE(isFailedQuery(ENOENT));
    }
    ASSERT_EQ(2u, proc.getOpened().size());
    EXPECT_EQ("/proc/-2147483648/stat", proc.getOpened()[0].path);
    EXPECT_EQ("/proc/0/stat", proc.getOpened()[1].path);
    EXPECT_EQ("ASSERT framework/src/vesk/linux/ProcessInfo init: m_pid", recorder.getText());
}

struct NameRow : NamedRow {
    std::string name;
};

NameRow const NAMES[] = {
    {"plain", "daemon"},
    {"parenthesesBetweenSpaces", "a) (b"},
    {"closingOne", "a)b"},
    {"openingOne", "a(b"},
    {"onlyParentheses", "))(("},
    {"empty", ""},
    {"spaces", "a b  c"},
    {"newline", "a\nb"},
    {"likeAStatLine", "1) R 9 9 9 9 9 9 9 9 9 9 9"},
    {"nearlyAsLongAsTheBuffer", std::string(900, 'n')},
};

VESK_TEST_TABLE(ProcessInfoNames, endAtTheLastParenthesis, testing::Test, NAMES) {
    FakeProc const proc;
    proc.setProcess(PID, GetParam().name, "100", "200", "3", "4");
    ProcessInfo const info = takeSnapshot();
    EXPECT_EQ(1023u, s_read_size);
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(GetParam().name, info.name);
    EXPECT_EQ(3u, info.threads);
    EXPECT_EQ(getMilliseconds(100), info.user_time);
}

struct TicksRow : NamedRow {
    char const* user_ticks;
    char const* system_ticks;
    unsigned long user_time;
    unsigned long system_time;
};

TicksRow const TICKS[] = {
    {"oneTick", "1", "0", 10, 0},
    // 4294968000 is 704 in 32 bits.
    {"ticksTimesThousandWrapAt32Bits", "4294967", "4294968", 42949670, 7},
    // -1000 is 4294966296 in 32 bits.
    {"ticksWrapAt32Bits", "4294967299", "18446744073709551615", 30, 42949662},
};

VESK_TEST_TABLE(ProcessInfoTimes, areTheTicksInMilliseconds, testing::Test, TICKS) {
    ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
    FakeProc const proc;
    proc.setProcess(PID, "daemon", GetParam().user_ticks, GetParam().system_ticks, "1", "1");
    ProcessInfo const info = takeSnapshot();
    EXPECT_EQ(GetParam().user_time, info.user_time);
    EXPECT_EQ(GetParam().system_time, info.system_time);
}

TEST(ProcessInfo, residentMemoryIsCountedInSize) {
    FakeProc const proc;
    // As many bytes as a size can count, give or take a page.
    size_t const pages = SIZE_MAX / getPageSize();
    proc.setProcess(PID, "daemon", "1", "1", "1", std::to_string(pages));
    EXPECT_EQ(pages * getPageSize(), takeSnapshot().resident);
}

TEST(ProcessInfo, laterSnapshotKeepsNothingOfAnEarlierOne) {
    FakeDaemon const proc;
    ProcessInfo info = takeSnapshot();
    proc.setProcess(PID, "now", "301", "251", "18", "34");
    info.init();
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("now", info.name);
    EXPECT_EQ(18u, info.threads);
    EXPECT_EQ(34u * getPageSize(), info.resident);
    proc.set("4711/stat", "");
    info.init();
    EXPECT_EQ(0u, info.available);
    EXPECT_FALSE(info.valid);
    EXPECT_TRUE(chainIs({SysErrorId::QUERY_FAILED}));
}

/// A call that fails, and what is read before.
struct FailedCall : NamedRow {
    Injected* call;
    int nth;
    unsigned int available;
};

FailedCall const FAILED_CALLS[] = {
    {"open of stat", &inject_open, 1, 0},
    {"open of statm", &inject_open, 2, 0},
    {"read of stat", &inject_read, 1, 0},
    {"read of statm", &inject_read, 2, STAT_VALUES},
};

class ProcessInfoErrnos : public testing::TestWithParam<std::tuple<FailedCall, int>> {};

TEST_P(ProcessInfoErrnos, failureIsReportedAndTheSnapshotIsInvalid) {
    auto const& [row, error] = GetParam();
    FakeDaemon const proc;
    Fault const fault(*row.call, error, row.nth);
    EXPECT_EQ(describeInvalid(row.available), describe(takeSnapshot()));
    EXPECT_TRUE(isFailedQuery(error));
    EXPECT_EQ(row.nth, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoErrnos,
    testing::Combine(
        testing::ValuesIn(FAILED_CALLS), testing::Values(ENOENT, EACCES, EMFILE, ENOMEM, EINTR, ESRCH)));

struct TextRow : NamedRow {
    std::string text; ///< Of stat, or of statm if the values of stat are available.
    unsigned int available = 0;
    std::string name = "daemon"; ///< If it is available.
};

std::string const LONG_NAME(1016, 'n');

TextRow const TEXTS[] = {
    {"empty", ""},
    {"withoutParentheses", "4711 daemon S 1 2 3 4 5 6 7 8 9 10 11 12"},
    {"withoutTheClosingOne", "4711 (daemon S 1 2 3 4 5 6 7 8 9 10 11 12"},
    {"withoutTheOpeningOne", "4711 daemon) S 1 2 3 4 5 6 7 8 9 10 11 12"},
    {"inTheWrongOrder", "4711 )daemon( S 1 2 3 4 5 6 7 8 9 10 11 12"},
    {"endingWithTheName", "4711 (daemon)", 1},
    {"endingWithASpace", "4711 (daemon) ", 1},
    // The text ends with the buffer.
    {"endingWithTheNameAndTheBuffer", "4711 (" + LONG_NAME + ")", 1, LONG_NAME},
    // The end of the name is not read.
    {"longerThanTheBuffer", "4711 (" + std::string(2000, 'n') + ") S 1 2 3"},
    {"withoutTimes", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10", 1},
    {"withOneTime", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10 300", 1},
    {"withoutThreads", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10 300 250 11 12 -13 -14", 1},
    {"withALetter", "4711 (daemon) S 1 2 3 4 -5 x 7 8 9 10 300 250 11 12 -13 -14 17", 1},
    {"emptyStatm", "", STAT_VALUES},
    {"statmWithOneNumber", "901\n", STAT_VALUES},
    {"statmWithLetters", "901 x", STAT_VALUES},
};

VESK_TEST_TABLE(ProcessInfoTexts, areNotParsed, testing::Test, TEXTS) {
    FakeDaemon const proc;
    proc.set(GetParam().available == STAT_VALUES ? "4711/statm" : "4711/stat", GetParam().text);
    EXPECT_EQ(describeInvalid(GetParam().available, GetParam().name), describe(takeSnapshot()));
    EXPECT_TRUE(chainIs({SysErrorId::QUERY_FAILED}));
}

TEST(ProcessInfo, failureOfTheClockIsChainedAndLeavesTheSnapshotValid) {
    FakeDaemon const proc;
    for (int const error : {EINVAL, EFAULT}) {
        SCOPED_TRACE(strerrorname_np(error));
        ProcessInfo info(PID);
        info.timestamp = 99;
        Fault const fault(inject_clock_gettime, error);
        info.init();
        EXPECT_TRUE(isClockFailure(error));
        EXPECT_TRUE(info.valid);
        EXPECT_EQ(ALL_VALUES, info.available);
        EXPECT_EQ(0, info.timestamp);
    }
}

/// Returns a snapshot like those of `init`.
ProcessInfo makeInfo(unsigned long long user_time, unsigned long long system_time, long long timestamp) {
    ProcessInfo info(PID);
    info.available = ProcessInfo::USER_TIME | ProcessInfo::SYSTEM_TIME;
    info.user_time = user_time;
    info.system_time = system_time;
    info.timestamp = timestamp;
    return info;
}

struct LoadRow : NamedRow {
    ProcessInfo start;
    ProcessInfo end;
    double load;
    long processors = 1;
};

LoadRow const LOADS[] = {
    {"both", makeInfo(1000, 500, 10000), makeInfo(1200, 600, 11000), 30},
    {"user", makeInfo(1000, 500, 10000), makeInfo(1200, 500, 11000), 20},
    {"system", makeInfo(1000, 500, 10000), makeInfo(1000, 600, 11000), 10},
    {"idle", makeInfo(1000, 500, 10000), makeInfo(1000, 500, 11000), 0},
    {"full", makeInfo(1000, 500, 10000), makeInfo(1500, 1000, 11000), 100},
    {"oneProcessor", makeInfo(0, 0, 0), makeInfo(600, 200, 1000), 80, 1},
    {"fourProcessors", makeInfo(0, 0, 0), makeInfo(600, 200, 1000), 20, 4},
    {"twoProcessors", makeInfo(0, 0, 0), makeInfo(600, 200, 1000), 40, 2},
    {"above100Is100", makeInfo(0, 0, 0), makeInfo(1003, 0, 1000), 100},
    {"timesWentBack", makeInfo(42949670, 0, 0), makeInfo(7, 0, 1000), 0},
    {"sameMoment", makeInfo(0, 0, 1000), makeInfo(500, 0, 1000), 0},
    {"wrongOrder", makeInfo(500, 0, 2000), makeInfo(0, 0, 1000), 0},
    {"idleOverTheLongestTime", makeInfo(0, 0, LLONG_MIN), makeInfo(0, 0, LLONG_MAX), 0},
    {"fullAtTheLastMoment", makeInfo(0, 0, LLONG_MAX - 1), makeInfo(1, 0, LLONG_MAX), 100},
    {"withoutACountOfProcessors", makeInfo(0, 0, 0), makeInfo(500, 0, 1000), 100, -1},
    {"idleWithoutACountOfProcessors", makeInfo(0, 0, 0), makeInfo(0, 0, 1000), 0, -1},
};

VESK_TEST_TABLE(ProcessInfoLoad, isTheShareOfTheElapsedTimeOfAllProcessors, testing::Test, LOADS) {
    s_processors = GetParam().processors;
    EXPECT_DOUBLE_EQ(GetParam().load, ProcessInfo::getCpuLoad(GetParam().start, GetParam().end));
    s_processors = 0;
}

TEST(ProcessInfo, loadOverTheLongestTimeIsSmall) {
    EXPECT_GT(1e-6, ProcessInfo::getCpuLoad(makeInfo(0, 0, LLONG_MIN), makeInfo(1000, 0, LLONG_MAX)));
}

TEST(ProcessInfo, loadWithoutTimesOfTheStartOrTheEndFails) {
    ProcessInfo incomplete = makeInfo(0, 0, 1000);
    for (unsigned int const available : {0u, 2u, 4u, ALL_VALUES & ~2u, ALL_VALUES & ~4u, ALL_VALUES & ~6u}) {
        SCOPED_TRACE(available);
        incomplete.available = available;
        EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(incomplete, makeInfo(0, 0, 2000)));
        EXPECT_TRUE(isInvalidParameter("start"));
        EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 0), incomplete));
        EXPECT_TRUE(isInvalidParameter("end"));
        EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(incomplete, incomplete));
        EXPECT_TRUE(isInvalidParameter("start")) << "the start is checked first";
    }
}

class ProcessInfoPIDs : public testing::Test {
protected:
    bool contain(int pid) const { return std::find(m_pids.begin(), m_pids.end(), pid) != m_pids.end(); }

    std::vector<int> m_pids{-1, -2, -3};
};

TEST_F(ProcessInfoPIDs, replaceEarlierOnesWithThoseOfTheSystem) {
    Process child([] { pause(); });
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    EXPECT_TRUE(contain(getpid()));
    EXPECT_TRUE(contain(child.getId()));
    EXPECT_TRUE(std::all_of(m_pids.begin(), m_pids.end(), [](int pid) { return pid > 0; }));
    std::sort(m_pids.begin(), m_pids.end());
    EXPECT_EQ(m_pids.end(), std::adjacent_find(m_pids.begin(), m_pids.end()));
    child.kill();
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    EXPECT_FALSE(contain(child.getId()));
    EXPECT_TRUE(contain(getpid()));
}

TEST_F(ProcessInfoPIDs, areTheNamesThatBeginWithADigit) {
    FakeProc const proc;
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    EXPECT_EQ(std::vector<int>{}, m_pids);
    ASSERT_EQ(1U, proc.getOpened().size());
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, proc.getOpened()[0].flags);
    for (char const* const name : {"1", "4711", "007", "33days", "self", "x9", "-5", " 8", "mounts"}) {
        proc.set(name, "");
    }
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    std::sort(m_pids.begin(), m_pids.end());
    EXPECT_EQ((std::vector<int>{1, 7, 33, 4711}), m_pids);
}

TEST_F(ProcessInfoPIDs, areNoneIfTheDirectoryCannotBeOpened) {
    Fault const fault(inject_open, EMFILE);
    EXPECT_TRUE(ProcessInfo::getPIDs(m_pids));
    EXPECT_TRUE(m_pids.empty());
    std::string const text = systemText(EMFILE);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::RESOURCES_EXHAUSTED, rowText(SysErrorId::RESOURCES_EXHAUSTED, text)},
         vesk::FileAccessErrorId::NO_DESCRIPTOR,
         {SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, text)}}));
}

TEST_F(ProcessInfoPIDs, directoryThatCannotBeReadIsAFailure) {
    EventRecorder const recorder;
    for (int const nth : {1, 2}) {
        Fault const fault(inject_readdir, EIO, nth);
        EXPECT_TRUE(ProcessInfo::getPIDs(m_pids));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EIO))},
             SysErrorId::QUERY_FAILED}));
        EXPECT_EQ(nth, fault.getCalls());
    }
    // The object of the first failure closes a descriptor that the directory stream has closed.
    EXPECT_EQ("WARNING framework/src/vesk/posix/Directory init: error closing dir-fd", recorder.getText());
}

void doNothing() {}

void sleepForever() {
    pause();
}

void spin() {
    for (int volatile i = 0; i < 10000; i = i + 1) {}
}

/// Returns the processor time of a process in milliseconds from another clock of the system.
double readProcessClock(int pid) {
    clockid_t clock{};
    EXPECT_EQ(0, clock_getcpuclockid(pid, &clock));
    timespec time{};
    EXPECT_EQ(0, clock_gettime(clock, &time));
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

TEST(ProcessInfoOfAProcess, hasItsNameThreadsAndMemory) {
    PreparedChild const child(
        [] {
            prctl(PR_SET_NAME, "odd) (name");
            for (int i = 0; i < 3; ++i) {
                std::thread(sleepForever).detach();
            }
        },
        sleepForever);
    ProcessInfo const info = takeSnapshot(child.getId());
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("odd) (name", info.name);
    std::filesystem::directory_iterator const tasks("/proc/" + std::to_string(child.getId()) + "/task");
    EXPECT_EQ(static_cast<size_t>(std::distance(begin(tasks), end(tasks))), info.threads);
    EXPECT_LE(4u, info.threads);
    // In kilobytes. The memory of a sleeping process changes little.
    std::ifstream status("/proc/" + std::to_string(child.getId()) + "/status");
    std::string word;
    size_t resident_kb = 0;
    while (status >> word && word != "VmRSS:") {}
    status >> resident_kb;
    EXPECT_LT(0u, resident_kb);
    EXPECT_NEAR(
        static_cast<double>(resident_kb) * 1024, static_cast<double>(info.resident),
        static_cast<double>(info.resident) / 4);
    long long now = 0;
    EXPECT_FALSE(Time::getTimestamp(now));
    EXPECT_GE(now, info.timestamp);
    EXPECT_LT(now - 60000, info.timestamp);
}

TEST(ProcessInfoOfAProcess, hasItsProcessorTimeAndLoad) {
    PreparedChild const child(doNothing, spin);
    double const before_start = readProcessClock(child.getId());
    ProcessInfo const start = takeSnapshot(child.getId());
    double const after_start = readProcessClock(child.getId());
    double before_end = 0;
    EXPECT_TRUE(eventually([&] {
        before_end = readProcessClock(child.getId());
        return before_end >= after_start + 500;
    })) << "the child does not run";
    ProcessInfo const end = takeSnapshot(child.getId());
    double const after_end = readProcessClock(child.getId());
    ASSERT_TRUE(start.valid && end.valid);
    // Each of the two times is cut to a tick, and the last tick may not be counted yet.
    auto const used = static_cast<double>(end.user_time + end.system_time);
    EXPECT_LE(before_end - 50, used);
    EXPECT_GE(after_end + 50, used);
    EXPECT_LT(200u, end.user_time) << "it spins in user mode";
    auto const elapsed = static_cast<double>(end.timestamp - start.timestamp);
    double const processors = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    double const load = ProcessInfo::getCpuLoad(start, end);
    EXPECT_LE((before_end - after_start - 100) / processors / elapsed * 100, load);
    EXPECT_GE((after_end - before_start + 100) / processors / elapsed * 100, load);
    EXPECT_LT(0.0, load);
}

TEST(ProcessInfoOfAProcess, loadOfASleepingOneIsZero) {
    PreparedChild const child(doNothing, sleepForever);
    waitUntilAsleep(child.getId(), child.getId());
    ProcessInfo const start = takeSnapshot(child.getId());
    ProcessInfo end(child.getId());
    EXPECT_TRUE(eventually([&] {
        end.init();
        return end.timestamp >= start.timestamp + 50;
    }));
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(start, end));
}

TEST(ProcessInfoOfAProcess, thatEndsDuringOrBeforeTheSnapshotIsNotAvailable) {
    PreparedChild child(doNothing, sleepForever);
    int const pid = child.getId();
    std::function<void()> const kill = [&child] { child.kill(); };
    for (int const error : {ESRCH, ENOENT}) {
        s_before_read = error == ESRCH ? &kill : nullptr;
        ProcessInfo const info = takeSnapshot(pid);
        s_before_read = nullptr;
        EXPECT_FALSE(info.valid);
        EXPECT_EQ(0u, info.available);
        EXPECT_TRUE(isFailedQuery(error));
        EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(info, info));
        EXPECT_TRUE(isInvalidParameter("start"));
    }
}

TEST(ProcessInfoOfAProcess, canBeReadByManyThreads) {
    PreparedChild const child(doNothing, sleepForever);
    runInThreads(8, [&child](int) {
        for (int round = 0; round < 20; ++round) {
            ProcessInfo const info = takeSnapshot(child.getId());
            EXPECT_EQ(ALL_VALUES, info.available);
            EXPECT_LT(0u, info.resident);
            EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(info, info));
        }
    });
}

} // namespace
