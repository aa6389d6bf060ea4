#include <vesk/CalendarTime.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>

#include <tarncommon/error/ErrorStorage.h>

#include <ctime>
#include <iterator>
#include <limits>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(CalendarTime::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::CALENDAR_TIME;
}

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/CalendarTime";

constexpr std::ErrorID ROWS[] = {
    {0, "Changing the system date failed: %s", 1},
    {1, "Assembling date from object members failed: %s", 1},
    {2, "The supplied year %d is out of the supported range.", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const CalendarTime::Error(ROWS, std::size(ROWS), SysError);

namespace {

constexpr ErrnoRow CHANGE_ERRORS[] = {
    {{EFAULT}, SysErrorId::SPOILED_INTEGRITY},
    {{EINVAL}, SysErrorId::INVALID_PARAMETER},
    {{EPERM}, SysErrorId::PERMISSION_DENIED},
    {OTHERS, CalendarTime::ErrorId::SET_DATE_FAILED},
};

constexpr int TM_YEAR_ORIGIN = 1900;
constexpr int FIRST_YEAR = 1970;

/// Returns the fields of a date in the form that `mktime` takes.
/// @param isdst  as `tm_isdst`: 0 without daylight saving, -1 to let `mktime` determine it
tm toTm(CalendarTime const& date, int isdst) noexcept {
    tm fields{};
    fields.tm_year = date.getYear() - TM_YEAR_ORIGIN;
    fields.tm_mon = static_cast<int>(date.getMonth());
    fields.tm_mday = date.getDay();
    fields.tm_hour = date.getHour();
    fields.tm_min = date.getMinute();
    fields.tm_sec = date.getSecond();
    fields.tm_isdst = isdst;
    return fields;
}

/// Gets the timestamp of one of the two dates of a difference, which must not be before 1970. Returns true on
/// failure.
bool getSide(CalendarTime const& date, long long& ms) {
    ms = date.getTimestamp();
    if (ms >= 0) {
        return false;
    }
    if (!std::ErrorStorage::isA(CalendarTime::Error)) {
        report(SOURCE, Chain::NEW, CalendarTime::ErrorId::ASSEMBLY_FAILED, SystemErrorText().get());
    }
    return true;
}

} // namespace

bool CalendarTime::init() {
    tzset();
    return false;
}

CalendarTime::CalendarTime(bool now) {
    if (now) {
        retrieveDate();
    } else {
        resetToEpoch();
    }
}

void CalendarTime::resetToEpoch() noexcept {
    setDate(FIRST_YEAR, Month::JANUARY, 1, 0, 0, 0);
    m_weekday = WeekDay::SUNDAY;
}

void CalendarTime::retrieveDate() noexcept {
    setTimestamp(static_cast<long long>(time(nullptr)) * 1000);
}

void CalendarTime::setTimestamp(long long ms) noexcept {
    long long const seconds = ms / 1000;
    time_t const time = static_cast<time_t>(seconds);
    tm fields{};
    if (time != seconds || localtime_r(&time, &fields) == nullptr) {
        return;
    }
    long long const year = static_cast<long long>(fields.tm_year) + TM_YEAR_ORIGIN;
    if (year < 0 || year > std::numeric_limits<decltype(m_year)>::max()) {
        return;
    }
    m_year = static_cast<uint16_t>(year);
    m_month = static_cast<Month>(fields.tm_mon);
    m_day = static_cast<uint8_t>(fields.tm_mday);
    m_hour = static_cast<uint8_t>(fields.tm_hour);
    m_minute = static_cast<uint8_t>(fields.tm_min);
    // A leap second is second 60.
    m_second = static_cast<uint8_t>(fields.tm_sec > 59 ? 59 : fields.tm_sec);
    m_weekday = static_cast<WeekDay>(fields.tm_wday);
}

long long CalendarTime::getTimestamp() const {
    if (m_year < FIRST_YEAR) {
        report(SOURCE, Chain::NEW, ErrorId::YEAR_OUT_OF_RANGE, m_year);
        return -1;
    }
    tm fields = toTm(*this, -1);
    // Required by callers: the -1 of a failed `mktime` is not treated specially and becomes -1000.
    return static_cast<long long>(mktime(&fields)) * 1000;
}

long long CalendarTime::getTimediff(CalendarTime const& a, CalendarTime const& b) {
    long long first = 0;
    long long second = 0;
    if (getSide(a, first) || getSide(b, second)) {
        return -1;
    }
    return first > second ? first - second : second - first;
}

bool CalendarTime::changeDate() {
    tm fields = toTm(*this, 0);
    timespec time{};
    time.tv_sec = mktime(&fields);
    if (time.tv_sec == -1) {
        report(SOURCE, Chain::NEW, ErrorId::ASSEMBLY_FAILED, SystemErrorText().get());
        return true;
    }
    if (clock_settime(CLOCK_REALTIME, &time) != 0) {
        classify(SOURCE, CHANGE_ERRORS, errno);
        return true;
    }
    return false;
}

void CalendarTime::setDate(
    unsigned short year, CalendarTime::Month month, unsigned char day, unsigned char hour,
    unsigned char minute, unsigned char second) noexcept {
    m_year = year;
    m_month = month;
    m_day = day;
    m_hour = hour;
    m_minute = minute;
    m_second = second;
}

void CalendarTime::getDate(
    unsigned short& year, CalendarTime::Month& month, unsigned char& day, unsigned char& hour,
    unsigned char& minute, unsigned char& second) const noexcept {
    year = m_year;
    month = m_month;
    day = m_day;
    hour = m_hour;
    minute = m_minute;
    second = m_second;
}

} // namespace vesk
