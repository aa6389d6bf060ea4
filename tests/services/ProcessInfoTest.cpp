#include "services/FakeProc.h"
#include "services/Loads.h"

#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/ErrnoRows.h"
#include "support/EventRecorder.h"
#include "support/NamedRow.h"
#include "support/Processes.h"
#include "support/RunInThreads.h"

#include <vesk/ProcessInfo.h>
#include <vesk/Time.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <memory>
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

TEST(ProcessInfo, isEmptyBeforeTheFirstInit) {
    ProcessInfo const info(PID);
    EXPECT_EQ(PID, info.getPID());
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(0u, info.available);
    EXPECT_EQ("", info.name);
    EXPECT_EQ(0u, info.user_time);
    EXPECT_EQ(0u, info.system_time);
    EXPECT_EQ(0, info.timestamp);
    EXPECT_EQ(0u, info.threads);
    EXPECT_EQ(0u, info.resident);
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

class ProcessInfoNames : public testing::TestWithParam<NameRow> {};

TEST_P(ProcessInfoNames, endAtTheLastParenthesis) {
    FakeProc const proc;
    proc.setProcess(PID, GetParam().name, "100", "200", "3", "4");
    ProcessInfo const info = takeSnapshot();
    EXPECT_EQ(1023u, s_read_size);
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(GetParam().name, info.name);
    EXPECT_EQ(3u, info.threads);
    EXPECT_EQ(getMilliseconds(100), info.user_time);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoNames,
    rowsOf<NameRow>({
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
    }),
    byName);

struct TicksRow : NamedRow {
    char const* user_ticks;
    char const* system_ticks;
    unsigned long user_time;
    unsigned long system_time;
};

class ProcessInfoTimes : public testing::TestWithParam<TicksRow> {};

TEST_P(ProcessInfoTimes, areTheTicksInMilliseconds) {
    ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
    FakeProc const proc;
    proc.setProcess(PID, "daemon", GetParam().user_ticks, GetParam().system_ticks, "1", "1");
    ProcessInfo const info = takeSnapshot();
    EXPECT_EQ(GetParam().user_time, info.user_time);
    EXPECT_EQ(GetParam().system_time, info.system_time);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoTimes,
    rowsOf<TicksRow>({
        {"oneTick", "1", "0", 10, 0},
        // 4294968000 is 704 in 32 bits.
        {"ticksTimesThousandWrapAt32Bits", "4294967", "4294968", 42949670, 7},
        // -1000 is 4294966296 in 32 bits.
        {"ticksWrapAt32Bits", "4294967299", "18446744073709551615", 30, 42949662},
    }),
    byName);

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
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(0u, info.available);
    EXPECT_TRUE(chainIs({SysErrorId::QUERY_FAILED}));
}

/// A call that fails, and what is read before.
struct FailedCall : NamedRow {
    Injected* call;
    int nth;
    unsigned int available;
};

class ProcessInfoErrnos : public testing::TestWithParam<std::tuple<FailedCall, int>> {};

TEST_P(ProcessInfoErrnos, failureIsReportedAndTheSnapshotIsInvalid) {
    auto const& [row, error] = GetParam();
    FakeDaemon const proc;
    Fault const fault(*row.call, error, row.nth);
    ProcessInfo const info = takeSnapshot();
    EXPECT_TRUE(isFailedQuery(error));
    EXPECT_EQ(row.nth, fault.getCalls());
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(row.available, info.available);
    EXPECT_EQ(0, info.timestamp);
    EXPECT_EQ(row.available != 0 ? "daemon" : "", info.name);
    EXPECT_EQ(row.available != 0 ? 17u : 0u, info.threads);
    EXPECT_EQ(0u, info.resident);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoErrnos,
    testing::Combine(
        testing::Values(
            FailedCall{"open of stat", &inject_open, 1, 0}, FailedCall{"open of statm", &inject_open, 2, 0},
            FailedCall{"read of stat", &inject_read, 1, 0},
            FailedCall{"read of statm", &inject_read, 2, STAT_VALUES}),
        testing::Values(ENOENT, EACCES, EMFILE, ENOMEM, EINTR, ESRCH)));

