#pragma once

#include "support/Inject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <functional>
#include <mutex>
#include <ostream>
#include <utility>
#include <vector>

/// Replaces `timer_create`, `timer_settime` and `timer_delete`. Include it in one file of a test program. While a
/// `KernelTimers` lives their calls are recorded, and it says which of them reach the kernel.

inline support::Injected inject_timer_create("timer_create");
inline support::Injected inject_timer_settime("timer_settime");
inline support::Injected inject_timer_delete("timer_delete");

namespace support {

/// A time as the kernel's timer gets it.
struct Span {
    time_t seconds;
    long nanoseconds;

    friend bool operator==(Span const& a, Span const& b) {
        return a.seconds == b.seconds && a.nanoseconds == b.nanoseconds;
    }
    friend std::ostream& operator<<(std::ostream& out, Span const& span) {
        return out << span.seconds << " s " << span.nanoseconds << " ns";
    }
};

using Spans = std::vector<Span>;

constexpr Span ms(long long count) {
    return {static_cast<time_t>(count / 1000), static_cast<long>(count % 1000) * 1000000};
}

/// One at a time.
class KernelTimers {
public:
    static constexpr int ALL = INT_MAX;

    /// @param passing  how many calls of `timer_settime` reach the kernel; those after them are only recorded
    explicit KernelTimers(int passing = 0) : m_passing(passing) {
        m_armings.reserve(ROOM);
        s_current = this;
    }
    ~KernelTimers() { s_current = nullptr; }

    KernelTimers(KernelTimers const&) = delete;
    KernelTimers& operator=(KernelTimers const&) = delete;

    /// What was armed since the last call. Checks that each was relative and for one shot, and wanted no old value.
    Spans take() {
        std::vector<Arming> armings;
        armings.reserve(ROOM);
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            armings.swap(m_armings);
        }
        Spans spans;
        for (Arming const& arming : armings) {
            EXPECT_EQ(0, arming.flags);
            EXPECT_EQ(0, arming.value.it_interval.tv_sec);
            EXPECT_EQ(0, arming.value.it_interval.tv_nsec);
            EXPECT_FALSE(arming.wants_old);
            spans.push_back({arming.value.it_value.tv_sec, arming.value.it_value.tv_nsec});
        }
        return spans;
    }

    int countArmings() {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_count;
    }

    // Public, since only the replaced functions and the tests' threads one after the other touch them.
    int created = 0;
    int deleted = 0;
    clockid_t clock = -1;
    sigevent event{};
    timer_t created_timer{};
    timer_t armed_timer{};
    timer_t deleted_timer{};
    std::function<void()> on_create; ///< Called before the kernel is.
    std::function<void()> on_delete;

    static KernelTimers* getCurrent() { return s_current; }

    /// Whether a call is to reach the kernel.
    bool record(timer_t timer, int flags, itimerspec const& value, bool wants_old) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        armed_timer = timer;
        m_armings.push_back({flags, value, wants_old});
        return m_count++ < m_passing;
    }

private:
    struct Arming {
        int flags;
        itimerspec value;
        bool wants_old;
    };

    static constexpr size_t ROOM = 64; // So many do not disturb a test of failing allocations.

    static inline std::atomic<KernelTimers*> s_current{nullptr};

    int m_passing;
    std::mutex m_mutex;
    std::vector<Arming> m_armings;
    int m_count = 0;
};

} // namespace support

extern "C" int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
    support::KernelTimers* const timers = support::KernelTimers::getCurrent();
    if (timers != nullptr) {
        ++timers->created;
        timers->clock = clock;
        timers->event = *event;
        if (timers->on_create) {
            timers->on_create();
        }
    }
    int error = 0;
    if (inject_timer_create.fails(error)) {
        errno = error;
        return -1;
    }
    int const result = reinterpret_cast<int (*)(clockid_t, sigevent*, timer_t*)>(
        inject_timer_create.getReal())(clock, event, timer);
    if (timers != nullptr) {
        timers->created_timer = *timer;
    }
    return result;
}

extern "C" int timer_settime(timer_t timer, int flags, itimerspec const* value, itimerspec* old) noexcept {
    support::KernelTimers* const timers = support::KernelTimers::getCurrent();
    int error = 0;
    if (timers != nullptr && !timers->record(timer, flags, *value, old != nullptr)) {
        return 0;
    }
    if (inject_timer_settime.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(timer_t, int, itimerspec const*, itimerspec*)>(
        inject_timer_settime.getReal())(timer, flags, value, old);
}

extern "C" int timer_delete(timer_t timer) noexcept {
    support::KernelTimers* const timers = support::KernelTimers::getCurrent();
    if (timers != nullptr) {
        ++timers->deleted;
        timers->deleted_timer = timer;
        if (timers->on_delete) {
            timers->on_delete();
        }
    }
    return reinterpret_cast<int (*)(timer_t)>(inject_timer_delete.getReal())(timer);
}
