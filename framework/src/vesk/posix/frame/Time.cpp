#include <vesk/Time.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>

#include <tarncommon/tarnbase/Duration.h>

#include <ctime>
#include <iterator>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(Time::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::TIME;
}

using namespace detail;
using tarnbase::Duration;
using tarnbase::TimePoint;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Time";

constexpr std::ErrorID ROWS[] = {
    {0, "No clock source available in the system: %s", 1},
    {1, "Sleep failed: %s", 1},
    {2, "Failed to get time: %s", 1},
    {3, "Failed to get uptime: %s", 1},
    {4, "Failed to get timestamp: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Time::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT long long Time::s_init_time = 0;

namespace {

constexpr ErrnoRow TIMESTAMP_ERRORS[] = {
    // The system does not know the clock id.
    {{EINVAL}, SysErrorId::NOT_IMPLEMENTED},
    {OTHERS, Time::ErrorId::GET_TIMESTAMP_FAILED},
};

constexpr ErrnoRow SLEEP_ERRORS[] = {
    {{EINTR}, NONE, NONE, Outcome::REPEAT},
    {OTHERS, Time::ErrorId::SLEEP_FAILED},
};

TimePoint deadlineIn(long long ms) noexcept {
    TimePoint const now = TimePoint::now();
    if (ms > TimePoint::MAX.getCount() - now.getCount()) {
        return TimePoint::MAX;
    }
    return now + Duration(ms);
}

} // namespace

bool Time::init() {
    if (getTime(s_init_time)) {
        // LCOV_EXCL_LINE: `getTime` cannot fail
        report(SOURCE, Chain::UNKNOWN, ErrorId::NO_CLOCK, SystemErrorText().get());
        return true;
    }
    return false;
}

bool Time::getUptime(long long& ms) {
    if (getTime(ms)) {
        // LCOV_EXCL_LINE: `getTime` cannot fail
        report(SOURCE, Chain::UNKNOWN, ErrorId::GET_UPTIME_FAILED, SystemErrorText().get());
        return true;
    }
    ms -= s_init_time;
    return false;
}

bool Time::getTimestamp(long long& ms) {
    timespec time;
    if (clock_gettime(CLOCK_REALTIME, &time) != 0) {
        classify(SOURCE, TIMESTAMP_ERRORS, errno);
        return true;
    }
    ms = static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
    return false;
}

long long const& Time::getInitTime() noexcept {
    return s_init_time;
}

bool Time::sleep(long long ms) {
    if (ms < 1) {
        return false;
    }
    timespec deadline = deadlineIn(ms).toTimespec();
    bool failed = false;
    // The deadline is absolute and thus the same in every iteration: neither a signal nor a failure shortens
    // the sleep.
    while (int const error = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, &deadline)) {
        errno = error;
        if (classify(SOURCE, SLEEP_ERRORS, error) == Outcome::FAILED) {
            // A failure is reported but does not end the sleep: callers rely on the time having passed.
            failed = true;
        }
    }
    return failed;
}

} // namespace vesk
