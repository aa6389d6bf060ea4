#include "services/FakeProc.h"

#include "frame/FakeClock.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/FileAccessError.h>
#include <vesk/ProcessInfo.h>
#include <vesk/SysError.h>
#include <vesk/Time.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/// What happens ahead of each read, and how much is asked for.
std::function<void()> const* s_before_read = nullptr;
size_t s_read_size = 0;
// How many processors the system says it has; 0 is the truth.
long s_processors = 0;

} // namespace

support::Injected inject_read("read");
extern "C" VESK_UNWATCHED ssize_t read(int fd, void* buffer, size_t size) {
    s_read_size = size;
    if (s_before_read != nullptr) {
        (*s_before_read)();
    }
    int error = 0;
    if (inject_read.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<ssize_t (*)(int, void*, size_t)>(inject_read.getReal())(fd, buffer, size);
}

support::Injected inject_readdir("readdir");
extern "C" VESK_UNWATCHED dirent* readdir(DIR* directory) {
    int error = 0;
    if (inject_readdir.fails(error)) {
        errno = error;
        return nullptr;
    }
    return reinterpret_cast<dirent* (*)(DIR*)>(inject_readdir.getReal())(directory);
}

support::Injected inject_sysconf("sysconf");
extern "C" VESK_UNWATCHED long sysconf(int name) {
    if (name == _SC_NPROCESSORS_ONLN && s_processors != 0) {
        return s_processors;
    }
    return reinterpret_cast<long (*)(int)>(inject_sysconf.getReal())(name);
}

namespace {

using support::chainIs;
using support::EventRecorder;
using support::FakeClock;
using support::FakeProc;
using support::Fault;
using support::Process;
using support::rowText;
using support::systemText;
using vesk::ProcessInfo;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Time;

constexpr int PID = 4711;
constexpr unsigned int STAT_VALUES =
    ProcessInfo::NAME | ProcessInfo::USER_TIME | ProcessInfo::SYSTEM_TIME | ProcessInfo::THREADS;
constexpr unsigned int ALL_VALUES = STAT_VALUES | ProcessInfo::RESIDENT;

long getTicksPerSecond() {
    return sysconf(_SC_CLK_TCK);
}

/// A snapshot of a process that is all made up.
ProcessInfo look(FakeProc const&) {
    ProcessInfo info(PID);
    info.init();
    return info;
}

// ---- the snapshot ----

TEST(ProcessInfo, knowsNothingBeforeItHasLooked) {
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

TEST(ProcessInfo, bitsOfAvailableHaveTheirNumbers) {
    EXPECT_EQ(1, ProcessInfo::NAME);
    EXPECT_EQ(2, ProcessInfo::USER_TIME);
    EXPECT_EQ(4, ProcessInfo::SYSTEM_TIME);
    EXPECT_EQ(8, ProcessInfo::THREADS);
    EXPECT_EQ(16, ProcessInfo::RESIDENT);
}

TEST(ProcessInfo, takesEachValueFromItsPlace) {
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "300", "250", "17", "33");
    FakeClock const clock(1700000000, 123456789);
    ProcessInfo const info = look(proc);
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("daemon", info.name);
    EXPECT_EQ(300000u / static_cast<unsigned long>(getTicksPerSecond()), info.user_time);
    EXPECT_EQ(250000u / static_cast<unsigned long>(getTicksPerSecond()), info.system_time);
    EXPECT_EQ(1700000000123, info.timestamp);
    EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
    EXPECT_EQ(17u, info.threads);
    EXPECT_EQ(33u * static_cast<size_t>(sysconf(_SC_PAGESIZE)), info.resident);
}

TEST(ProcessInfo, opensBothFilesForReadingOnlyAndForNoChild) {
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "1", "1", "1", "1");
    look(proc);
    ASSERT_EQ(2u, proc.getOpened().size());
    EXPECT_EQ("/proc/4711/stat", proc.getOpened()[0].path);
    EXPECT_EQ("/proc/4711/statm", proc.getOpened()[1].path);
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, proc.getOpened()[0].flags);
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, proc.getOpened()[1].flags);
}

TEST(ProcessInfo, longestProcessIdHasAPath) {
    FakeProc const proc;
    ProcessInfo info(INT_MIN);
    info.init();
    ASSERT_EQ(1u, proc.getOpened().size());
    EXPECT_EQ("/proc/-2147483648/stat", proc.getOpened()[0].path);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(ENOENT))}}));
}

