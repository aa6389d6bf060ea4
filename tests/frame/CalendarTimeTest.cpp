#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Privileges.h"

#include <vesk/CalendarTime.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

VESK_INJECT_ERRNO(time_t, -1, mktime, (tm * fields), (fields))

namespace {

/// The arguments of a call of `clock_settime`.
struct SetCall {
    clockid_t clock;
    timespec time;
};

std::vector<SetCall> s_set_calls;
int s_tzset_calls = 0;

/// The result of `localtime_r`, unless it is the real one.
struct FakeLocalTime {
    bool fails;
    tm fields;
};
FakeLocalTime const* s_local_time = nullptr;

} // namespace

support::Injected inject_clock_settime("clock_settime");
support::Injected inject_localtime_r("localtime_r");
support::Injected inject_tzset("tzset");

/// Never calls the real function: no test sets the machine's clock.
extern "C" int clock_settime(clockid_t clock, timespec const* time) {
    s_set_calls.push_back({clock, *time});
    int error = 0;
    if (inject_clock_settime.fails(error)) {
        errno = error;
        return -1;
    }
    return 0;
}

extern "C" VESK_UNWATCHED tm* localtime_r(time_t const* time, tm* fields) {
    if (s_local_time == nullptr) {
        return reinterpret_cast<tm* (*)(time_t const*, tm*)>(inject_localtime_r.getReal())(time, fields);
    }
    if (s_local_time->fails) {
        errno = EOVERFLOW;
        return nullptr;
    }
    *fields = s_local_time->fields;
    return fields;
}

extern "C" VESK_UNWATCHED void tzset() {
    ++s_tzset_calls;
    reinterpret_cast<void (*)()>(inject_tzset.getReal())();
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

    /// Returns the fields after a moment was set.
    static std::string textAt(long long ms, CalendarTime date = CalendarTime(false)) {
        date.setTimestamp(ms);
        return text(date);
    }

    TimeZone m_zone{UTC};
};

constexpr char const* EPOCH = "1970-01-01 00:00:00 0";

testing::AssertionResult isYearOutOfRange(int year) {
    return chainIs(
        {{CalendarTime::ErrorId::YEAR_OUT_OF_RANGE,
          "The supplied year " + std::to_string(year) + " is out of the supported range."}});
}

// ---- the family ----

TEST_F(CalendarTimeTest, rowsOfTheFamilyHaveTheirTexts) {
    char const* const formats[] = {
        "Changing the system date failed: %s", "Assembling date from object members failed: %s",
        "The supplied year %d is out of the supported range."};
    for (int id = 0; id < 3; ++id) {
        EXPECT_EQ(id, CalendarTime::Error.getRow(id)->id);
        EXPECT_STREQ(formats[id], CalendarTime::Error.getRow(id)->format);
        EXPECT_EQ(1, CalendarTime::Error.getRow(id)->nargs);
    }
    EXPECT_EQ(nullptr, CalendarTime::Error.getRow(3));
    EXPECT_TRUE(CalendarTime::Error.isA(vesk::SysError));
    std::ErrorOutput("file", 1, true)(CalendarTime::ErrorId::SET_DATE_FAILED, "why");
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    EXPECT_TRUE(chainIs({{CalendarTime::ErrorId::SET_DATE_FAILED, "Changing the system date failed: why"}}));
    std::ErrorOutput("file", 1, true)(CalendarTime::ErrorId::YEAR_OUT_OF_RANGE, 1969);
    EXPECT_TRUE(isYearOutOfRange(1969));
}

// ---- fields ----

TEST_F(CalendarTimeTest, epochIsASunday) {
    EXPECT_EQ(EPOCH, text(CalendarTime(false)));
    EXPECT_EQ(WeekDay::SUNDAY, CalendarTime(false).getWeekday());
}

TEST_F(CalendarTimeTest, resetRestoresTheEpoch) {
    CalendarTime date(true);
    date.setWeekday(WeekDay::FRIDAY);
    date.resetToEpoch();
    EXPECT_EQ(EPOCH, text(date));
}

