#include <vesk/StopWatchBase.h>

#include "vesk/common/Report.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/Time.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/StopWatchBase";

constexpr int32_t NANOSECONDS_PER_SECOND = 1000000000;

/// A clock id that is invalid on every system: `clock_gettime` rejects it.
constexpr clockid_t NO_CLOCK = -1;

// Seconds are kept in 32 bits and wrap around in every build.

int32_t add(int32_t a, int32_t b) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t subtract(time_t a, time_t b) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

int32_t multiply(int32_t a, int32_t b) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

} // namespace

void StopWatchBase::start() {
    m_failed = false;
    if (m_running) {
        return;
    }
    m_running = !readClock(m_start_time);
}

void StopWatchBase::stop() {
    m_failed = false;
    if (!m_running) {
        return;
    }
    timespec now;
    if (readClock(now)) {
        return;
    }
    Length const period = calcDiffTime(m_start_time, now);
    m_accumulated_time.seconds = add(m_accumulated_time.seconds, period.seconds);
    m_accumulated_time.nanoseconds += period.nanoseconds;
    if (m_accumulated_time.nanoseconds >= NANOSECONDS_PER_SECOND) {
        m_accumulated_time.nanoseconds -= NANOSECONDS_PER_SECOND;
        m_accumulated_time.seconds = add(m_accumulated_time.seconds, 1);
    }
    m_running = false;
}

void StopWatchBase::reset() noexcept {
    m_accumulated_time = Length();
}

long long StopWatchBase::getStoppedTime(TimeUnit unit) const noexcept {
    return toUnit(m_accumulated_time, unit);
}

long long StopWatchBase::peekRuntime(TimeUnit unit) const {
    m_failed = false;
    timespec now;
    if (!m_running || readClock(now)) {
        return 0;
    }
    return toUnit(calcDiffTime(m_start_time, now), unit);
}

long long StopWatchBase::getElapsedTime(TimeUnit unit) const {
    return getStoppedTime(unit) + peekRuntime(unit);
}

void StopWatchBase::setNoClock() noexcept {
    m_clock = NO_CLOCK;
    m_failed = true;
}

StopWatchBase::Length StopWatchBase::calcDiffTime(timespec const& start, timespec const& end) {
    if (end.tv_sec < start.tv_sec) {
        std::GlobalErrorHandler::doAssert(
            false, "end.tv_sec >= start.tv_sec", SOURCE, __LINE__, "calcDiffTime", nullptr);
    }
    Length length;
    length.seconds = subtract(end.tv_sec, start.tv_sec);
    length.nanoseconds = static_cast<int32_t>(end.tv_nsec - start.tv_nsec);
    if (length.nanoseconds < 0) {
        length.seconds = add(length.seconds, -1);
        length.nanoseconds += NANOSECONDS_PER_SECOND;
    }
    return length;
}

long long StopWatchBase::toUnit(Length const& length, TimeUnit unit) noexcept {
    if (unit == TimeUnit::MILLISECONDS) {
        // The product is computed in 32 bits and then sign-extended: milliseconds wrap around, microseconds
        // do not.
        return static_cast<long long>(multiply(length.seconds, 1000)) + length.nanoseconds / 1000000;
    }
    return static_cast<long long>(length.seconds) * 1000000 + length.nanoseconds / 1000;
}

/// Reads the clock. Returns true on failure, with a report.
bool StopWatchBase::readClock(timespec& time) const {
    if (clock_gettime(m_clock, &time) != 0) {
        report(SOURCE, Chain::NEW, Time::ErrorId::GET_TIME_FAILED, SystemErrorText().get());
        m_failed = true;
        return true;
    }
    return false;
}

} // namespace vesk
