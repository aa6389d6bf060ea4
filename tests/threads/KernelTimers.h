#pragma once

#include "support/Testing.h"

/// Replaces `timer_create`, `timer_settime` and `timer_delete`. Must be included in one file of a test program. During
/// the lifetime of a `KernelTimers` it records their calls and decides which of them reach the kernel.

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

/// At most one object at a time.
class KernelTimers {
public:
    static constexpr int ALL = INT_MAX;

    /// @param passing  how many calls of `timer_settime` reach the kernel; later ones are only recorded
    explicit KernelTimers(int passing = 0) : m_passing(passing) {
        m_spans.reserve(ROOM);
        s_current = this;
    }
    ~KernelTimers() { s_current = nullptr; }

    KernelTimers(KernelTimers const&) = delete;
    KernelTimers& operator=(KernelTimers const&) = delete;

    /// Returns what was armed since the last call.
    Spans take() {
        Spans spans;
        spans.reserve(ROOM);
        std::lock_guard<std::mutex> const lock(m_mutex);
        spans.swap(m_spans);
        return spans;
    }

    int countArmings() {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_count;
    }

    // Public, because the replaced functions and the threads of the test access them only in turn.
    int created = 0;
    int deleted = 0;
    clockid_t clock = -1;
    sigevent event{};
    timer_t created_timer{};
    timer_t armed_timer{};
    timer_t deleted_timer{};
    std::function<void()> on_create; ///< Called before the kernel.
    std::function<void()> on_delete;

    static KernelTimers* getCurrent() { return s_current; }

    /// Records a call, which must arm for one shot after a relative time. Returns whether it reaches the kernel.
    bool record(timer_t timer, int flags, itimerspec const& value, itimerspec const* old) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        EXPECT_TRUE(flags == 0 && old == nullptr);
        EXPECT_TRUE(value.it_interval.tv_sec == 0 && value.it_interval.tv_nsec == 0);
        armed_timer = timer;
        m_spans.push_back({value.it_value.tv_sec, value.it_value.tv_nsec});
        return m_count++ < m_passing;
    }

private:
    static constexpr size_t ROOM =
        64; // So that recording does not allocate in a test of failing allocations.

    static inline std::atomic<KernelTimers*> s_current{nullptr};

    int m_passing;
    std::mutex m_mutex;
    Spans m_spans;
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
    if (inject_timer_create.fails()) {
        return -1;
    }
    int const result = inject_timer_create.getReal(timer_create)(clock, event, timer);
    if (timers != nullptr) {
        timers->created_timer = *timer;
    }
    return result;
}

extern "C" int timer_settime(timer_t timer, int flags, itimerspec const* value, itimerspec* old) noexcept {
    support::KernelTimers* const timers = support::KernelTimers::getCurrent();
    if (timers != nullptr && !timers->record(timer, flags, *value, old)) {
        return 0;
    }
    return inject_timer_settime.fails()
        ? -1
        : inject_timer_settime.getReal(timer_settime)(timer, flags, value, old);
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
    return inject_timer_delete.getReal(timer_delete)(timer);
}
