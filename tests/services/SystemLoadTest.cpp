#include "frame/FakeClock.h"
#include "support/Chain.h"
#include "support/Inject.h"
#include "support/TempFolder.h"

#include <vesk/SysError.h>
#include <vesk/SystemLoad.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

// The file that stands for /proc/uptime, and how it was opened.
char const* s_uptime_file = nullptr;
std::string s_mode;

} // namespace

support::Injected inject_fopen("fopen");
extern "C" VESK_UNWATCHED FILE* fopen(char const* path, char const* mode) {
    int error = 0;
    if (inject_fopen.fails(error)) {
        errno = error;
        return nullptr;
    }
    auto const real = reinterpret_cast<FILE* (*)(char const*, char const*)>(inject_fopen.getReal());
    if (s_uptime_file != nullptr && strcmp(path, "/proc/uptime") == 0) {
        s_mode = mode;
        return real(s_uptime_file, mode);
    }
    return real(path, mode);
}

namespace {

using support::chainIs;
using support::FakeClock;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::SystemLoad;
using vesk::Time;

double getProcessors() {
    return static_cast<double>(vesk::Vesk::s_sys_info.processor_count);
}

/// A /proc/uptime of the test's own.
class FakeUptime {
public:
    explicit FakeUptime(std::string const& text) : m_file(m_folder.makeFile("uptime", text)) {
        s_uptime_file = m_file.c_str();
    }
    ~FakeUptime() { s_uptime_file = nullptr; }

    FakeUptime(FakeUptime const&) = delete;
    FakeUptime& operator=(FakeUptime const&) = delete;

    std::string const& getFolder() const { return m_folder.getPath(); }

private:
    support::TempFolder m_folder;
    std::string m_file;
};

// ---- the snapshot ----

TEST(SystemLoad, isNotValidBeforeItsFirstSample) {
    SystemLoad const load;
    EXPECT_FALSE(load.valid);
    EXPECT_EQ(0, load.timestamp);
    EXPECT_EQ(0.0, load.idle);
}

TEST(SystemLoad, samplesTheIdleTimeOfOneProcessorOnTheAverage) {
    FakeUptime const uptime("1148.70 8641.50\n");
    FakeClock const clock(1700000000, 123456789);
    SystemLoad load;
    EXPECT_FALSE(load.sample());
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(load.valid);
    EXPECT_DOUBLE_EQ(8641500.0 / getProcessors(), load.idle);
    EXPECT_EQ(1700000000123, load.timestamp);
    EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
    EXPECT_EQ("re", s_mode);
}

TEST(SystemLoad, samplesMayBeTakenAgain) {
    SystemLoad load;
    {
        FakeUptime const uptime("1.00 2.00\n");
        EXPECT_FALSE(load.sample());
    }
    FakeUptime const uptime("10.00 20.00\n");
    EXPECT_FALSE(load.sample());
    EXPECT_TRUE(load.valid);
    EXPECT_DOUBLE_EQ(20000.0 / getProcessors(), load.idle);
}

class SystemLoadErrnos : public testing::TestWithParam<int> {};

TEST_P(SystemLoadErrnos, ofOpeningAreReported) {
    SystemLoad load;
    EXPECT_FALSE(load.sample());
    Fault const fault(inject_fopen, GetParam());
    EXPECT_TRUE(load.sample());
    EXPECT_TRUE(
        chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(GetParam()))}}));
    EXPECT_FALSE(load.valid) << "what an earlier sample found does not count";
}

INSTANTIATE_TEST_SUITE_P(All, SystemLoadErrnos, testing::Values(ENOENT, EACCES, EMFILE, ENOMEM, EINTR));

struct TextRow {
    char const* what;
    char const* text;
};

void PrintTo(TextRow const& row, std::ostream* out) {
    *out << row.what;
}

class SystemLoadTexts : public testing::TestWithParam<TextRow> {};

TEST_P(SystemLoadTexts, doNotParse) {
    FakeUptime const uptime(GetParam().text);
    SystemLoad load;
    load.valid = true;
    EXPECT_TRUE(load.sample());
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED}}));
    EXPECT_FALSE(load.valid);
    EXPECT_EQ(0, load.timestamp);
}

