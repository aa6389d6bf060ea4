#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>

#include <cstdint>

namespace vesk {

/// A date and time of day in local time, with the fields of the civil calendar.
///
///     vesk::CalendarTime const now(true);
///     printf("%d-%02d-%02d\n", now.getYear(), static_cast<int>(now.getMonth()) + 1, now.getDay());
///
/// It is not a clock: an object keeps the values that it was given. Setters store any value unchecked, and
/// the weekday does not follow the date. When the date becomes a timestamp, a field outside of its range,
/// such as day 40, carries over into the next month.
///
/// An object belongs to one thread at a time; different objects may be used from any thread. The time zone is
/// that of the environment variable `TZ`. The start-up of the library reads it, and each conversion with
/// `mktime` reads it again. No operation blocks.
class VESK_API CalendarTime {
public:
    /// Months in the numbering of `tm_mon`, which starts at 0.
    enum class Month {
        JANUARY = 0,
        FEBRUARY = 1,
        MARCH = 2,
        APRIL = 3,
        MAY = 4,
        JUNE = 5,
        JULY = 6,
        AUGUST = 7,
        SEPTEMBER = 8,
        OCTOBER = 9,
        NOVEMBER = 10,
        DECEMBER = 11,
    };

    /// Days of the week in the numbering of `tm_wday`, which starts with Sunday.
    enum class WeekDay {
        SUNDAY = 0,
        MONDAY = 1,
        TUESDAY = 2,
        WEDNESDAY = 3,
        THURSDAY = 4,
        FRIDAY = 5,
        SATURDAY = 6,
    };

    /// Failures of dates. Derives from `SysError`.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        SET_DATE_FAILED = 0,   ///< Changing the system's date failed.
        ASSEMBLY_FAILED = 1,   ///< The fields do not form a date.
        YEAR_OUT_OF_RANGE = 2, ///< The year is out of range. Argument: the year.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Makes the C library read the time zone (`tzset`). Called by the start-up of the library, in `Vesk`.
    /// @return false: it cannot fail
    static bool init();

    /// Creates the present date, or the epoch.
    /// @param now  true for `retrieveDate`, false for `resetToEpoch`
    explicit CalendarTime(bool now);

    /// Sets the date to 1 January 1970, 0:00:00, a Sunday. The weekday is set to 0 like the time fields,
    /// although that day was a Thursday.
    void resetToEpoch() noexcept;

    /// Sets the date to the present moment (`time`, then as `setTimestamp`).
    void retrieveDate() noexcept;

    /// Sets the date to a moment, including the weekday (`localtime_r`). A leap second becomes second 59.
    ///
    /// Leaves the object unchanged if the system cannot convert the moment to local time, or if its year is
    /// not in the range 0 to 65535. With a 32-bit `time_t` that applies to moments before December 1901 and
    /// after January 2038.
    /// @param ms  milliseconds since the beginning of 1970, UTC; the part below a second is truncated toward
    ///            zero
    void setTimestamp(long long ms) noexcept;

    /// Returns the moment of this date in milliseconds since the beginning of 1970, UTC (`mktime`).
    /// Determines whether daylight saving time is in force. Does not change the object.
    ///
    /// East of Greenwich, the first hours of 1970 give negative results, which are not failures.
    /// @return -1 for a year below 1970: `ErrorId::YEAR_OUT_OF_RANGE`. A date that `mktime` rejects gives
    ///         -1000 without a report.
    long long getTimestamp() const;

    /// Returns the distance between two dates.
    /// @return milliseconds, at least 0 in either order. -1 on failure, which includes a date before the
    ///         beginning of 1970, UTC: `ErrorId::YEAR_OUT_OF_RANGE` as in `getTimestamp`, otherwise
    ///         `ErrorId::ASSEMBLY_FAILED`. The latter is not reported while a chain of `Error` is already
    ///         pending: acknowledge handled chains first.
    static long long getTimediff(CalendarTime const& a, CalendarTime const& b);

    /// Sets the clock of the system to this date (`mktime`, `clock_settime`), which requires the privilege to
    /// do so. The date is interpreted without daylight saving time, and its year is not checked.
    /// @return true on failure: `ErrorId::ASSEMBLY_FAILED` if the fields do not form a date. If the system
    ///         refuses: `SysErrorId::PERMISSION_DENIED` without the privilege,
    ///         `SysErrorId::INVALID_PARAMETER` for a time that it does not accept,
    ///         `SysErrorId::SPOILED_INTEGRITY` for a bad address, otherwise `ErrorId::SET_DATE_FAILED`.
    [[nodiscard]] bool changeDate();

    /// Stores all fields except the weekday, which keeps its value.
    /// @param year    full year, such as 2026
    /// @param day     1 to 31
    /// @param hour    0 to 23
    /// @param minute  0 to 59
    /// @param second  0 to 59
    void setDate(
        unsigned short year, CalendarTime::Month month, unsigned char day, unsigned char hour,
        unsigned char minute, unsigned char second) noexcept;

    /// Returns all fields except the weekday.
    void getDate(
        unsigned short& year, CalendarTime::Month& month, unsigned char& day, unsigned char& hour,
        unsigned char& minute, unsigned char& second) const noexcept;

    /// @{
    /// Returns one part of the date.
    unsigned short getYear() const noexcept { return m_year; }
    Month getMonth() const noexcept { return m_month; }
    unsigned char getDay() const noexcept { return m_day; }
    unsigned char getHour() const noexcept { return m_hour; }
    unsigned char getMinute() const noexcept { return m_minute; }
    unsigned char getSecond() const noexcept { return m_second; }
    WeekDay getWeekday() const noexcept { return m_weekday; }
    /// @}

    /// @{
    /// Sets one part of the date. Checks nothing, and leaves the other parts unchanged.
    void setYear(unsigned short year) noexcept { m_year = year; }
    void setMonth(Month month) noexcept { m_month = month; }
    void setDay(unsigned char day) noexcept { m_day = day; }
    void setHour(unsigned char hour) noexcept { m_hour = hour; }
    void setMinute(unsigned char minute) noexcept { m_minute = minute; }
    void setSecond(unsigned char second) noexcept { m_second = second; }
    void setWeekday(WeekDay weekday) noexcept { m_weekday = weekday; }
    /// @}

private:
    uint16_t m_year = 1970;
    Month m_month = Month::JANUARY;
    uint8_t m_day = 1;
    uint8_t m_hour = 0;
    uint8_t m_minute = 0;
    uint8_t m_second = 0;
    WeekDay m_weekday = WeekDay::SUNDAY;
};

} // namespace vesk
