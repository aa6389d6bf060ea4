#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/CalendarTime.h>

namespace {

/// The arguments of a call of `clock_settime`.
struct SetCall {
    clockid_t clock;
    timespec time;
};

std::vector<SetCall> s_set_calls;
tm const* s_local_time = nullptr; ///< The result of `localtime_r`, if present.

} // namespace

VESK_INJECT_ERRNO(time_t, -1, mktime, (tm * fields), (fields))
VESK_INJECT_ERRNO(void, , tzset, (), ())
VESK_INJECT_NOTING(
    tm*, nullptr, localtime_r, (time_t const* time, tm* fields), (time, fields),
    if (s_local_time != nullptr) { return &(*fields = *s_local_time); })

support::Injected inject_clock_settime("clock_settime");
/// Never calls the real function: no test sets the machine's clock.
extern "C" int clock_settime(clockid_t clock, timespec const* time) {
    s_set_calls.push_back({clock, *time});
    return inject_clock_settime.fails() ? -1 : 0;
}

namespace {

using namespace support;
using vesk::CalendarTime;
namespace SysErrorId = vesk::SysErrorId;
using Month = CalendarTime::Month;
using WeekDay = CalendarTime::WeekDay;

constexpr char const* UTC = "UTC0";
constexpr char const* BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr char const* NEW_YORK = "EST5EDT,M3.2.0,M11.1.0";

constexpr bool WIDE_TIME = sizeof(time_t) > 4;

constexpr long long HOUR = 3600000;
constexpr long long DAY = 24 * HOUR;

/// Sets the time zone of the process for the length of a scope.
class TimeZone {
public:
    explicit TimeZone(char const* zone) {
        char const* const before = getenv("TZ");
        m_before = before != nullptr ? std::optional<std::string>(before) : std::nullopt;
        setenv("TZ", zone, 1);
        ::tzset();
    }
    ~TimeZone() {
        m_before ? setenv("TZ", m_before->c_str(), 1) : unsetenv("TZ");
        ::tzset();
    }

    TimeZone(TimeZone const&) = delete;
    TimeZone& operator=(TimeZone const&) = delete;

private:
    std::optional<std::string> m_before;
};

/// Returns all fields: "2026-03-29 03:30:00 0", the month counted from 1, the weekday at the end.
std::string text(CalendarTime const& date) {
    char buffer[80];
    snprintf(
        buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d %d", date.getYear(),
        static_cast<int>(date.getMonth()) + 1, date.getDay(), date.getHour(), date.getMinute(),
        date.getSecond(), static_cast<int>(date.getWeekday()));
    return buffer;
}

CalendarTime makeDate(
    unsigned short year, int month, unsigned char day, unsigned char hour = 0, unsigned char minute = 0,
    unsigned char second = 0) {
    CalendarTime date(false);
    date.setDate(year, static_cast<Month>(month - 1), day, hour, minute, second);
    return date;
}

/// Calendar dates in UTC.
class CalendarTimeTest : public testing::Test {
protected:
    void SetUp() override { s_set_calls.clear(); }
    void TearDown() override { s_local_time = nullptr; }

