#include "services/Loads.h"

#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/TempFolder.h"

#include <vesk/SystemLoad.h>
#include <vesk/Vesk.h>

#include <clocale>
#include <limits>

namespace {

// The file that replaces /proc/uptime, and the mode of its last open.
char const* s_uptime_file = nullptr;
std::string s_mode;

} // namespace

VESK_INJECT_NOTING(
    FILE*, nullptr, fopen, (char const* path, char const* mode), (path, mode),
    if (s_uptime_file != nullptr && strcmp(path, "/proc/uptime") == 0) {
        s_mode = mode;
        path = s_uptime_file;
    })

namespace {

using namespace support;
using vesk::SystemLoad;
namespace SysErrorId = vesk::SysErrorId;

double getProcessors() {
    return static_cast<double>(vesk::Vesk::s_sys_info.processor_count);
}

/// Replaces /proc/uptime during its lifetime.
class FakeUptime : public FileInstead {
public:
    explicit FakeUptime(std::string const& text) : FileInstead(s_uptime_file, text) {}
};

TEST(SystemLoad, samplesAreTheAverageIdleTimeOfAProcessor) {
    SystemLoad load;
    EXPECT_FALSE(load.valid);
    EXPECT_EQ(0, load.timestamp);
    EXPECT_EQ(0.0, load.idle);
    for (double const idle : {8641.5, 20.0}) {
        FakeUptime const uptime("1148.70 " + std::to_string(idle) + "\n");
        FakeClock const clock(1700000000, 123456789);
        EXPECT_FALSE(load.sample());
        EXPECT_TRUE(load.valid);
        EXPECT_DOUBLE_EQ(idle * 1000 / getProcessors(), load.idle);
        EXPECT_EQ(1700000000123, load.timestamp);
        EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
        EXPECT_EQ("re", s_mode);
    }
}

/// A sample that fails because of the text of the file, or because of a call.
struct FailureRow : NamedRow {
    char const* text; ///< Null for a folder, which can be opened but not read.
    Injected* call = nullptr;
    int error = 0;
};

char const* const GOOD = "1148.70 8641.50\n";
FailureRow const FAILURES[] = {
    {"emptyText", ""},
    {"textWithOneNumber", "1148.70\n"},
    {"textWithLetters", "1148.70 idle\n"},
    {"textWithLettersFirst", "up 1148.70 8641.50\n"},
    {"fileThatCannotBeRead", nullptr},
    {"missingFile", GOOD, &inject_fopen, ENOENT},
    {"openWithoutRights", GOOD, &inject_fopen, EACCES},
    {"openWithoutDescriptors", GOOD, &inject_fopen, EMFILE},
    {"openWithoutMemory", GOOD, &inject_fopen, ENOMEM},
    {"interruptedOpen", GOOD, &inject_fopen, EINTR},
    {"missingClock", GOOD, &inject_clock_gettime, EINVAL},
    {"unreadableClock", GOOD, &inject_clock_gettime, EFAULT},
};

VESK_TEST_TABLE(SystemLoadFailure, isReportedAndFailsTheSample, testing::Test, FAILURES) {
    char const* const text = GetParam().text;
    Injected* const call = GetParam().call;
    int const error = GetParam().error;
    FakeUptime const uptime(text != nullptr ? text : "");
    if (text == nullptr) {
        s_uptime_file = uptime.getFolder().c_str();
    }
    SystemLoad load;
    load.valid = true; // An earlier sample does not count.
    Fault const fault(call != nullptr ? *call : inject_fopen, error);
    EXPECT_TRUE(load.sample());
    EXPECT_TRUE(
        call == &inject_clock_gettime ? isClockFailure(error)
            : call != nullptr         ? causeIs(SysErrorId::QUERY_FAILED, error)
            : text == nullptr         ? causeIs(SysErrorId::QUERY_FAILED, EISDIR)
                                      : chainIs({SysErrorId::QUERY_FAILED}));
    EXPECT_FALSE(load.valid);
    EXPECT_EQ(0, load.timestamp);
}

TEST(SystemLoad, sampleIsCorrectInALocaleWithADecimalComma) {
    FakeUptime const uptime("1148.70 8641.50\n");
    std::string const& folder = uptime.getFolder();
    std::string const command = "localedef -i de_DE -f UTF-8 '" + folder + "/de_DE.UTF-8' >/dev/null 2>&1";
    (void)!system(command.c_str()); // Warnings make it fail although it builds the locale.
    setenv("LOCPATH", folder.c_str(), 1);
    char const* const locale = setlocale(LC_ALL, "de_DE.UTF-8");
    unsetenv("LOCPATH");
    if (locale == nullptr) {
        GTEST_SKIP() << "localedef makes no German locale here";
    }
    ASSERT_STREQ(",", localeconv()->decimal_point);
    SystemLoad load;
    EXPECT_FALSE(load.sample());
    EXPECT_STREQ(",", localeconv()->decimal_point) << "the locale is unchanged";
    EXPECT_DOUBLE_EQ(0.5, strtod("0,5", nullptr));
    setlocale(LC_ALL, "C");
    EXPECT_DOUBLE_EQ(8641500.0 / getProcessors(), load.idle);
}

SystemLoad makeLoad(double idle, long long timestamp) {
    SystemLoad load;
    load.valid = true;
    load.timestamp = timestamp;
    load.idle = idle;
    return load;
}

struct LoadRow : NamedRow {
    SystemLoad start;
    SystemLoad end;
    double load;
};

constexpr double INFINITE = std::numeric_limits<double>::infinity();
LoadRow const LOADS[] = {
    {"quarterIdle", makeLoad(5000, 10000), makeLoad(5250, 11000), 75},
    {"neverIdle", makeLoad(5000, 10000), makeLoad(5000, 11000), 100},
    {"alwaysIdle", makeLoad(5000, 10000), makeLoad(6000, 11000), 0},
    {"halfIdle", makeLoad(5000, 10000), makeLoad(5500, 11000), 50},
    {"above100Is100", makeLoad(5003, 10000), makeLoad(5000, 11000), 100},
    {"below0Is0", makeLoad(5000, 10000), makeLoad(6010, 11000), 0},
    {"sameMoment", makeLoad(5000, 10000), makeLoad(5000, 10000), 0},
    {"wrongOrder", makeLoad(5000, 11000), makeLoad(5000, 10000), 0},
    {"overTheLongestTime", makeLoad(0, LLONG_MIN), makeLoad(0, LLONG_MAX), 100},
    {"atTheLastMoment", makeLoad(0, LLONG_MAX - 1), makeLoad(0, LLONG_MAX), 100},
    {"idleTimeIsNotANumber", makeLoad(INFINITE, 0), makeLoad(INFINITE, 1000), 0},
};

VESK_TEST_TABLE(SystemLoadRows, loadIsTheShareOfTheTimeThatWasNotIdle, testing::Test, LOADS) {
    EXPECT_DOUBLE_EQ(GetParam().load, SystemLoad::getCpuLoad(GetParam().start, GetParam().end));
}

TEST(SystemLoad, loadNeedsAValidStartAndEnd) {
    SystemLoad const none;
    EXPECT_EQ(-1.0, SystemLoad::getCpuLoad(none, makeLoad(5000.0, 10000)));
    EXPECT_TRUE(isInvalidParameter("start"));
    EXPECT_EQ(-1.0, SystemLoad::getCpuLoad(none, none));
    EXPECT_TRUE(isInvalidParameter("start")) << "the start is checked first";
    EXPECT_EQ(-1.0, SystemLoad::getCpuLoad(makeLoad(5000.0, 10000), none));
    EXPECT_TRUE(isInvalidParameter("end"));
}

/// Returns the average idle time of a processor in milliseconds from another file of the system.
double readIdle() {
    std::ifstream stat("/proc/stat");
    std::string word;
    double idle = 0;
    double other = 0;
    stat >> word >> other >> other >> other >> idle; // The others are user, nice and system.
    EXPECT_EQ("cpu", word);
    return idle * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK)) / getProcessors();
}

TEST(SystemLoadOfTheSystem, matchesTheIdleTimeInProcStat) {
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
    EXPECT_TRUE(eventually([&] {
        before_end = readIdle();
        EXPECT_FALSE(end.sample());
        return end.timestamp >= start.timestamp + 1500;
    }));
    double const after_end = readIdle();
    stop = true;
    busy.join();
    auto const elapsed = static_cast<double>(end.timestamp - start.timestamp);
    double const load = SystemLoad::getCpuLoad(start, end);
    // The system counts the idle time of some processors only when they wake up.
    constexpr double MARGIN = 10.0;
    EXPECT_LE((1.0 - (after_end - before_start) / elapsed) * 100.0 - MARGIN, load);
    EXPECT_GE((1.0 - (before_end - after_start) / elapsed) * 100.0 + MARGIN, load);
    EXPECT_LT(100.0 / getProcessors() / 4, load) << "at least one processor is busy";
    EXPECT_GE(100.0, load);
}

} // namespace