TEST(ProcessInfo, processZeroTripsAnAssertionAndIsLookedForAllTheSame) {
    EventRecorder const recorder;
    ProcessInfo info(0);
    info.init();
    EXPECT_EQ("ASSERT framework/src/vesk/linux/ProcessInfo init: m_pid", recorder.getText());
    EXPECT_FALSE(info.valid);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(ENOENT))}}));
}

struct NameRow {
    char const* what;
    char const* name;
};

void PrintTo(NameRow const& row, std::ostream* out) {
    *out << row.what;
}

class ProcessInfoNames : public testing::TestWithParam<NameRow> {};

TEST_P(ProcessInfoNames, endWithTheLastParenthesis) {
    FakeProc const proc;
    proc.setProcess(PID, GetParam().name, "100", "200", "3", "4");
    ProcessInfo const info = look(proc);
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(GetParam().name, info.name);
    EXPECT_EQ(3u, info.threads);
    EXPECT_EQ(100000u / static_cast<unsigned long>(getTicksPerSecond()), info.user_time);
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoNames,
    testing::Values(
        NameRow{"plain", "daemon"}, NameRow{"parenthesesBetweenSpaces", "a) (b"},
        NameRow{"closingOne", "a)b"}, NameRow{"openingOne", "a(b"}, NameRow{"onlyParentheses", "))(("},
        NameRow{"empty", ""}, NameRow{"spaces", "a b  c"}, NameRow{"newline", "a\nb"},
        NameRow{"likeAStatLine", "1) R 9 9 9 9 9 9 9 9 9 9 9"}),
    [](auto const& row) { return row.param.what; });

TEST(ProcessInfo, timesWrapWithThirtyTwoBitsOfTicksTimesThousand) {
    ASSERT_EQ(100, getTicksPerSecond());
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "4294967", "4294968", "1", "1");
    ProcessInfo const info = look(proc);
    EXPECT_EQ(42949670u, info.user_time);
    EXPECT_EQ(7u, info.system_time) << "4294968000 is 704 in 32 bits";
}

TEST(ProcessInfo, timesWrapWithThirtyTwoBitsOfTicks) {
    ASSERT_EQ(100, getTicksPerSecond());
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "4294967299", "18446744073709551615", "1", "1");
    ProcessInfo const info = look(proc);
    EXPECT_EQ(30u, info.user_time);
    EXPECT_EQ(42949662u, info.system_time) << "-1000 is 4294966296 in 32 bits";
}

TEST(ProcessInfo, timesOfOneTickAreRoundedDown) {
    ASSERT_EQ(100, getTicksPerSecond());
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "1", "0", "1", "1");
    ProcessInfo const info = look(proc);
    EXPECT_EQ(10u, info.user_time);
    EXPECT_EQ(0u, info.system_time);
}

TEST(ProcessInfo, residentMemoryIsCountedInTheSystemsSize) {
    FakeProc const proc;
    // As many bytes as a size can count, give or take a page.
    size_t const pages = SIZE_MAX / static_cast<size_t>(sysconf(_SC_PAGESIZE));
    proc.setProcess(PID, "daemon", "1", "1", "1", std::to_string(pages));
    EXPECT_EQ(pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)), look(proc).resident);
}

TEST(ProcessInfo, readsNoMoreThanItsBufferHolds) {
    FakeProc const proc;
    proc.setProcess(PID, std::string(900, 'n'), "100", "200", "3", "4");
    ProcessInfo const info = look(proc);
    EXPECT_EQ(1023u, s_read_size);
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(std::string(900, 'n'), info.name);
}

TEST(ProcessInfo, textBeyondTheBufferIsCutOff) {
    FakeProc const proc;
    proc.setProcess(PID, std::string(2000, 'n'), "100", "200", "3", "4");
    ProcessInfo const info = look(proc);
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(0u, info.available) << "the end of the name was not seen";
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED}}));
}

TEST(ProcessInfo, nothingOfAnEarlierSnapshotCountsWhenTheNextOneFails) {
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "300", "250", "17", "33");
    ProcessInfo info(PID);
    info.init();
    EXPECT_TRUE(info.valid);
    proc.set("4711/stat", "");
    info.init();
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(0u, info.available);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED}}));
}