    TimeZone m_zone{UTC};
};

constexpr char const* EPOCH = "1970-01-01 00:00:00 0";
constexpr char const* SOME_TEXT = "2026-05-06 07:08:09 0";
CalendarTime const SOME_DATE = makeDate(2026, 5, 6, 7, 8, 9);

/// Returns the fields after a moment was set.
std::string textAt(long long ms) {
    CalendarTime date = SOME_DATE;
    date.setTimestamp(ms);
    return text(date);
}

testing::AssertionResult isYearOutOfRange(int year) {
    return chainIs(
        {{CalendarTime::ErrorId::YEAR_OUT_OF_RANGE,
          "The supplied year " + std::to_string(year) + " is out of the supported range."}});
}

// ---- the family ----

TEST_F(CalendarTimeTest, rowsOfTheFamilyHaveTheirTexts) {
    expectRows(
        CalendarTime::Error,
        {"Changing the system date failed: %s", "Assembling date from object members failed: %s",
         "The supplied year %d is out of the supported range."},
        1);
    std::ErrorOutput("file", 1, true)(CalendarTime::ErrorId::SET_DATE_FAILED, "why");
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    EXPECT_TRUE(chainIs({{CalendarTime::ErrorId::SET_DATE_FAILED, "Changing the system date failed: why"}}));
    std::ErrorOutput("file", 1, true)(CalendarTime::ErrorId::YEAR_OUT_OF_RANGE, 1969);
    EXPECT_TRUE(isYearOutOfRange(1969));
}

// ---- fields ----

TEST_F(CalendarTimeTest, epochIsASundayInEveryTimeZoneAlsoAfterAReset) {
    EXPECT_EQ(EPOCH, text(CalendarTime(false)));
    EXPECT_EQ(WeekDay::SUNDAY, CalendarTime(false).getWeekday());
    CalendarTime date(true);
    date.setWeekday(WeekDay::FRIDAY);
    date.resetToEpoch();
    EXPECT_EQ(EPOCH, text(date));
    TimeZone const zone(BERLIN);
    EXPECT_EQ(EPOCH, text(CalendarTime(false)));
}

TEST_F(CalendarTimeTest, holdsTheTimeOfItsConstruction) {
    long long const before = time(nullptr);
    CalendarTime const date(true);
    long long const after = time(nullptr);
    EXPECT_LE(before * 1000, date.getTimestamp());
    EXPECT_LE(date.getTimestamp(), after * 1000);
    EXPECT_EQ((date.getTimestamp() / DAY + 4) % 7, static_cast<int>(date.getWeekday()));
}

TEST_F(CalendarTimeTest, eachSetterStoresAnyValueInItsFieldAlone) {
    CalendarTime date(false);
    std::pair<std::function<void()>, char const*> const steps[] = {
        {[&] { date.setYear(2026); }, "2026-01-01 00:00:00 0"},
        {[&] { date.setMonth(Month::DECEMBER); }, "2026-12-01 00:00:00 0"},
        {[&] { date.setDay(31); }, "2026-12-31 00:00:00 0"},
        {[&] { date.setHour(23); }, "2026-12-31 23:00:00 0"},
        {[&] { date.setMinute(58); }, "2026-12-31 23:58:00 0"},
        {[&] { date.setSecond(59); }, "2026-12-31 23:58:59 0"},
        {[&] { date.setWeekday(WeekDay::SATURDAY); }, "2026-12-31 23:58:59 6"},
        {[&] { date.setYear(65535); }, "65535-12-31 23:58:59 6"},
        {[&] { date.setMonth(static_cast<Month>(99)); }, "65535-100-31 23:58:59 6"},
        {[&] { date.setDay(255); }, "65535-100-255 23:58:59 6"},
        {[&] { date.setHour(24); }, "65535-100-255 24:58:59 6"},
        {[&] { date.setMinute(60); }, "65535-100-255 24:60:59 6"},
        {[&] { date.setSecond(61); }, "65535-100-255 24:60:61 6"},
        {[&] { date.setWeekday(static_cast<WeekDay>(7)); }, "65535-100-255 24:60:61 7"}};
    for (auto const& [set, expected] : steps) {
        set();
        EXPECT_EQ(expected, text(date));
    }
}

static_assert(!std::is_polymorphic_v<CalendarTime>);

TEST_F(CalendarTimeTest, wholeDateIsStoredAndReadWithoutTheWeekday) {
    CalendarTime date(false);
    date.setWeekday(WeekDay::WEDNESDAY);
    date.setDate(2024, Month::FEBRUARY, 29, 13, 14, 15);
    CalendarTime const copy = date; // NOLINT: the copy is what is tested
    EXPECT_EQ("2024-02-29 13:14:15 3", text(copy));
    unsigned short year = 0;
    Month month = Month::JANUARY;
    unsigned char rest[4] = {};
    date.getDate(year, month, rest[0], rest[1], rest[2], rest[3]);
    EXPECT_EQ(
        "2024-02-29 13:14:15 0",
        text(makeDate(year, static_cast<int>(month) + 1, rest[0], rest[1], rest[2], rest[3])));
}

TEST_F(CalendarTimeTest, monthsAndWeekdaysHaveTheNumbersOfTheSystem) {
    tm fields{};
    fields.tm_year = 126;
    fields.tm_mon = static_cast<int>(Month::NOVEMBER);
    fields.tm_mday = 21;
    char buffer[40];
    timegm(&fields);
    fields.tm_wday = static_cast<int>(WeekDay::SATURDAY);
    strftime(buffer, sizeof buffer, "%b %a", &fields);
    EXPECT_STREQ("Nov Sat", buffer);
    static_assert(static_cast<int>(Month::JANUARY) == 0 && static_cast<int>(Month::DECEMBER) == 11);
    static_assert(static_cast<int>(WeekDay::SUNDAY) == 0 && static_cast<int>(WeekDay::SATURDAY) == 6);
}

// ---- from and to timestamps ----

/// Moments in UTC, as a 64-bit `time_t` holds them.
constexpr long long FIRST_OF_YEAR_0 = -62167219200000;
constexpr long long LAST_OF_YEAR_65535 = 2005949145599000;

/// Returns what a moment beyond a 32-bit `time_t` makes of the date `SOME_DATE`.
constexpr char const* ifWide(char const* text) {
    return WIDE_TIME ? text : SOME_TEXT;
}

struct MomentRow {
    char const* zone;
    long long ms;
    char const* text;
    bool unique = false; ///< Whether the date in local time has this moment, and no other one.
};

void PrintTo(MomentRow const& row, std::ostream* out) {
    *out << row.zone << " " << row.ms << " " << row.text;
}

MomentRow const MOMENTS[] = {
    {UTC, 0, "1970-01-01 00:00:00 4", true},
    {UTC, 951782400000, "2000-02-29 00:00:00 2", true},
    {UTC, 1767225599999, "2025-12-31 23:59:59 3", true},
    {UTC, 2147483647999, "2038-01-19 03:14:07 2", true},
    {BERLIN, 1774745999000, "2026-03-29 01:59:59 0", true},
    {BERLIN, 1774746000000, "2026-03-29 03:00:00 0", true},
    {BERLIN, 1782900000000, "2026-07-01 12:00:00 3", true},
    {BERLIN, 1792884600000, "2026-10-25 01:30:00 0", true},
    // The hour that comes twice when daylight saving ends.
    {BERLIN, 1792888200000, "2026-10-25 02:30:00 0"},
    {BERLIN, 1792891800000, "2026-10-25 02:30:00 0"},
    {NEW_YORK, 1782900000000, "2026-07-01 06:00:00 3", true},
    {NEW_YORK, 1768475045000, "2026-01-15 06:04:05 4", true},
    // Negative moments are cut toward zero.
    {UTC, -1500, "1969-12-31 23:59:59 3"},
    {UTC, -999, "1970-01-01 00:00:00 4"},
    {UTC, -1000, "1969-12-31 23:59:59 3"},
    {UTC, -DAY * 365, "1969-01-01 00:00:00 3"},
    {UTC, -2147483648000, "1901-12-13 20:45:52 5"},
    // Beyond 32-bit seconds.
    {UTC, 2147483648000, ifWide("2038-01-19 03:14:08 2"), WIDE_TIME},
    {UTC, -2147483649000, ifWide("1901-12-13 20:45:51 5")},
    {UTC, LAST_OF_YEAR_65535, ifWide("65535-12-31 23:59:59 2"), WIDE_TIME},
    {UTC, FIRST_OF_YEAR_0, ifWide("0000-01-01 00:00:00 6")},
    // Out of range: the object is unchanged.
    {UTC, LLONG_MAX, SOME_TEXT},
    {UTC, LLONG_MIN, SOME_TEXT},
    {UTC, LAST_OF_YEAR_65535 + 1000, SOME_TEXT},
    {UTC, FIRST_OF_YEAR_0 - 1000, SOME_TEXT}};

VESK_TEST_TABLE(CalendarTimeMoments, areLocalTime, testing::Test, MOMENTS) {
    MomentRow const& row = GetParam();
    TimeZone const zone(row.zone);
    CalendarTime date = SOME_DATE;
    date.setTimestamp(row.ms);
    EXPECT_EQ(row.text, text(date));
    if (row.unique) {
        EXPECT_EQ(row.ms - row.ms % 1000, date.getTimestamp());
    }
}

TEST_F(CalendarTimeTest, leapSecondReadsAsFiftyNine) {
    tm leap{};
    ASSERT_NE(nullptr, strptime("2016-12-31 23:59:00", "%Y-%m-%d %H:%M:%S", &leap));
    s_local_time = &leap;
    for (int const second : {60, 61, 58}) {
        leap.tm_sec = second;
        EXPECT_EQ("2016-12-31 23:59:" + std::to_string(second == 58 ? 58 : 59) + " 6", textAt(1483228800000));
    }
}

TEST_F(CalendarTimeTest, failureOfTheSystemToConvertAMomentLeavesTheObjectUnchanged) {
    Fault const failure(inject_localtime_r, EOVERFLOW, 1, Fault::FOREVER);
    EXPECT_EQ(SOME_TEXT, textAt(0));
    CalendarTime date = SOME_DATE;
    date.retrieveDate();
    EXPECT_EQ(SOME_TEXT, text(date));
    EXPECT_EQ(EPOCH, text(CalendarTime(true)));
}

TEST_F(CalendarTimeTest, yearBelow1970HasNoTimestampAndMakesNoSystemCall) {
    leaveOlderReport();
    Fault const calls(inject_mktime, 0);
    for (unsigned short const year : std::initializer_list<unsigned short>{1969, 0}) {
        EXPECT_EQ(-1, makeDate(year, 12, 31).getTimestamp());
        EXPECT_TRUE(isYearOutOfRange(year));
    }
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(CalendarTimeTest, dateThatTheSystemRefusesIsMinusThousandWithoutAReport) {
    {
        Fault const fault(inject_mktime, EOVERFLOW);
        EXPECT_EQ(-1000, SOME_DATE.getTimestamp());
    }
    EXPECT_EQ(2147483647000, makeDate(2038, 1, 19, 3, 14, 7).getTimestamp());
    EXPECT_EQ(WIDE_TIME ? 2147483648000 : -1000, makeDate(2038, 1, 19, 3, 14, 8).getTimestamp());
    EXPECT_EQ(WIDE_TIME ? LAST_OF_YEAR_65535 : -1000, makeDate(65535, 12, 31, 23, 59, 59).getTimestamp());
}

TEST_F(CalendarTimeTest, dayFortyCountsIntoTheNextMonthAndTheWeekdayNotAtAll) {
    CalendarTime date = makeDate(2026, 1, 40, 5);
    date.setWeekday(WeekDay::TUESDAY);
    EXPECT_EQ(40, date.getDay());
    EXPECT_EQ(makeDate(2026, 2, 9, 5).getTimestamp(), date.getTimestamp());
    EXPECT_EQ("2026-01-40 05:00:00 2", text(date)) << "unchanged";
}

// ---- differences ----

/// Two dates, their difference, and the year that is reported as out of range, unless it is 0.
struct DifferenceRow : NamedRow {
    char const* zone;
    CalendarTime first;
    CalendarTime second;
    long long ms;
    int bad_year = 0;
};

DifferenceRow const DIFFERENCES[] = {
    {"ofADayAndASecond", UTC, makeDate(2026, 3, 1, 12), makeDate(2026, 3, 2, 12, 0, 1), DAY + 1000},
    {"inTheOtherOrder", UTC, makeDate(2026, 3, 2, 12, 0, 1), makeDate(2026, 3, 1, 12), DAY + 1000},
    {"ofNothing", UTC, SOME_DATE, SOME_DATE, 0},
    {"ofADayOf23Hours", BERLIN, makeDate(2026, 3, 29), makeDate(2026, 3, 30), 23 * HOUR},
    {"ofADayOf25Hours", BERLIN, makeDate(2026, 10, 25), makeDate(2026, 10, 26), 25 * HOUR},
    {"fromTheEpochItself", UTC, CalendarTime(false), makeDate(1970, 1, 2), DAY},
    {"fromAYearBelow1970", UTC, makeDate(1969, 6, 1), SOME_DATE, -1, 1969},
    {"toAYearBelow1970", UTC, SOME_DATE, makeDate(1969, 6, 1), -1, 1969},
    {"ofTwoYearsBelow1970EndWithTheFirst", UTC, makeDate(1969, 6, 1), makeDate(1968, 1, 1), -1, 1969},
};

VESK_TEST_TABLE(CalendarTimeDifferences, areAbsoluteOrReported, testing::Test, DIFFERENCES) {
    DifferenceRow const& row = GetParam();
    TimeZone const zone(row.zone);
    EXPECT_EQ(row.ms, CalendarTime::getTimediff(row.first, row.second));
    if (row.bad_year != 0) {
        EXPECT_TRUE(isYearOutOfRange(row.bad_year));
    }
}

TEST_F(CalendarTimeTest, firstHoursOf1970EastOfGreenwichAreNegativeAndHaveNoDifference) {
    TimeZone const zone(BERLIN);
    EXPECT_EQ(-HOUR, CalendarTime(false).getTimestamp());
    EXPECT_EQ(0, makeDate(1970, 1, 1, 1).getTimestamp());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(-1, CalendarTime::getTimediff(SOME_DATE, CalendarTime(false)));
    EXPECT_TRUE(causeIs(CalendarTime::ErrorId::ASSEMBLY_FAILED, errno));
}

TEST_F(CalendarTimeTest, differenceIsReportedIfTheSystemRefusesEitherDate) {
    for (int const nth : {1, 2}) {
        leaveOlderReport();
        Fault const fault(inject_mktime, EOVERFLOW, nth);
        EXPECT_EQ(-1, CalendarTime::getTimediff(SOME_DATE, SOME_DATE));
        EXPECT_EQ(nth, fault.getCalls());
        EXPECT_TRUE(causeIs(CalendarTime::ErrorId::ASSEMBLY_FAILED, EOVERFLOW));
    }
    std::ErrorOutput("older", 1, true)(CalendarTime::ErrorId::SET_DATE_FAILED, "older");
    Fault const fault(inject_mktime, EOVERFLOW);
    EXPECT_EQ(-1, CalendarTime::getTimediff(makeDate(2026, 1, 1), makeDate(2026, 1, 2)));
    EXPECT_TRUE(chainIs({{CalendarTime::ErrorId::SET_DATE_FAILED, "Changing the system date failed: older"}}))
        << "a pending error of dates stays";
}

// ---- setting the system's date ----

struct ChangeRow : NamedRow {
    char const* zone;
    CalendarTime date;
    time_t seconds; ///< The time that the wall clock is set to.
};

TEST_F(CalendarTimeTest, changingTheDateSetsTheWallClockToTheSecond) {
    ChangeRow const rows[] = {
        {"in UTC", UTC, makeDate(2026, 11, 21, 8, 33, 7), 1795249987},
        {"in summer, without daylight saving", BERLIN, makeDate(2026, 7, 1, 12), 1782903600},
        {"in winter", BERLIN, makeDate(2026, 1, 1, 12), 1767265200},
        {"without a check of the year", UTC, makeDate(1969, 12, 31, 12), -43200}};
    for (ChangeRow const& row : rows) {
        s_set_calls.clear();
        TimeZone const zone(row.zone);
        CalendarTime date = row.date;
        date.setWeekday(WeekDay::MONDAY);
        std::string const before = text(date);
        EXPECT_FALSE(date.changeDate()) << row.what;
        ASSERT_EQ(1u, s_set_calls.size());
        EXPECT_EQ(CLOCK_REALTIME, s_set_calls[0].clock);
        EXPECT_EQ(row.seconds, s_set_calls[0].time.tv_sec) << row.what;
        EXPECT_EQ(0, s_set_calls[0].time.tv_nsec);
        EXPECT_EQ(before, text(date));
    }
}

TEST_F(CalendarTimeTest, changingTheDateFailsIfTheSystemRefusesItAndInTheLastSecondBefore1970) {
    leaveOlderReport();
    {
        Fault const fault(inject_mktime, EOVERFLOW);
        EXPECT_TRUE(makeDate(2026, 5, 6).changeDate());
    }
    EXPECT_TRUE(causeIs(CalendarTime::ErrorId::ASSEMBLY_FAILED, EOVERFLOW));
    EXPECT_TRUE(makeDate(1969, 12, 31, 23, 59, 59).changeDate());
    EXPECT_TRUE(chainIs({{CalendarTime::ErrorId::ASSEMBLY_FAILED}}));
    EXPECT_TRUE(s_set_calls.empty());
}

TEST_F(CalendarTimeTest, refusedWallClockIsReportedAndTheNextAttemptWorks) {
    std::pair<int, ExpectedReport> const rows[] = {
        {EFAULT, SysErrorId::SPOILED_INTEGRITY},
        {EINVAL, SysErrorId::INVALID_PARAMETER},
        {EPERM, SysErrorId::PERMISSION_DENIED},
        {EACCES, CalendarTime::ErrorId::SET_DATE_FAILED},
        {ENOSYS, CalendarTime::ErrorId::SET_DATE_FAILED}};
    for (auto const& [error, report] : rows) {
        s_set_calls.clear();
        CalendarTime date = SOME_DATE;
        leaveOlderReport();
        {
            Fault const fault(inject_clock_settime, error);
            EXPECT_TRUE(date.changeDate());
        }
        EXPECT_EQ(1u, s_set_calls.size());
        EXPECT_TRUE(causeIs(*report.family, report.id, error)) << error;
        EXPECT_EQ(SOME_TEXT, text(date));
        EXPECT_FALSE(date.changeDate());
    }
}

// ---- the start of the library ----

TEST_F(CalendarTimeTest, startReadsTheTimeZone) {
    expectInChild([] {
        setenv("TZ", NEW_YORK, 1);
        Fault const calls(inject_tzset, 0);
        EXPECT_FALSE(CalendarTime::init());
        EXPECT_EQ(1, calls.getCalls());
        EXPECT_STREQ("EDT", tzname[1]);
        EXPECT_EQ("2026-07-01 06:00:00 3", textAt(1782900000000));
        EXPECT_TRUE(chainIs({}));
    });
}

} // namespace
