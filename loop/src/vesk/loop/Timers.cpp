#include "Core.h"

#include <vesk/common/Unwindable.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

// The number is the same on all architectures.
#ifndef SYS_epoll_pwait2
#define SYS_epoll_pwait2 441
#endif

namespace vesk::loop::detail {

namespace {

constexpr size_t CHILDREN = 4;

/// The system's structure of a call that has 64 bits everywhere.
struct WideTime {
    long long seconds;
    long long nanoseconds;
};

template <typename Time>
Time toSystem(Clock::duration time) noexcept {
    // Half a century is never: a later moment does not fit everywhere.
    time = std::min<Clock::duration>(time, std::chrono::hours(24 * 365 * 50));
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {
        static_cast<decltype(Time{}.tv_sec)>(seconds.count()),
        static_cast<decltype(Time{}.tv_nsec)>(std::chrono::nanoseconds(time - seconds).count())};
}

/// Waits with the precision of the clock. A cancellation point like `epoll_wait`: the C library has no such function
/// before version 2.35.
long waitPrecisely(int epoll, epoll_event* events, int size, WideTime const& time) {
    // By a pointer, because `syscall` is declared without exceptions, and its callers could not be unwound.
    long (*const volatile call)(long, ...) = syscall;
    int type = PTHREAD_CANCEL_DEFERRED;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
    long const count = call(SYS_epoll_pwait2, epoll, events, size, &time, nullptr, 0);
    pthread_setcanceltype(type, nullptr);
    return count;
}

} // namespace

Clock::time_point add(Clock::time_point moment, Clock::duration time) noexcept {
    if (time > Clock::duration::zero()) {
        return moment > Clock::time_point::max() - time ? Clock::time_point::max() : moment + time;
    }
    return moment < Clock::time_point::min() - time ? Clock::time_point::min() : moment + time;
}

// ---- the heap ----

bool Core::isBefore(TimerSource const& one, TimerSource const& other) noexcept {
    return one.deadline != other.deadline ? one.deadline < other.deadline : one.order < other.order;
}

void Core::place(size_t index, TimerSource& source) noexcept {
    m_heap[index] = &source;
    source.index = index;
}

void Core::moveUp(TimerSource& source) noexcept {
    size_t index = source.index;
    while (index > 0) {
        TimerSource& parent = *m_heap[(index - 1) / CHILDREN];
        if (!isBefore(source, parent)) {
            break;
        }
        size_t const above = parent.index;
        place(index, parent);
        index = above;
    }
    place(index, source);
}

void Core::moveDown(TimerSource& source) noexcept {
    size_t index = source.index;
    for (;;) {
        size_t const first = index * CHILDREN + 1;
        size_t const last = std::min(first + CHILDREN, m_heap.size());
        if (first >= last) {
            break;
        }
        TimerSource* next = m_heap[first];
        for (size_t i = first + 1; i < last; ++i) {
            next = isBefore(*m_heap[i], *next) ? m_heap[i] : next;
        }
        if (!isBefore(*next, source)) {
            break;
        }
        size_t const below = next->index;
        place(index, *next);
        index = below;
    }
    place(index, source);
}

/// Inserts a timer. The capacity suffices for all attached timers, so that nothing is allocated here.
void Core::insert(TimerSource& source) noexcept {
    source.order = ++m_starts;
    source.index = m_heap.size();
    m_heap.push_back(&source);
    moveUp(source);
}

/// Takes a timer out of the heap.
void Core::extract(TimerSource& source) noexcept {
    if (source.index == TimerSource::NOWHERE) {
        return;
    }
    TimerSource& last = *m_heap.back();
    m_heap.pop_back();
    if (&last != &source) {
        place(source.index, last);
        moveUp(last);
        moveDown(last);
    }
    source.index = TimerSource::NOWHERE;
}

// ---- timers ----

/// Returns whether a moment is later than a time from now, without the cost of the exact clock. The coarse one is at
/// most a tick late; a moment that is near the limit counts as earlier.
bool Core::isFar(Clock::time_point moment, Clock::duration time) noexcept {
    constexpr auto TICK = std::chrono::milliseconds(100);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    Clock::duration const coarse = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    return moment > detail::add(Clock::time_point(coarse) + TICK, time);
}

void Core::attach(TimerSource& source, Clock::time_point deadline) {
    Locked const locked(m_lock);
    if (m_timers == m_heap.capacity()) {
        m_heap.reserve(std::max<size_t>(16, 2 * m_timers));
    }
    ++m_timers;
    begin(source, deadline);
}

void Core::restart(TimerSource& source, Clock::time_point deadline) noexcept {
    Locked const locked(m_lock);
    if (m_epoll.isOpen() && !source.is_canceled) { // The loop exists.
        begin(source, deadline);
    }
}

void Core::begin(TimerSource& source, Clock::time_point deadline) noexcept {
    if (!source.is_attached) {
        setActive(source);
    }
    source.remove(); // It may have expired without being called yet.
    extract(source);
    source.deadline = deadline;
    insert(source);
    if (source.index == 0) {
        m_timer_fd.isOpen() ? armTimerFd() : wake();
    }
}

void Core::leave(TimerSource& /*source*/) noexcept {
    --m_timers;
}

void Core::detach(TimerSource& source) noexcept {
    extract(source);
}

void TimerSource::leave() noexcept {
    getCore().leave(*this);
}

void TimerSource::detach() noexcept {
    getCore().detach(*this);
}

/// Starts a periodic timer again. The next moment is on the grid of its periods and in the future.
Call TimerSource::prepare() noexcept {
    if (period == Clock::duration::zero()) {
        return Call::LAST;
    }
    Clock::time_point const now = Clock::now();
    deadline = add(deadline, period);
    if (deadline <= now) {
        deadline += ((now - deadline) / period + 1) * period;
    }
    getCore().renew(*this);
    return Call::AGAIN;
}

void Core::renew(TimerSource& source) noexcept {
    insert(source);
}

void Core::collectTimers() noexcept {
    if (m_heap.empty() || isFar(m_heap.front()->deadline, Clock::duration::zero())) {
        return;
    }
    Clock::time_point const now = Clock::now();
    while (!m_heap.empty() && m_heap.front()->deadline <= now) {
        TimerSource& source = *m_heap.front();
        extract(source);
        setReady(source);
    }
}

// ---- waiting ----

Clock::duration Core::getWait(Clock::duration timeout) const noexcept {
    if (m_stop || !m_idle.empty() || hasPosts() || hasReady()) {
        return Clock::duration::zero();
    }
    if (m_heap.empty()) {
        return timeout;
    }
    Clock::time_point const next = m_heap.front()->deadline;
    if (timeout >= Clock::duration::zero() && isFar(next, timeout)) {
        return timeout;
    }
    Clock::time_point const now = Clock::now();
    Clock::duration const rest = next <= now ? Clock::duration::zero() : next - now;
    return timeout < Clock::duration::zero() ? rest : std::min(rest, timeout);
}

/// Waits for descriptors. A negative limit is none. Returns the number of events, or -1 with `errno` set.
/// A cancellation point, and therefore not `noexcept`.
int Core::wait(Clock::duration limit) {
    auto const size = static_cast<int>(m_events.size());
    auto const waitForEvents = [&](int milliseconds) {
        return unwindable([&] { return epoll_wait(m_epoll.get(), m_events.data(), size, milliseconds); });
    };
    constexpr auto TICK = std::chrono::milliseconds(1);
    if (limit <= Clock::duration::zero()) {
        return waitForEvents(limit < Clock::duration::zero() ? -1 : 0);
    }
    if (m_waits_precisely && limit % TICK != Clock::duration::zero()) {
        auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
        WideTime const time{seconds.count(), std::chrono::nanoseconds(limit - seconds).count()};
        long const count =
            unwindable([&] { return waitPrecisely(m_epoll.get(), m_events.data(), size, time); });
        if (count >= 0 || (errno != ENOSYS && errno != EPERM)) {
            return static_cast<int>(count);
        }
        // Before Linux 5.11, or a filter that does not know the call. The descriptor of a timer ends a wait more precisely than the call does.
        m_waits_precisely = false;
        Locked const locked(m_lock);
        makeTimerFd();
    }
    auto const milliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit).count();
    return waitForEvents(static_cast<int>(std::min<long long>(milliseconds, INT_MAX)));
}

bool Core::makeTimerFd() noexcept {
    if (!m_timer_fd.isOpen()) {
        UniqueFd fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!fd.isOpen() || !add(fd, TIMER, EPOLLIN | EPOLLET)) {
            return false;
        }
        m_timer_fd = std::move(fd);
    }
    armTimerFd();
    return true;
}

/// Sets the descriptor of the timer, unless it rings early enough already.
void Core::armTimerFd() noexcept {
    if (!m_timer_fd.isOpen() || isInherited() || m_heap.empty() || m_heap.front()->deadline >= m_armed) {
        return;
    }
    m_armed = m_heap.front()->deadline;
    itimerspec setting{};
    setting.it_value = toSystem<timespec>(std::max(m_armed.time_since_epoch(), Clock::duration(1)));
    timerfd_settime(m_timer_fd.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

int Core::exposeFd() noexcept {
    Locked const locked(m_lock);
    if (!makeTimerFd()) {
        return -1;
    }
    m_is_awake = false;
    if (hasPosts() || hasReady() || !m_idle.empty()) {
        wake();
    }
    return m_epoll.get();
}

} // namespace vesk::loop::detail
