#include "frame/TimedWaits.h"
#include "support/CleanEnd.h"
#include "support/TempFolder.h"
#include "support/Testing.h"

#include <vesk/CalendarTime.h>
#include <vesk/FileAccessError.h>
#include <vesk/FileInfo.h>
#include <vesk/SysError.h>
#include <vesk/Time.h>

#include <limits>
#include <sys/syscall.h>

/// Whatever depends on the date, with the date that the system has. On a 32-bit system that is switched to a date
/// beyond January 2038 (`scripts/target --date`), this shows what each width of `time_t` can do.

namespace {

using namespace support;
using vesk::CalendarTime;
using vesk::Time;

/// Returns the seconds since the epoch, also if `time_t` cannot hold them.
long long getSeconds() {
#if defined(SYS_clock_gettime64)
    long long now[2] = {0, 0};
    EXPECT_EQ(0, syscall(SYS_clock_gettime64, CLOCK_REALTIME, now)) << strerror(errno);
    return now[0];
#else
    return time(nullptr);
#endif
}

/// Whether `time_t` holds the system's date.
bool fits() {
    return getSeconds() <= std::numeric_limits<time_t>::max();
}

TEST(WideDate, timestampIsThatOfTheSystemOrAReportedFailure) {
    long long ms = 0;
    if (!fits()) {
        EXPECT_TRUE(Time::getTimestamp(ms));
        EXPECT_TRUE(causeIs(Time::ErrorId::GET_TIMESTAMP_FAILED, EOVERFLOW));
        return;
    }
    long long const before = getSeconds();
    ASSERT_FALSE(Time::getTimestamp(ms));
    EXPECT_LE(before, ms / 1000);
    EXPECT_GE(getSeconds(), ms / 1000);
}

TEST(WideDate, calendarHasTheYearOfTheSystemOrTheLastSecondBeforeTheEpoch) {
    setenv("TZ", "UTC", 1);
    tzset();
    long long const year = 1970 + getSeconds() / 31'556'952; // The mean length of a year.
    EXPECT_EQ(fits() ? year : 1969, CalendarTime(true).getYear());
}

TEST(WideDate, moments) {
    setenv("TZ", "UTC", 1);
    tzset();
    CalendarTime date(false);
    constexpr long long MOMENT = 2'222'222'222'000; // 2 June 2040.
    date.setTimestamp(MOMENT);
    if (sizeof(time_t) == 4) {
        EXPECT_EQ(1970, date.getYear()) << "is unchanged";
        date.setDate(2040, CalendarTime::Month::JUNE, 2, 3, 57, 2);
        EXPECT_EQ(-1000, date.getTimestamp());
    } else {
        EXPECT_EQ(2040, date.getYear());
        EXPECT_EQ(MOMENT, date.getTimestamp());
    }
}

TEST(WideDate, fileHasTheTimeOfItsChangeOrNoInformation) {
    TempFolder const folder;
    long long const before = getSeconds();
    std::string const path = folder.makeFile("file");
    vesk::FileInfo const info(path.c_str(), true);
    if (!fits()) {
        EXPECT_FALSE(info.isValid());
        std::string const text = rowText(vesk::SysErrorId::UNCLASSIFIED, systemText(EOVERFLOW));
        EXPECT_TRUE(chainIs({{vesk::SysErrorId::UNCLASSIFIED, text}, vesk::FileAccessErrorId::UNCLASSIFIED}));
        return;
    }
    ASSERT_TRUE(info.isValid());
    EXPECT_LE(before - 1, info.getModTime()); // The system takes the time of its last tick.
    EXPECT_GE(getSeconds(), info.getModTime());
    EXPECT_FALSE(vesk::FileInfo::setModTime(path, std::numeric_limits<int32_t>::max()));
    EXPECT_EQ(std::numeric_limits<int32_t>::max(), vesk::FileInfo(path.c_str(), true).getModTime());
}

class WideDateWaits : public testing::TestWithParam<TimedWait> {};

TEST_P(WideDateWaits, lastAsLongAsToldOrFail) {
    GetParam().expectTimeout(GetParam().uses_wall_clock && !fits() ? Ending::FAILS : Ending::IN_TIME);
}

INSTANTIATE_TEST_SUITE_P(All, WideDateWaits, testing::ValuesIn(TIMED_WAITS), [](auto const& row) {
    return row.param.name;
});

} // namespace