INSTANTIATE_TEST_SUITE_P(
    All, SystemLoadTexts,
    testing::Values(
        TextRow{"empty", ""}, TextRow{"withOneNumber", "1148.70\n"}, TextRow{"withLetters", "1148.70 idle\n"},
        TextRow{"withLettersFirst", "up 1148.70 8641.50\n"}),
    [](auto const& row) { return row.param.what; });

TEST(SystemLoad, fileThatCannotBeReadIsReported) {
    FakeUptime const uptime("");
    s_uptime_file = uptime.getFolder().c_str(); // A folder opens, and that is all.
    SystemLoad load;
    EXPECT_TRUE(load.sample());
    EXPECT_TRUE(chainIs({{SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, systemText(EISDIR))}}));
    EXPECT_FALSE(load.valid);
}

struct ClockRow {
    int error;
    std::ErrorType const* family;
    int id;
};

void PrintTo(ClockRow const& row, std::ostream* out) {
    *out << row.error;
}

class SystemLoadClock : public testing::TestWithParam<ClockRow> {};

TEST_P(SystemLoadClock, failureIsChainedAndFailsTheSample) {
    FakeUptime const uptime("1148.70 8641.50\n");
    SystemLoad load;
    load.valid = true;
    Fault const fault(inject_clock_gettime, GetParam().error);
    EXPECT_TRUE(load.sample());
    std::string const text = systemText(GetParam().error);
    EXPECT_TRUE(chainIs(
        {{*GetParam().family, GetParam().id, rowText(*GetParam().family, GetParam().id, text)},
         {SysError, SysErrorId::QUERY_FAILED, rowText(SysErrorId::QUERY_FAILED, text)}}));
    EXPECT_FALSE(load.valid);
}

INSTANTIATE_TEST_SUITE_P(
    All, SystemLoadClock,
    testing::Values(
        ClockRow{EINVAL, &SysError, SysErrorId::NOT_IMPLEMENTED},
        ClockRow{EFAULT, &Time::Error, Time::ErrorId::GET_TIMESTAMP_FAILED}));

TEST(SystemLoad, doesNotMindALocaleWithADecimalComma) {
    FakeUptime const uptime("1148.70 8641.50\n");
    std::string const& folder = uptime.getFolder();
    std::string const command = "localedef -i de_DE -f UTF-8 '" + folder + "/de_DE.UTF-8' >/dev/null 2>&1";
    (void)!system(command.c_str()); // Warnings make it fail; what counts is whether the locale is there.
    setenv("LOCPATH", folder.c_str(), 1);
    char const* const locale = setlocale(LC_ALL, "de_DE.UTF-8");
    unsetenv("LOCPATH");
    if (locale == nullptr) {
        GTEST_SKIP() << "localedef makes no German locale here";
    }
    ASSERT_STREQ(",", localeconv()->decimal_point);
    SystemLoad load;
    EXPECT_FALSE(load.sample());
    EXPECT_STREQ(",", localeconv()->decimal_point) << "the locale is as it was";
    EXPECT_DOUBLE_EQ(0.5, strtod("0,5", nullptr));
    setlocale(LC_ALL, "C");
    EXPECT_TRUE(chainIs({}));
    EXPECT_DOUBLE_EQ(8641500.0 / getProcessors(), load.idle);
}

// ---- the load ----

SystemLoad makeLoad(double idle, long long timestamp) {
    SystemLoad load;
    load.valid = true;
    load.timestamp = timestamp;
    load.idle = idle;
    return load;
}

TEST(SystemLoad, loadIsTheShareOfTheTimeThatWasNotIdle) {
    SystemLoad const start = makeLoad(5000.0, 10000);
    EXPECT_DOUBLE_EQ(75.0, SystemLoad::getCpuLoad(start, makeLoad(5250.0, 11000)));
    EXPECT_DOUBLE_EQ(100.0, SystemLoad::getCpuLoad(start, makeLoad(5000.0, 11000)));
    EXPECT_DOUBLE_EQ(0.0, SystemLoad::getCpuLoad(start, makeLoad(6000.0, 11000)));
    EXPECT_DOUBLE_EQ(50.0, SystemLoad::getCpuLoad(start, makeLoad(5500.0, 11000)));
    EXPECT_TRUE(chainIs({}));
}