TEST_F(CalendarTimeTest, epochIsTheSameInEveryTimeZone) {
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

TEST_F(CalendarTimeTest, settersStoreAnyValueUnchanged) {
    CalendarTime date(false);
    date.setYear(65535);
    date.setMonth(static_cast<Month>(99));
    date.setDay(255);
    date.setHour(24);
    date.setMinute(60);
    date.setSecond(61);
    date.setWeekday(static_cast<WeekDay>(7));
    EXPECT_EQ("65535-100-255 24:60:61 7", text(date));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, eachSetterChangesItsFieldAlone) {
    CalendarTime date(false);
    date.setYear(2026);
    EXPECT_EQ("2026-01-01 00:00:00 0", text(date));
    date.setMonth(Month::DECEMBER);
    EXPECT_EQ("2026-12-01 00:00:00 0", text(date));
    date.setDay(31);
    EXPECT_EQ("2026-12-31 00:00:00 0", text(date));
    date.setHour(23);
    EXPECT_EQ("2026-12-31 23:00:00 0", text(date));
    date.setMinute(58);
    EXPECT_EQ("2026-12-31 23:58:00 0", text(date));
    date.setSecond(59);
    EXPECT_EQ("2026-12-31 23:58:59 0", text(date));
    date.setWeekday(WeekDay::SATURDAY);
    EXPECT_EQ("2026-12-31 23:58:59 6", text(date));
}

TEST_F(CalendarTimeTest, wholeDateIsStoredAndReadWithoutTheWeekday) {
    CalendarTime date(false);
    date.setWeekday(WeekDay::WEDNESDAY);
    date.setDate(2024, Month::FEBRUARY, 29, 13, 14, 15);
    EXPECT_EQ("2024-02-29 13:14:15 3", text(date));
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

TEST_F(CalendarTimeTest, hasNoVirtualOperationsAndCanBeCopied) {
    static_assert(!std::is_polymorphic_v<CalendarTime>);
    CalendarTime const date = makeDate(2026, 5, 6);
    CalendarTime const copy = date; // NOLINT: the copy is what is tested
    EXPECT_EQ(text(date), text(copy));
}

// ---- from and to timestamps ----

struct MomentRow {
    char const* zone;
    long long ms;
    char const* text;
    bool unique; ///< Whether no other moment has the same date in local time.
};

void PrintTo(MomentRow const& row, std::ostream* out) {
    *out << row.zone << " " << row.text;
}

class CalendarTimeMoments : public testing::TestWithParam<MomentRow> {};

TEST_P(CalendarTimeMoments, areLocalTime) {
    MomentRow const& row = GetParam();
    TimeZone const zone(row.zone);
    CalendarTime date(false);
    date.setTimestamp(row.ms);
    EXPECT_EQ(row.text, text(date));
    if (row.unique) {
        EXPECT_EQ(row.ms - row.ms % 1000, date.getTimestamp());
    }
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, CalendarTimeMoments,
    testing::Values(
        MomentRow{UTC, 0, "1970-01-01 00:00:00 4", true},
        MomentRow{UTC, 951782400000, "2000-02-29 00:00:00 2", true},
        MomentRow{UTC, 1767225599999, "2025-12-31 23:59:59 3", true},
        MomentRow{UTC, 2147483647999, "2038-01-19 03:14:07 2", true},
        MomentRow{BERLIN, 1774745999000, "2026-03-29 01:59:59 0", true},
        MomentRow{BERLIN, 1774746000000, "2026-03-29 03:00:00 0", true},
        MomentRow{BERLIN, 1782900000000, "2026-07-01 12:00:00 3", true},
        MomentRow{BERLIN, 1792884600000, "2026-10-25 01:30:00 0", true},
        // The hour that comes twice when daylight saving ends.
        MomentRow{BERLIN, 1792888200000, "2026-10-25 02:30:00 0", false},
        MomentRow{BERLIN, 1792891800000, "2026-10-25 02:30:00 0", false},
        MomentRow{NEW_YORK, 1782900000000, "2026-07-01 06:00:00 3", true},
        MomentRow{NEW_YORK, 1768475045000, "2026-01-15 06:04:05 4", true}));

TEST_F(CalendarTimeTest, negativeTimestampIsCutTowardZero) {
    EXPECT_EQ("1969-12-31 23:59:59 3", textAt(-1500));
    EXPECT_EQ("1970-01-01 00:00:00 4", textAt(-999));
    EXPECT_EQ("1969-12-31 23:59:59 3", textAt(-1000));
    EXPECT_EQ("1969-01-01 00:00:00 3", textAt(-DAY * 365));
}

TEST_F(CalendarTimeTest, leapSecondReadsAsFiftyNine) {
    FakeLocalTime leap{false, {}};
    ASSERT_NE(nullptr, strptime("2016-12-31 23:59:00", "%Y-%m-%d %H:%M:%S", &leap.fields));
    s_local_time = &leap;
    for (int const second : {60, 61, 58}) {
        leap.fields.tm_sec = second;
        EXPECT_EQ("2016-12-31 23:59:" + std::to_string(second == 58 ? 58 : 59) + " 6", textAt(1483228800000));
    }
}

constexpr char const* SOME_TEXT = "2026-05-06 07:08:09 0";
CalendarTime const SOME_DATE = makeDate(2026, 5, 6, 7, 8, 9);

TEST_F(CalendarTimeTest, failureOfTheSystemToConvertAMomentLeavesTheObjectUnchanged) {
    FakeLocalTime const failure{true, {}};
    s_local_time = &failure;
    EXPECT_EQ(SOME_TEXT, textAt(0, SOME_DATE));
    CalendarTime date = SOME_DATE;
    date.retrieveDate();
    EXPECT_EQ(SOME_TEXT, text(date));
    EXPECT_EQ(EPOCH, text(CalendarTime(true)));
    EXPECT_TRUE(chainIs({}));
}

/// Moments in UTC, as a 64-bit `time_t` holds them.
constexpr long long FIRST_OF_YEAR_0 = -62167219200000;
constexpr long long LAST_OF_YEAR_65535 = 2005949145599000;

class CalendarTimeOutOfRange : public CalendarTimeTest, public testing::WithParamInterface<long long> {};

TEST_P(CalendarTimeOutOfRange, leavesTheObjectUnchanged) {
    EXPECT_EQ(SOME_TEXT, textAt(GetParam(), SOME_DATE));
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, CalendarTimeOutOfRange,
    testing::Values(LLONG_MAX, LLONG_MIN, LAST_OF_YEAR_65535 + 1000, FIRST_OF_YEAR_0 - 1000));

TEST_F(CalendarTimeTest, momentBeyond32BitSecondsNeedsAWiderTimeT) {
    EXPECT_EQ(WIDE_TIME ? "2038-01-19 03:14:08 2" : SOME_TEXT, textAt(2147483648000, SOME_DATE));
    EXPECT_EQ(WIDE_TIME ? "1901-12-13 20:45:51 5" : EPOCH, textAt(-2147483649000));
    EXPECT_EQ("1901-12-13 20:45:52 5", textAt(-2147483648000));
    EXPECT_EQ(WIDE_TIME ? "65535-12-31 23:59:59 2" : EPOCH, textAt(LAST_OF_YEAR_65535));
    EXPECT_EQ(WIDE_TIME ? "0000-01-01 00:00:00 6" : EPOCH, textAt(FIRST_OF_YEAR_0));
}

TEST_F(CalendarTimeTest, yearBelow1970HasNoTimestamp) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_EQ(-1, makeDate(1969, 12, 31).getTimestamp());
    EXPECT_TRUE(isYearOutOfRange(1969));
    EXPECT_EQ(-1, makeDate(0, 1, 1).getTimestamp());
    EXPECT_TRUE(isYearOutOfRange(0));
}

TEST_F(CalendarTimeTest, yearBelow1970MakesNoSystemCall) {
    Fault const calls(inject_mktime, 0);
    EXPECT_EQ(-1, makeDate(1969, 12, 31).getTimestamp());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(CalendarTimeTest, firstHoursOf1970AreNegativeEastOfGreenwich) {
    TimeZone const zone(BERLIN);
    EXPECT_EQ(-HOUR, CalendarTime(false).getTimestamp());
    EXPECT_EQ(0, makeDate(1970, 1, 1, 1).getTimestamp());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, dateThatTheSystemRefusesIsMinusThousandWithoutAReport) {
    Fault const fault(inject_mktime, EOVERFLOW);
    EXPECT_EQ(-1000, makeDate(2026, 5, 6).getTimestamp());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, yearsHaveNoUpperLimitExceptThatOfTimeT) {
    EXPECT_EQ(2147483647000, makeDate(2038, 1, 19, 3, 14, 7).getTimestamp());
    EXPECT_EQ(WIDE_TIME ? 2147483648000 : -1000, makeDate(2038, 1, 19, 3, 14, 8).getTimestamp());
    EXPECT_EQ(WIDE_TIME ? LAST_OF_YEAR_65535 : -1000, makeDate(65535, 12, 31, 23, 59, 59).getTimestamp());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, dayFortyIsStoredAndCountsIntoTheNextMonthWithoutAChangeOfTheObject) {
    CalendarTime date = makeDate(2026, 1, 1, 5);
    date.setDay(40);
    EXPECT_EQ(40, date.getDay());
    EXPECT_EQ(makeDate(2026, 2, 9, 5).getTimestamp(), date.getTimestamp());
    EXPECT_EQ("2026-01-40 05:00:00 0", text(date));
}

TEST_F(CalendarTimeTest, weekdayDoesNotAffectTheTimestamp) {
    CalendarTime date = makeDate(2026, 11, 21);
    long long const expected = date.getTimestamp();
    date.setWeekday(WeekDay::TUESDAY);
    EXPECT_EQ(expected, date.getTimestamp());
    EXPECT_EQ(WeekDay::TUESDAY, date.getWeekday());
}

// ---- differences ----

TEST_F(CalendarTimeTest, differenceIsTheSameInEitherOrder) {
    CalendarTime const a = makeDate(2026, 3, 1, 12, 0, 0);
    CalendarTime const b = makeDate(2026, 3, 2, 12, 0, 1);
    EXPECT_EQ(DAY + 1000, CalendarTime::getTimediff(a, b));
    EXPECT_EQ(CalendarTime::getTimediff(a, b), CalendarTime::getTimediff(b, a));
    EXPECT_EQ(0, CalendarTime::getTimediff(a, a));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, differenceRespectsDaylightSaving) {
    TimeZone const zone(BERLIN);
    EXPECT_EQ(23 * HOUR, CalendarTime::getTimediff(makeDate(2026, 3, 29), makeDate(2026, 3, 30)));
    EXPECT_EQ(25 * HOUR, CalendarTime::getTimediff(makeDate(2026, 10, 25), makeDate(2026, 10, 26)));
}

TEST_F(CalendarTimeTest, differenceFromTheEpochItselfIsNoFailure) {
    EXPECT_EQ(DAY, CalendarTime::getTimediff(CalendarTime(false), makeDate(1970, 1, 2)));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, differenceWithAYearBelow1970KeepsTheReportOfTheTimestamp) {
    CalendarTime const old = makeDate(1969, 6, 1);
    CalendarTime const good = makeDate(2026, 6, 1);
    EXPECT_EQ(-1, CalendarTime::getTimediff(old, good));
    EXPECT_TRUE(isYearOutOfRange(1969));
    EXPECT_EQ(-1, CalendarTime::getTimediff(good, old));
    EXPECT_TRUE(isYearOutOfRange(1969));
    EXPECT_EQ(-1, CalendarTime::getTimediff(old, makeDate(1968, 1, 1)));
    EXPECT_TRUE(isYearOutOfRange(1969)) << "the first one ends the operation";
}

/// Two dates with a difference.
long long getSomeDifference() {
    return CalendarTime::getTimediff(makeDate(2026, 1, 1), makeDate(2026, 1, 2));
}

class CalendarTimeDiffFailure : public CalendarTimeTest, public testing::WithParamInterface<int> {};

TEST_P(CalendarTimeDiffFailure, ofEitherDateIsReported) {
    Fault const fault(inject_mktime, EOVERFLOW, GetParam());
    EXPECT_EQ(-1, getSomeDifference());
    EXPECT_EQ(GetParam(), fault.getCalls());
    EXPECT_TRUE(causeIs(CalendarTime::ErrorId::ASSEMBLY_FAILED, EOVERFLOW));
}

INSTANTIATE_TEST_SUITE_P(All, CalendarTimeDiffFailure, testing::Values(1, 2));

TEST_F(CalendarTimeTest, differenceFromBeforeTheEpochEastOfGreenwichFails) {
    TimeZone const zone(BERLIN);
    EXPECT_EQ(-1, CalendarTime::getTimediff(makeDate(2026, 1, 1), CalendarTime(false)));
    EXPECT_TRUE(causeIs(CalendarTime::ErrorId::ASSEMBLY_FAILED, errno));
}

TEST_F(CalendarTimeTest, failedDifferenceMakesNoReportWhileAnErrorOfDatesIsPending) {
    std::ErrorOutput("older", 1, true)(CalendarTime::ErrorId::SET_DATE_FAILED, "older");
    Fault const fault(inject_mktime, EOVERFLOW);
    EXPECT_EQ(-1, getSomeDifference());
    EXPECT_TRUE(
        chainIs({{CalendarTime::ErrorId::SET_DATE_FAILED, "Changing the system date failed: older"}}));
}

TEST_F(CalendarTimeTest, failedDifferenceReplacesThePendingChainOfAnotherFamily) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(inject_mktime, EOVERFLOW);
    EXPECT_EQ(-1, getSomeDifference());
    EXPECT_TRUE(chainIs({{CalendarTime::ErrorId::ASSEMBLY_FAILED}}));
}

// ---- setting the system's date ----

TEST_F(CalendarTimeTest, changingTheDateSetsTheWallClockToTheSecond) {
    CalendarTime date = makeDate(2026, 11, 21, 8, 33, 7);
    date.setWeekday(WeekDay::MONDAY);
    EXPECT_FALSE(date.changeDate());
    ASSERT_EQ(1u, s_set_calls.size());
    EXPECT_EQ(CLOCK_REALTIME, s_set_calls[0].clock);
    EXPECT_EQ(1795249987, s_set_calls[0].time.tv_sec);
    EXPECT_EQ(0, s_set_calls[0].time.tv_nsec);
    EXPECT_EQ("2026-11-21 08:33:07 1", text(date));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, changingTheDateIgnoresDaylightSaving) {
    TimeZone const zone(BERLIN);
    CalendarTime summer = makeDate(2026, 7, 1, 12);
    CalendarTime winter = makeDate(2026, 1, 1, 12);
    EXPECT_FALSE(summer.changeDate());
    EXPECT_FALSE(winter.changeDate());
    ASSERT_EQ(2u, s_set_calls.size());
    EXPECT_EQ((summer.getTimestamp() + HOUR) / 1000, s_set_calls[0].time.tv_sec);
    EXPECT_EQ(winter.getTimestamp() / 1000, s_set_calls[1].time.tv_sec);
}

TEST_F(CalendarTimeTest, changingTheDateDoesNotCheckTheYear) {
    EXPECT_FALSE(makeDate(1969, 12, 31, 12).changeDate());
    ASSERT_EQ(1u, s_set_calls.size());
    EXPECT_EQ(-43200, s_set_calls[0].time.tv_sec);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(CalendarTimeTest, changingTheDateFailsIfTheSystemRefusesIt) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(inject_mktime, EOVERFLOW);
    EXPECT_TRUE(makeDate(2026, 5, 6).changeDate());
    EXPECT_TRUE(s_set_calls.empty());
    EXPECT_TRUE(causeIs(CalendarTime::ErrorId::ASSEMBLY_FAILED, EOVERFLOW));
}

TEST_F(CalendarTimeTest, changingTheDateFailsInTheLastSecondBefore1970) {
    EXPECT_TRUE(makeDate(1969, 12, 31, 23, 59, 59).changeDate());
    EXPECT_TRUE(s_set_calls.empty());
    EXPECT_TRUE(chainIs({{CalendarTime::ErrorId::ASSEMBLY_FAILED}}));
}

struct ChangeRow {
    int error;
    ExpectedReport report;
};

void PrintTo(ChangeRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class CalendarTimeChangeRows : public CalendarTimeTest, public testing::WithParamInterface<ChangeRow> {};

TEST_P(CalendarTimeChangeRows, reports) {
    auto const& [error, report] = GetParam();
    CalendarTime date = SOME_DATE;
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_clock_settime, error);
        EXPECT_TRUE(date.changeDate());
    }
    EXPECT_EQ(1u, s_set_calls.size());
    EXPECT_TRUE(causeIs(*report.family, report.id, error));
    EXPECT_EQ(SOME_TEXT, text(date));
    EXPECT_FALSE(date.changeDate());
}

INSTANTIATE_TEST_SUITE_P(
    All, CalendarTimeChangeRows,
    testing::Values(
        ChangeRow{EFAULT, SysErrorId::SPOILED_INTEGRITY}, ChangeRow{EINVAL, SysErrorId::INVALID_PARAMETER},
        ChangeRow{EPERM, SysErrorId::PERMISSION_DENIED},
        ChangeRow{EACCES, CalendarTime::ErrorId::SET_DATE_FAILED},
        ChangeRow{ENOSYS, CalendarTime::ErrorId::SET_DATE_FAILED}));

// ---- the start of the library ----

TEST_F(CalendarTimeTest, startReadsTheTimeZone) {
    expectInChild([] {
        setenv("TZ", NEW_YORK, 1);
        int const calls = s_tzset_calls;
        EXPECT_FALSE(CalendarTime::init());
        EXPECT_EQ(calls + 1, s_tzset_calls);
        EXPECT_STREQ("EDT", tzname[1]);
        EXPECT_EQ("2026-07-01 06:00:00 3", textAt(1782900000000));
        EXPECT_TRUE(chainIs({}));
    });
}

} // namespace