TEST(ProcessInfo, snapshotMayBeTakenAgain) {
    FakeProc const proc;
    proc.setProcess(PID, "before", "300", "250", "17", "33");
    ProcessInfo info(PID);
    info.init();
    proc.setProcess(PID, "now", "301", "251", "18", "34");
    info.init();
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("now", info.name);
    EXPECT_EQ(18u, info.threads);
    EXPECT_EQ(34u * static_cast<size_t>(sysconf(_SC_PAGESIZE)), info.resident);
}

// ---- what fails ----

/// What is known when a call has failed.
void expectFailure(ProcessInfo const& info, int error, unsigned int available) {
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(error))}}));
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(available, info.available);
    EXPECT_EQ(0, info.timestamp);
}

class ProcessInfoErrnos : public testing::TestWithParam<int> {
protected:
    ProcessInfoErrnos() { m_proc.setProcess(PID, "daemon", "300", "250", "17", "33"); }

    FakeProc m_proc;
};

TEST_P(ProcessInfoErrnos, ofOpeningStat) {
    Fault const fault(inject_open, GetParam());
    expectFailure(look(m_proc), GetParam(), 0);
    EXPECT_EQ(1, fault.getCalls());
}

TEST_P(ProcessInfoErrnos, ofOpeningStatm) {
    Fault const fault(inject_open, GetParam(), 2);
    expectFailure(look(m_proc), GetParam(), 0);
    EXPECT_EQ(2, fault.getCalls());
}

TEST_P(ProcessInfoErrnos, ofReadingStat) {
    Fault const fault(inject_read, GetParam());
    expectFailure(look(m_proc), GetParam(), 0);
    EXPECT_EQ(1, fault.getCalls());
}

TEST_P(ProcessInfoErrnos, ofReadingStatm) {
    Fault const fault(inject_read, GetParam(), 2);
    ProcessInfo const info = look(m_proc);
    expectFailure(info, GetParam(), STAT_VALUES);
    EXPECT_EQ(2, fault.getCalls());
    EXPECT_EQ("daemon", info.name);
    EXPECT_EQ(17u, info.threads);
    EXPECT_EQ(0u, info.resident);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoErrnos, testing::Values(ENOENT, EACCES, EMFILE, ENOMEM, EINTR, ESRCH));

struct TextRow {
    char const* what;
    std::string text;
    unsigned int available;
};

void PrintTo(TextRow const& row, std::ostream* out) {
    *out << row.what;
}

class ProcessInfoStatTexts : public testing::TestWithParam<TextRow> {};

TEST_P(ProcessInfoStatTexts, doNotParse) {
    FakeProc const proc;
    proc.set("4711/stat", GetParam().text);
    proc.set("4711/statm", "1 2 3 4 5 6 7\n");
    ProcessInfo const info = look(proc);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED}}));
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(GetParam().available, info.available);
    EXPECT_EQ(0u, info.user_time);
    EXPECT_EQ(0u, info.threads);
    EXPECT_EQ(0u, info.resident);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoStatTexts,
    testing::Values(
        TextRow{"empty", "", 0}, TextRow{"withoutParentheses", "4711 daemon S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        TextRow{"withoutTheClosingOne", "4711 (daemon S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        TextRow{"withoutTheOpeningOne", "4711 daemon) S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        TextRow{"inTheWrongOrder", "4711 )daemon( S 1 2 3 4 5 6 7 8 9 10 11 12", 0},
        TextRow{"endingWithTheName", "4711 (daemon)", 1}, TextRow{"endingWithASpace", "4711 (daemon) ", 1},
        // What is behind the text is behind the buffer as well.
        TextRow{"endingWithTheNameAndTheBuffer", "4711 (" + std::string(1016, 'n') + ")", 1},
        TextRow{"withoutTimes", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10", 1},
        TextRow{"withOneTime", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10 300", 1},
        TextRow{"withoutThreads", "4711 (daemon) S 1 2 3 4 -5 6 7 8 9 10 300 250 11 12 -13 -14", 1},
        TextRow{"withALetter", "4711 (daemon) S 1 2 3 4 -5 x 7 8 9 10 300 250 11 12 -13 -14 17", 1}),
    [](auto const& row) { return row.param.what; });

class ProcessInfoStatmTexts : public testing::TestWithParam<TextRow> {};

TEST_P(ProcessInfoStatmTexts, doNotParse) {
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "300", "250", "17", "33");
    proc.set("4711/statm", GetParam().text);
    ProcessInfo const info = look(proc);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED}}));
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(STAT_VALUES, info.available);
    EXPECT_EQ(0u, info.resident);
    EXPECT_EQ(0, info.timestamp);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoStatmTexts,
    testing::Values(
        TextRow{"empty", "", 0}, TextRow{"withOneNumber", "901\n", 0}, TextRow{"letters", "901 x", 0}),
    [](auto const& row) { return row.param.what; });