TEST(SystemLoad, loadBeyondAHundredIsAHundred) {
    EXPECT_EQ(100.0, SystemLoad::getCpuLoad(makeLoad(5003.0, 10000), makeLoad(5000.0, 11000)));
}

TEST(SystemLoad, loadBelowNothingIsNothing) {
    EXPECT_EQ(0.0, SystemLoad::getCpuLoad(makeLoad(5000.0, 10000), makeLoad(6010.0, 11000)));
    EXPECT_TRUE(chainIs({}));
}

TEST(SystemLoad, loadOfTheSameMomentIsNothing) {
    EXPECT_EQ(0.0, SystemLoad::getCpuLoad(makeLoad(5000.0, 10000), makeLoad(5000.0, 10000)));
    EXPECT_TRUE(chainIs({}));
}

TEST(SystemLoad, loadInTheWrongOrderIsNothingAndNoError) {
    EXPECT_EQ(0.0, SystemLoad::getCpuLoad(makeLoad(5000.0, 11000), makeLoad(5000.0, 10000)));
    EXPECT_TRUE(chainIs({}));
}

TEST(SystemLoad, loadOverAllTheTimeThereIsDoesNotOverflow) {
    EXPECT_EQ(100.0, SystemLoad::getCpuLoad(makeLoad(0.0, LLONG_MIN), makeLoad(0.0, LLONG_MAX)));
    EXPECT_EQ(100.0, SystemLoad::getCpuLoad(makeLoad(0.0, LLONG_MAX - 1), makeLoad(0.0, LLONG_MAX)));
}

TEST(SystemLoad, loadOfNoNumberIsNothing) {
    double const infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(0.0, SystemLoad::getCpuLoad(makeLoad(infinity, 0), makeLoad(infinity, 1000)));
}

TEST(SystemLoad, loadNeedsAValidStart) {
    SystemLoad const none;
    EXPECT_EQ(-1.0, SystemLoad::getCpuLoad(none, makeLoad(5000.0, 10000)));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "start")}}));
    EXPECT_EQ(-1.0, SystemLoad::getCpuLoad(none, none));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "start")}}))
        << "the start is looked at first";
}

TEST(SystemLoad, loadNeedsAValidEnd) {
    EXPECT_EQ(-1.0, SystemLoad::getCpuLoad(makeLoad(5000.0, 10000), SystemLoad()));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "end")}}));
}

// ---- the real system ----

/// The idle time of one processor on the average in milliseconds, as another file of the system has it.
double readIdle() {
    std::ifstream stat("/proc/stat");
    std::string word;
    double user = 0;
    double nice = 0;
    double system = 0;
    double idle = 0;
    stat >> word >> user >> nice >> system >> idle;
    EXPECT_EQ("cpu", word);
    return idle * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK)) / getProcessors();
}

TEST(SystemLoadOfTheSystem, isThatWhichItsIdleTimeTells) {
    std::atomic<bool> stop{false};
    std::thread busy([&stop] {
        while (!stop) {}
    });
    SystemLoad start;
    SystemLoad end;
    double const before_start = readIdle();
    EXPECT_FALSE(start.sample());
    double const after_start = readIdle();
    double before_end = 0;
    time_t const deadline = time(nullptr) + 60;
    do {
        before_end = readIdle();
        EXPECT_FALSE(end.sample());
    } while (end.timestamp < start.timestamp + 1500 && time(nullptr) < deadline);
    double const after_end = readIdle();
    stop = true;
    busy.join();
    auto const elapsed = static_cast<double>(end.timestamp - start.timestamp);
    double const load = SystemLoad::getCpuLoad(start, end);
    EXPECT_TRUE(chainIs({}));
    // Some processors' idle time is only counted when they wake up.
    constexpr double MARGIN = 10.0;
    EXPECT_LE((1.0 - (after_end - before_start) / elapsed) * 100.0 - MARGIN, load);
    EXPECT_GE((1.0 - (before_end - after_start) / elapsed) * 100.0 + MARGIN, load);
    EXPECT_LT(100.0 / getProcessors() / 4, load) << "one processor at least is busy";
    EXPECT_GE(100.0, load);
}

} // namespace