struct TextRow : NamedRow {
    std::string text; ///< Of stat, or of statm if the values of stat are available.
    unsigned int available = 0;
};

class ProcessInfoTexts : public testing::TestWithParam<TextRow> {};

TEST_P(ProcessInfoTexts, areNotParsed) {
    FakeDaemon const proc;
    bool const is_statm = GetParam().available == STAT_VALUES;
    proc.set(is_statm ? "4711/statm" : "4711/stat", GetParam().text);
    ProcessInfo const info = takeSnapshot();
    EXPECT_TRUE(chainIs({SysErrorId::QUERY_FAILED}));
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(GetParam().available, info.available);
    EXPECT_EQ(is_statm ? getMilliseconds(300) : 0u, info.user_time);
    EXPECT_EQ(is_statm ? 17u : 0u, info.threads);
    EXPECT_EQ(0u, info.resident);
    EXPECT_EQ(0, info.timestamp);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoTexts,
    rowsOf<TextRow>({
        {"empty", "", 0},
        {"withoutParentheses", "4711 daemon S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        {"withoutTheClosingOne", "4711 (daemon S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        {"withoutTheOpeningOne", "4711 daemon) S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        {"inTheWrongOrder", "4711 )daemon( S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        {"endingWithTheName", "4711 (daemon)", 1},
        {"endingWithASpace", "4711 (daemon) ", 1},
        // The text ends with the buffer.
        {"endingWithTheNameAndTheBuffer", "4711 (" + std::string(1016, 'n') + ")", 1},
        // The end of the name is not read.
        {"longerThanTheBuffer", "4711 (" + std::string(2000, 'n') + ") S 1 2 3", 0},
        {"withoutTimes", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10", 1},
        {"withOneTime", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10 300", 1},
        {"withoutThreads", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10 300 250 11 12 -13 -14", 1},
        {"withALetter", "4711 (daemon) S 1 2 3 4 -5 x 7 8 9 10 300 250 11 12 -13 -14 17", 1},
        {"emptyStatm", "", STAT_VALUES},
        {"statmWithOneNumber", "901\n", STAT_VALUES},
        {"statmWithLetters", "901 x", STAT_VALUES},
    }),
    byName);

class ProcessInfoClock : public testing::TestWithParam<int> {};

TEST_P(ProcessInfoClock, failureIsChainedAndLeavesTheSnapshotValid) {
    FakeDaemon const proc;
    ProcessInfo info(PID);
    info.timestamp = 99;
    Fault const fault(inject_clock_gettime, GetParam());
    info.init();
    EXPECT_TRUE(isClockFailure(GetParam()));
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ(0, info.timestamp);
}

INSTANTIATE_TEST_SUITE_P(All, ProcessInfoClock, CLOCK_ERRORS);

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

class ProcessInfoLoad : public testing::TestWithParam<LoadRow> {};

TEST_P(ProcessInfoLoad, isTheShareOfTheElapsedTimeOfAllProcessors) {
    s_processors = GetParam().processors;
    EXPECT_DOUBLE_EQ(GetParam().load, ProcessInfo::getCpuLoad(GetParam().start, GetParam().end));
    s_processors = 0;
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoLoad,
    rowsOf<LoadRow>({
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
    }),
    byName);

TEST(ProcessInfoLoad, overTheLongestTimeIsSmall) {
    EXPECT_GT(1e-6, ProcessInfo::getCpuLoad(makeInfo(0, 0, LLONG_MIN), makeInfo(1000, 0, LLONG_MAX)));
}

class ProcessInfoLoadWithout : public testing::TestWithParam<unsigned int> {};

TEST_P(ProcessInfoLoadWithout, timesOfTheStartOrTheEndFails) {
    ProcessInfo incomplete = makeInfo(0, 0, 1000);
    incomplete.available = GetParam();
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(incomplete, makeInfo(0, 0, 2000)));
    EXPECT_TRUE(isInvalidParameter("start"));
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 0), incomplete));
    EXPECT_TRUE(isInvalidParameter("end"));
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(incomplete, incomplete));
    EXPECT_TRUE(isInvalidParameter("start")) << "the start is checked first";
}

INSTANTIATE_TEST_SUITE_P(
    OneOrBothTimes, ProcessInfoLoadWithout,
    testing::Values(0u, 2u, 4u, ALL_VALUES & ~2u, ALL_VALUES & ~4u, ALL_VALUES & ~6u));

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

/// A child that runs `prepare`, and then `go_on` again and again until it is killed. Waits for the end of `prepare`.
class Child {
public:
    Child(std::function<void()> const& prepare, std::function<void()> const& go_on) {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        m_process = std::make_unique<Process>([&] {
            prepare();
            (void)!write(ends[1], "r", 1);
            for (;;) {
                go_on();
            }
        });
        char byte;
        EXPECT_EQ(1, read(ends[0], &byte, 1));
        close(ends[0]);
        close(ends[1]);
    }

    int getPID() const { return m_process->getId(); }
    void kill() const { m_process->kill(); }

private:
    std::unique_ptr<Process> m_process;
};

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

double waitForProcessClock(int pid, double ms) {
    time_t const deadline = time(nullptr) + 60;
    double now = readProcessClock(pid);
    while (now < ms && time(nullptr) < deadline) {
        std::this_thread::yield();
        now = readProcessClock(pid);
    }
    EXPECT_LE(ms, now) << "the child does not run";
    return now;
}

TEST(ProcessInfoOfAProcess, hasItsNameThreadsAndMemory) {
    Child const child(
        [] {
            prctl(PR_SET_NAME, "odd) (name");
            for (int i = 0; i < 3; ++i) {
                std::thread(sleepForever).detach();
            }
        },
        sleepForever);
    ProcessInfo const info = takeSnapshot(child.getPID());
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("odd) (name", info.name);
    std::filesystem::directory_iterator const tasks("/proc/" + std::to_string(child.getPID()) + "/task");
    EXPECT_EQ(static_cast<size_t>(std::distance(begin(tasks), end(tasks))), info.threads);
    EXPECT_LE(4u, info.threads);
    // In kilobytes. The memory of a sleeping process changes little.
    std::ifstream status("/proc/" + std::to_string(child.getPID()) + "/status");
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
    Child const child(doNothing, spin);
    double const before_start = readProcessClock(child.getPID());
    ProcessInfo const start = takeSnapshot(child.getPID());
    double const after_start = readProcessClock(child.getPID());
    double const before_end = waitForProcessClock(child.getPID(), after_start + 500);
    ProcessInfo const end = takeSnapshot(child.getPID());
    double const after_end = readProcessClock(child.getPID());
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
    Child const child(doNothing, sleepForever);
    waitUntilAsleep(child.getPID(), child.getPID());
    ProcessInfo const start = takeSnapshot(child.getPID());
    ProcessInfo end(child.getPID());
    time_t const deadline = time(nullptr) + 60;
    do {
        end.init();
    } while (end.timestamp < start.timestamp + 50 && time(nullptr) < deadline);
    EXPECT_LT(start.timestamp, end.timestamp);
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(start, end));
}

TEST(ProcessInfoOfAProcess, thatEndsDuringOrBeforeTheSnapshotIsNotAvailable) {
    Child const child(doNothing, sleepForever);
    int const pid = child.getPID();
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
    Child const child(doNothing, sleepForever);
    runInThreads(8, [&child](int) {
        for (int round = 0; round < 20; ++round) {
            ProcessInfo const info = takeSnapshot(child.getPID());
            EXPECT_EQ(ALL_VALUES, info.available);
            EXPECT_LT(0u, info.resident);
            EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(info, info));
        }
    });
}

} // namespace