struct ClockRow {
    int error;
    std::ErrorType const* family;
    int id;
};

void PrintTo(ClockRow const& row, std::ostream* out) {
    *out << row.error;
}

class ProcessInfoClock : public testing::TestWithParam<ClockRow> {};

TEST_P(ProcessInfoClock, failureIsChainedAndLeavesTheSnapshotValid) {
    FakeProc const proc;
    proc.setProcess(PID, "daemon", "300", "250", "17", "33");
    ProcessInfo info(PID);
    info.timestamp = 99;
    Fault const fault(inject_clock_gettime, GetParam().error);
    info.init();
    std::string const text = systemText(GetParam().error);
    EXPECT_TRUE(chainIs(
        {{*GetParam().family, GetParam().id, rowText(*GetParam().family, GetParam().id, text)},
         {SysError, SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, text)}}));
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ(0, info.timestamp);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessInfoClock,
    testing::Values(
        ClockRow{EINVAL, &SysError, SysErrorId::NOT_IMPLEMENTED},
        ClockRow{EFAULT, &Time::Error, Time::ErrorId::GET_TIMESTAMP_FAILED}));

// ---- the load ----

/// A snapshot as `init` would have left it.
ProcessInfo makeInfo(unsigned long long user_time, unsigned long long system_time, long long timestamp) {
    ProcessInfo info(PID);
    info.available = ProcessInfo::USER_TIME | ProcessInfo::SYSTEM_TIME;
    info.user_time = user_time;
    info.system_time = system_time;
    info.timestamp = timestamp;
    return info;
}

class ProcessInfoLoad : public testing::Test {
protected:
    ProcessInfoLoad() { s_processors = 1; }
    ~ProcessInfoLoad() override { s_processors = 0; }
};

TEST_F(ProcessInfoLoad, isTheShareOfTheTimeThatPassed) {
    ProcessInfo const start = makeInfo(1000, 500, 10000);
    EXPECT_DOUBLE_EQ(30.0, ProcessInfo::getCpuLoad(start, makeInfo(1200, 600, 11000)));
    EXPECT_DOUBLE_EQ(20.0, ProcessInfo::getCpuLoad(start, makeInfo(1200, 500, 11000)));
    EXPECT_DOUBLE_EQ(10.0, ProcessInfo::getCpuLoad(start, makeInfo(1000, 600, 11000)));
    EXPECT_DOUBLE_EQ(0.0, ProcessInfo::getCpuLoad(start, makeInfo(1000, 500, 11000)));
    EXPECT_DOUBLE_EQ(100.0, ProcessInfo::getCpuLoad(start, makeInfo(1500, 1000, 11000)));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessInfoLoad, isThatOfAllProcessorsThatAreOnlineNow) {
    ProcessInfo const start = makeInfo(0, 0, 0);
    ProcessInfo const end = makeInfo(600, 200, 1000);
    EXPECT_DOUBLE_EQ(80.0, ProcessInfo::getCpuLoad(start, end));
    s_processors = 4;
    EXPECT_DOUBLE_EQ(20.0, ProcessInfo::getCpuLoad(start, end));
    s_processors = 2;
    EXPECT_DOUBLE_EQ(40.0, ProcessInfo::getCpuLoad(start, end));
}

TEST_F(ProcessInfoLoad, beyondAHundredIsAHundred) {
    EXPECT_EQ(100.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 0), makeInfo(1003, 0, 1000)));
}

TEST_F(ProcessInfoLoad, ofTimesThatWentBackIsNothing) {
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(makeInfo(42949670, 0, 0), makeInfo(7, 0, 1000)));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessInfoLoad, ofTheSameMomentIsNothing) {
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 1000), makeInfo(500, 0, 1000)));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessInfoLoad, inTheWrongOrderIsNothingAndNoError) {
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(makeInfo(500, 0, 2000), makeInfo(0, 0, 1000)));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessInfoLoad, overAllTheTimeThereIsDoesNotOverflow) {
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, LLONG_MIN), makeInfo(0, 0, LLONG_MAX)));
    EXPECT_GT(1e-6, ProcessInfo::getCpuLoad(makeInfo(0, 0, LLONG_MIN), makeInfo(1000, 0, LLONG_MAX)));
    EXPECT_EQ(100.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, LLONG_MAX - 1), makeInfo(1, 0, LLONG_MAX)));
}

