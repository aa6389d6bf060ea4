#include "Composite.h"
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

/// The time during which the calling thread runs a loop.
class Turn {
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
Result<> runUntil(Core& core, IsOver is_over, Clock::duration timeout) {
    if (int const error = core.getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    Turn const turn(core);
    if (!turn.hasBegun()) {
        return makeError(SOURCE, LoopErrorId::RUNNING);
    }
    do {
        bool called = false;
        if (int const error = core.runOnce(timeout, called)) {
            return makeError(SOURCE, error, LoopErrorId::WAIT_FAILED);
        }
        if (is_over(called)) {
            core.takeStop();
            break;
        }
    } while (!core.takeStop());
    return {};
}

/// Makes the watch of a new source.
template <typename W, typename S, typename Id, typename... Args>
Result<W> add(std::shared_ptr<Core> const& core, Id refused, int argument, Args&&... args) {
    if (int const error = core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<W> {
        auto source = std::make_shared<S>(core, std::forward<Args>(args)...);
        int const error = core->attach(*source);
        if (error == EEXIST) {
            return makeError(SOURCE, LoopErrorId::FD_WATCHED, argument);
        }
        if (error != 0) {
            return makeError(SOURCE, error, refused, argument);
        }
        return Access::make<W>(std::move(source));
    });
}

Result<Timer> startTimer(
    std::shared_ptr<Core> const& core, Clock::time_point deadline, Clock::duration period,
    Callback<void()>&& callback, Options options) {
    if (int const error = core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<Timer> {
        auto source = std::make_shared<TimerSource>(core, options, period, std::move(callback));
        core->attach(*source, deadline);
        return Access::make<Timer>(std::move(source));
    });
}

Result<Watch> watchClock(
    std::shared_ptr<Core> const& core, long long seconds, long nanoseconds, int flags,
    Callback<void()>&& callback, Options options) {
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
        core, LoopErrorId::FD_REFUSED, fd.get(), options, std::move(fd), std::move(callback));
}

} // namespace

Loop::Loop() : m_core(std::make_shared<Core>()) {}

Loop::~Loop() {
    m_core->close();
}

// ---- running ----

Result<> Loop::run() {
    return runUntil(
        *m_core, [](bool) { return false; }, Clock::duration(-1));
}

Result<> Loop::runToEnd() {
    if (m_core->isDone()) {
        return {};
    }
    return runUntil(
        *m_core, [this](bool) { return m_core->isDone(); }, Clock::duration(-1));
}

Result<bool> Loop::runOnce(Clock::duration timeout) {
    bool result = false;
    Result<> const outcome = runUntil(
        *m_core,
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

Result<Watch> Loop::onReadable(int fd, Callback<void()> callback, Options options, Trigger trigger) {
    return add<Watch, ReadySource>(
        m_core, LoopErrorId::FD_REFUSED, fd, options, fd, false, trigger, std::move(callback));
}

Result<Watch> Loop::onWritable(int fd, Callback<void()> callback, Options options, Trigger trigger) {
    return add<Watch, ReadySource>(
        m_core, LoopErrorId::FD_REFUSED, fd, options, fd, true, trigger, std::move(callback));
}

Result<Watch> Loop::onSignal(int signal, Callback<void()> callback, Options options) {
    return add<Watch, SignalSource>(
        m_core, LoopErrorId::SIGNAL_REFUSED, signal, options, signal, std::move(callback));
}

Result<Watch> Loop::onExit(pid_t child, Callback<void(Exit)> callback, Options options) {
    UniqueFd fd = openChild(child);
    if (!fd.isOpen()) {
        return makeError(SOURCE, errno, LoopErrorId::CHILD_REFUSED, static_cast<int>(child));
    }
    return add<Watch, ChildSource>(
        m_core, LoopErrorId::CHILD_REFUSED, static_cast<int>(child), options, child, std::move(fd),
        std::move(callback));
}

Result<Timer> Loop::after(Clock::duration delay, Callback<void()> callback, Options options) {
    return startTimer(
        m_core, detail::add(Clock::now(), delay), Clock::duration::zero(), std::move(callback), options);
}

Result<Timer> Loop::at(Clock::time_point moment, Callback<void()> callback, Options options) {
    return startTimer(m_core, moment, Clock::duration::zero(), std::move(callback), options);
}

Result<Timer> Loop::every(Clock::duration period, Callback<void()> callback, Options options) {
    Clock::duration const interval = std::max(period, Clock::duration(1));
    return startTimer(m_core, detail::add(Clock::now(), interval), interval, std::move(callback), options);
}

Result<Watch>
Loop::atDate(std::chrono::system_clock::time_point moment, Callback<void()> callback, Options options) {
    auto const time = moment.time_since_epoch();
    auto const seconds = std::chrono::floor<std::chrono::seconds>(time);
    // Zero would stop the timer.
    auto const rest = std::max<long long>(std::chrono::nanoseconds(time - seconds).count(), 1);
    return watchClock(m_core, seconds.count(), static_cast<long>(rest), 0, std::move(callback), options);
}

Result<Watch> Loop::onClockSet(Callback<void()> callback, Options options) {
    return watchClock(
        m_core, std::numeric_limits<time_t>::max(), 0, TFD_TIMER_CANCEL_ON_SET, std::move(callback), options);
}

Result<Watch> Loop::onIdle(Callback<void()> callback, Options options) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<Watch> {
        auto source = std::make_shared<IdleSource>(m_core, options, std::move(callback));
        m_core->attach(*source);
        return Access::make<Watch>(std::move(source));
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
