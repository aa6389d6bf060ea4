#include "Core.h"
#include "Report.h"

#include <vesk/loop/LoopError.h>

#include <tarncommon/error/CommonError.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <sys/timerfd.h>
#include <utility>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Loop";

} // namespace

Loop::Loop() : m_core(std::make_shared<Core>()) {}

Loop::~Loop() {
    m_core->close();
}

// ---- running ----

class Loop::Turn {
public:
    explicit Turn(Core& core) noexcept : m_core(core), m_entered(core.enter()) {}
    ~Turn() {
        if (m_entered) {
            m_core.leave();
        }
    }
    Turn(Turn const&) = delete;
    Turn& operator=(Turn const&) = delete;

    bool hasBegun() const noexcept { return m_entered; }

private:
    Core& m_core;
    bool m_entered;
};

/// Runs rounds until `stop`, or until a condition holds after a round.
template <typename IsOver>
Result<> Loop::runUntil(IsOver is_over, Clock::duration timeout) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    Turn const turn(*m_core);
    if (!turn.hasBegun()) {
        return makeError(SOURCE, LoopErrorId::RUNNING);
    }
    do {
        bool called = false;
        if (int const error = m_core->runOnce(timeout, called)) {
            return makeError(SOURCE, error, LoopErrorId::WAIT_FAILED);
        }
        if (is_over(called)) {
            m_core->takeStop();
            break;
        }
    } while (!m_core->takeStop());
    return {};
}

Result<> Loop::run() {
    return runUntil([](bool) { return false; }, Clock::duration(-1));
}

Result<> Loop::runToEnd() {
    if (m_core->isDone()) {
        return {};
    }
    return runUntil([this](bool) { return m_core->isDone(); }, Clock::duration(-1));
}

Result<bool> Loop::runOnce(Clock::duration timeout) {
    bool result = false;
    Result<> const outcome = runUntil(
        [&result, timeout](bool called) {
            result = called;
            return called || timeout >= Clock::duration::zero(); // Otherwise only woken.
        },
        timeout);
    if (!outcome) {
        return outcome.error();
    }
    return result;
}

void Loop::stop() noexcept {
    m_core->stop();
}

Result<int> Loop::fd() {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    int const fd = m_core->exposeFd();
    if (fd < 0) {
        return makeError(SOURCE, errno, LoopErrorId::NOT_CREATED);
    }
    return fd;
}

Result<> Loop::post(Callback<void()> call, Priority priority) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<> {
        m_core->post(std::move(call), priority);
        return {};
    });
}

void Loop::setExceptionHook(Callback<void(std::exception_ptr)> hook) {
    m_core->setExceptionHook(std::move(hook));
}

// ---- watches ----

template <typename W, typename S, typename Id, typename... Args>
Result<W> Loop::add(Id refused, int argument, Args&&... args) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<W> {
        auto source = std::make_shared<S>(m_core, std::forward<Args>(args)...);
        int const error = m_core->attach(*source);
        if (error == EEXIST) {
            return makeError(SOURCE, LoopErrorId::FD_WATCHED, argument);
        }
        if (error != 0) {
            return makeError(SOURCE, error, refused, argument);
        }
        return W(std::move(source));
    });
}

Result<Watch>
Loop::onReadable(int fd, Callback<void()> callback, Priority priority, Trigger trigger, Place place) {
    return add<Watch, ReadySource>(
        LoopErrorId::FD_REFUSED, fd, priority, place, fd, false, trigger, std::move(callback));
}

Result<Watch>
Loop::onWritable(int fd, Callback<void()> callback, Priority priority, Trigger trigger, Place place) {
    return add<Watch, ReadySource>(
        LoopErrorId::FD_REFUSED, fd, priority, place, fd, true, trigger, std::move(callback));
}

Result<Watch> Loop::onSignal(int signal, Callback<void()> callback, Priority priority, Place place) {
    return add<Watch, SignalSource>(
        LoopErrorId::SIGNAL_REFUSED, signal, priority, place, signal, std::move(callback));
}