TEST_F(ProcessInfoLoad, withoutACountOfProcessorsIsANumber) {
    s_processors = -1;
    EXPECT_EQ(100.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 0), makeInfo(500, 0, 1000)));
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 0), makeInfo(0, 0, 1000)));
}

class ProcessInfoLoadWithout : public testing::TestWithParam<unsigned int> {};

TEST_P(ProcessInfoLoadWithout, isAFailureOfTheStart) {
    ProcessInfo start = makeInfo(0, 0, 0);
    start.available = GetParam();
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(start, makeInfo(0, 0, 1000)));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "start")}}));
}

TEST_P(ProcessInfoLoadWithout, isAFailureOfTheEnd) {
    ProcessInfo end = makeInfo(0, 0, 1000);
    end.available = GetParam();
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(makeInfo(0, 0, 0), end));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "end")}}));
}

TEST_P(ProcessInfoLoadWithout, isAFailureOfTheStartAheadOfTheEnd) {
    ProcessInfo without = makeInfo(0, 0, 0);
    without.available = GetParam();
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(without, without));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "start")}}));
}

INSTANTIATE_TEST_SUITE_P(
    OneOrBothTimes, ProcessInfoLoadWithout,
    testing::Values(0u, 2u, 4u, ALL_VALUES & ~2u, ALL_VALUES & ~4u, ALL_VALUES & ~6u));

// ---- all processes ----

class ProcessInfoPIDs : public testing::Test {
protected:
    bool contain(int pid) const { return std::find(m_pids.begin(), m_pids.end(), pid) != m_pids.end(); }

    std::vector<int> m_pids{-1, -2, -3};
};

TEST_F(ProcessInfoPIDs, areThoseOfTheSystemAndNoneOfBefore) {
    Process child([] { pause(); });
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    EXPECT_TRUE(chainIs({}));
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

TEST_F(ProcessInfoPIDs, areNamesWithADigitInFront) {
    FakeProc const proc;
    for (char const* const name : {"1", "4711", "007", "33days", "self", "x9", "-5", " 8", "mounts"}) {
        proc.set(name, "");
    }
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    std::sort(m_pids.begin(), m_pids.end());
    EXPECT_EQ((std::vector<int>{1, 7, 33, 4711}), m_pids);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessInfoPIDs, areNoneWhereThereAreNone) {
    FakeProc const proc;
    EXPECT_FALSE(ProcessInfo::getPIDs(m_pids));
    EXPECT_EQ(std::vector<int>{}, m_pids);
    ASSERT_EQ(1U, proc.getOpened().size());
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, proc.getOpened()[0].flags);
}

TEST_F(ProcessInfoPIDs, directoryThatCannotBeOpenedIsAFailureThatEmptiesThemAllTheSame) {
    Fault const fault(inject_open, EMFILE);
    EXPECT_TRUE(ProcessInfo::getPIDs(m_pids));
    EXPECT_TRUE(m_pids.empty());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::RESOURCES_EXHAUSTED, rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EMFILE))},
         {vesk::FileAccessError, vesk::FileAccessErrorId::NO_DESCRIPTOR},
         {SysError, SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(EMFILE))}}));
}

TEST_F(ProcessInfoPIDs, directoryThatCannotBeReadIsAFailure) {
    for (int const nth : {1, 2}) {
        Fault const fault(inject_readdir, EIO, nth);
        EXPECT_TRUE(ProcessInfo::getPIDs(m_pids));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EIO))},
             {SysError, SysErrorId::QUERY_FAILED}}));
        EXPECT_EQ(nth, fault.getCalls());
    }
}

// ---- real processes ----

/// A child that does something, tells when it is ready, and then goes on with something else until it is killed.
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

void sleepWell() {
    pause();
}

void spin() {
    for (int volatile i = 0; i < 10000; i = i + 1) {}
}

/// Processor time of a process in milliseconds, as another clock of the system has it.
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
    EXPECT_LE(ms, now) << "the child gets no processor";
    return now;
}

