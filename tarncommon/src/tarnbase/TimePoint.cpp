#include <tarncommon/tarnbase/TimePoint.h>

#include <limits>

namespace tarnbase {

TARN_CONSTANT_INIT TimePoint const TimePoint::MAX(std::numeric_limits<long long>::max());

timespec TimePoint::toTimespec() const noexcept {
    timespec time{};
    if (m_ms < 0) {
        return time;
    }
    long long const seconds = m_ms / 1000;
    constexpr auto LATEST = std::numeric_limits<time_t>::max();
    if (seconds > LATEST) {
        time.tv_sec = LATEST; // LCOV_EXCL_LINE: only where time_t has 32 bits
    } else {
        time.tv_sec = static_cast<time_t>(seconds);
        time.tv_nsec = static_cast<long>(m_ms % 1000) * 1000000;
    }
    return time;
}

} // namespace tarnbase