Result<Watch> Loop::onExit(pid_t child, Callback<void(Exit)> callback, Priority priority, Place place) {
    UniqueFd fd = openChild(child);
    if (!fd.isOpen()) {
        return makeError(SOURCE, errno, LoopErrorId::CHILD_REFUSED, static_cast<int>(child));
    }
    return add<Watch, ChildSource>(
        LoopErrorId::CHILD_REFUSED, static_cast<int>(child), priority, place, child, std::move(fd),
        std::move(callback));
}

Result<Timer> Loop::startTimer(
    Clock::time_point deadline, Clock::duration period, Callback<void()> callback, Priority priority,
    Place place) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<Timer> {
        auto source = std::make_shared<TimerSource>(m_core, priority, place, period, std::move(callback));
        m_core->attach(*source, deadline);
        return Timer(std::move(source));
    });
}

Result<Timer> Loop::after(Clock::duration delay, Callback<void()> callback, Priority priority, Place place) {
    return startTimer(
        detail::add(Clock::now(), delay), Clock::duration::zero(), std::move(callback), priority, place);
}

Result<Timer> Loop::at(Clock::time_point moment, Callback<void()> callback, Priority priority, Place place) {
    return startTimer(moment, Clock::duration::zero(), std::move(callback), priority, place);
}

Result<Timer> Loop::every(Clock::duration period, Callback<void()> callback, Priority priority, Place place) {
    Clock::duration const interval = std::max(period, Clock::duration(1));
    return startTimer(detail::add(Clock::now(), interval), interval, std::move(callback), priority, place);
}

Result<Watch> Loop::watchClock(
    long long seconds, long nanoseconds, int flags, Callback<void()> callback, Priority priority,
    Place place) {
    UniqueFd fd(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec setting{};
    // A date that the system cannot represent never comes.
    setting.it_value.tv_sec =
        static_cast<time_t>(std::clamp<long long>(seconds, 0, std::numeric_limits<time_t>::max()));
    setting.it_value.tv_nsec = seconds < 0 ? 1 : nanoseconds;
    if (!fd.isOpen() || timerfd_settime(fd.get(), TFD_TIMER_ABSTIME | flags, &setting, nullptr) != 0) {
        return makeError(SOURCE, errno, LoopErrorId::CLOCK_REFUSED);
    }
    return add<Watch, ClockSource>(
        LoopErrorId::FD_REFUSED, fd.get(), priority, place, std::move(fd), std::move(callback));
}

Result<Watch> Loop::atDate(
    std::chrono::system_clock::time_point moment, Callback<void()> callback, Priority priority, Place place) {
    auto const time = moment.time_since_epoch();
    auto const seconds = std::chrono::floor<std::chrono::seconds>(time);
    // Zero would stop the timer.
    auto const rest = std::max<long long>(std::chrono::nanoseconds(time - seconds).count(), 1);
    return watchClock(seconds.count(), static_cast<long>(rest), 0, std::move(callback), priority, place);
}

Result<Watch> Loop::onClockSet(Callback<void()> callback, Priority priority, Place place) {
    return watchClock(
        std::numeric_limits<time_t>::max(), 0, TFD_TIMER_CANCEL_ON_SET, std::move(callback), priority, place);
}

Result<Watch> Loop::onIdle(Callback<void()> callback, Place place) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<Watch> {
        auto source = std::make_shared<IdleSource>(m_core, place, std::move(callback));
        m_core->attach(*source);
        return Watch(std::move(source));
    });
}

// ---- the owners ----

void Watch::cancel() noexcept {
    if (m_source != nullptr) {
        m_source->cancel();
        m_source.reset();
    }
}

bool Watch::isActive() const noexcept {
    return m_source != nullptr && m_source->isActive();
}

void Timer::restart(Clock::duration delay) noexcept {
    if (m_source != nullptr) {
        m_source->getCore().restart(static_cast<TimerSource&>(*m_source), detail::add(Clock::now(), delay));
    }
}

void Timer::stop() noexcept {
    if (m_source != nullptr) {
        m_source->getCore().finish(*m_source);
    }
}

} // namespace vesk::loop