TEST(ProcessInfoOfAProcess, tellsItsNameThreadsAndMemory) {
    Child const child(
        [] {
            prctl(PR_SET_NAME, "odd) (name");
            for (int i = 0; i < 3; ++i) {
                std::thread(sleepWell).detach();
            }
        },
        sleepWell);
    ProcessInfo info(child.getPID());
    info.init();
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(ALL_VALUES, info.available);
    EXPECT_EQ("odd) (name", info.name);
    std::filesystem::directory_iterator const tasks("/proc/" + std::to_string(child.getPID()) + "/task");
    EXPECT_EQ(static_cast<size_t>(std::distance(begin(tasks), end(tasks))), info.threads);
    EXPECT_LE(4u, info.threads);
    // In kilobytes, and as far as a sleeping process stays as it is.
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

TEST(ProcessInfoOfAProcess, tellsTheProcessorTimeThatItUsed) {
    Child const child(doNothing, spin);
    double const least = waitForProcessClock(child.getPID(), 300);
    ProcessInfo info(child.getPID());
    info.init();
    double const most = readProcessClock(child.getPID());
    EXPECT_TRUE(info.valid);
    // Each of the two times is cut to a tick, and the last tick may still be on its way.
    auto const used = static_cast<double>(info.user_time + info.system_time);
    EXPECT_LE(least - 50, used);
    EXPECT_GE(most + 50, used);
    EXPECT_LT(200u, info.user_time) << "it spins in user mode";
}

TEST(ProcessInfoOfAProcess, loadOfABusyOneIsWhatItUsed) {
    Child const child(doNothing, spin);
    ProcessInfo start(child.getPID());
    ProcessInfo end(child.getPID());
    double const before_start = readProcessClock(child.getPID());
    start.init();
    double const after_start = readProcessClock(child.getPID());
    double const before_end = waitForProcessClock(child.getPID(), after_start + 500);
    end.init();
    double const after_end = readProcessClock(child.getPID());
    ASSERT_TRUE(start.valid && end.valid);
    auto const elapsed = static_cast<double>(end.timestamp - start.timestamp);
    double const processors = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    double const load = ProcessInfo::getCpuLoad(start, end);
    EXPECT_LE((before_end - after_start - 100) / processors / elapsed * 100, load);
    EXPECT_GE((after_end - before_start + 100) / processors / elapsed * 100, load);
    EXPECT_LT(0.0, load);
    EXPECT_TRUE(chainIs({}));
}

TEST(ProcessInfoOfAProcess, loadOfASleepingOneIsNothing) {
    Child const child(doNothing, sleepWell);
    support::waitUntilAsleep(child.getPID(), child.getPID());
    ProcessInfo start(child.getPID());
    start.init();
    ProcessInfo end(child.getPID());
    time_t const deadline = time(nullptr) + 60;
    do {
        end.init();
    } while (end.timestamp < start.timestamp + 50 && time(nullptr) < deadline);
    EXPECT_LT(start.timestamp, end.timestamp);
    EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(start, end));
}

TEST(ProcessInfoOfAProcess, thatHasGoneTellsNothing) {
    Child const child(doNothing, sleepWell);
    int const pid = child.getPID();
    child.kill();
    ProcessInfo info(pid);
    info.init();
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(0u, info.available);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(ENOENT))}}));
    EXPECT_EQ(-1.0, ProcessInfo::getCpuLoad(info, info));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "start")}}));
}

TEST(ProcessInfoOfAProcess, thatGoesAwayWhileItIsLookedAtTellsNothing) {
    Child const child(doNothing, sleepWell);
    ProcessInfo info(child.getPID());
    std::function<void()> const kill = [&child] { child.kill(); };
    s_before_read = &kill;
    info.init();
    s_before_read = nullptr;
    EXPECT_FALSE(info.valid);
    EXPECT_EQ(0u, info.available);
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(ESRCH))}}));
}

TEST(ProcessInfoOfAProcess, threadsUseObjectsOfTheirOwn) {
    Child const child(doNothing, sleepWell);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&child] {
            for (int round = 0; round < 20; ++round) {
                ProcessInfo info(child.getPID());
                info.init();
                EXPECT_EQ(ALL_VALUES, info.available);
                EXPECT_LT(0u, info.resident);
                EXPECT_EQ(0.0, ProcessInfo::getCpuLoad(info, info));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
