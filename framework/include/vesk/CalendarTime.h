#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>

#include <cstdint>

namespace vesk {

/// One date and time of day in local time, in the form that people read.
///
///     vesk::CalendarTime const now(true);
///     printf("%d-%02d-%02d\n", now.getYear(), static_cast<int>(now.getMonth()) + 1, now.getDay());
///
/// It is not a clock: an object keeps what it was given. Setters store any value as it is; neither is a field checked
/// nor does the weekday follow the date. What lies outside of its range, such as day 40, counts on into the next month
/// when the date becomes a timestamp.
///
/// An object belongs to one thread at a time; different objects may be used from any thread. The time zone is that of
/// the environment's `TZ` as the library found it at its start. Nothing blocks.
class VESK_API CalendarTime {
public:
    /// The numbering of `tm_mon`: counted from 0.
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

    /// The numbering of `tm_wday`: counted from Sunday.
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

    /// @param now  true for `retrieveDate`, false for `resetToEpoch`
    explicit CalendarTime(bool now);

    /// 1 January 1970, 0:00:00, a Sunday: all that can be 0 is, though that day was a Thursday.
    void resetToEpoch() noexcept;

    /// Takes over the present moment (`time`, and as `setTimestamp`).
    void retrieveDate() noexcept;

    /// Takes over a moment, weekday included (`localtime_r`). A leap second reads as second 59.
    ///
    /// A moment that the system cannot tell in local time, or that lies outside of the years 0 to 65535, leaves the
    /// object as it is. With a 32-bit `time_t` that is what lies before December 1901 or after January 2038.
    /// @param ms  since the beginning of 1970, UTC, in milliseconds; the part below a second is cut off toward zero
    void setTimestamp(long long ms) noexcept;

    /// The moment of this date in milliseconds since the beginning of 1970, UTC (`mktime`). Whether daylight saving is in
    /// force is found out. The object is not changed.
    ///
    /// The first hours of 1970 are negative results east of Greenwich, and no failure.
    /// @return -1 for a year below 1970: `ErrorId::YEAR_OUT_OF_RANGE`. A date that `mktime` refuses gives -1000 without a report.
    long long getTimestamp() const;

    /// How far two dates are apart.
    /// @return milliseconds, at least 0, in either order. -1 on failure, which a date before the beginning of 1970, UTC,
    ///         is: `ErrorId::YEAR_OUT_OF_RANGE` as in `getTimestamp`, else `ErrorId::ASSEMBLY_FAILED`. The latter is not reported while a chain of `Error` is
    ///         pending already: acknowledge what you have handled.
    static long long getTimediff(CalendarTime const& a, CalendarTime const& b);

    /// Sets the clock of the system to this date (`mktime`, `clock_settime`), which needs the right to. The date counts
    /// as one without daylight saving, and its year is not checked.
    /// @return true on failure: `ErrorId::ASSEMBLY_FAILED` if the fields make no date. If the system refuses: `SysErrorId::PERMISSION_DENIED` without the
    ///         right, 8 for a time that it does not take, 10 for a bad address, else `ErrorId::SET_DATE_FAILED`.
    bool changeDate();

    /// Stores all fields but the weekday, which stays.
    /// @param year    as in 2026
    /// @param day     1 to 31
    /// @param hour    0 to 23
    /// @param minute  0 to 59
    /// @param second  0 to 59
    void setDate(
        unsigned short year, CalendarTime::Month month, unsigned char day, unsigned char hour,
        unsigned char minute, unsigned char second) noexcept;

    /// Gives all fields but the weekday.
    void getDate(
        unsigned short& year, CalendarTime::Month& month, unsigned char& day, unsigned char& hour,
        unsigned char& minute, unsigned char& second) const noexcept;

    unsigned short getYear() const noexcept { return m_year; }
    Month getMonth() const noexcept { return m_month; }
    unsigned char getDay() const noexcept { return m_day; }
    unsigned char getHour() const noexcept { return m_hour; }
    unsigned char getMinute() const noexcept { return m_minute; }
    unsigned char getSecond() const noexcept { return m_second; }
    WeekDay getWeekday() const noexcept { return m_weekday; }

    void setYear(unsigned short year) noexcept { m_year = year; }
    void setMonth(Month month) noexcept { m_month = month; }
    void setDay(unsigned char day) noexcept { m_day = day; }
    void setHour(unsigned char hour) noexcept { m_hour = hour; }
    void setMinute(unsigned char minute) noexcept { m_minute = minute; }
    void setSecond(unsigned char second) noexcept { m_second = second; }
    void setWeekday(WeekDay weekday) noexcept { m_weekday = weekday; }

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
