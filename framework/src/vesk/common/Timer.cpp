#include <vesk/Timer.h>

#include "Report.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>

#include <tarncommon/error/CommonError.h>

#include <csignal>
#include <iterator>

namespace vesk {

using namespace detail;
using tarnbase::Duration;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/common/Timer";

constexpr std::ErrorID ROWS[] = {
    {0, "Failed to create timer: %s", 1},
    {1, "Failed to start timer: %s", 1},
    {2, "Failed to stop timer: %s", 1},
    {3, "Failed to snooze timer: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Timer::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT std::Shared<Alarm::DefaultTimer>& Timer::timer_low_prio = Alarm::DEFAULT_TIMER;
TARN_CONSTANT_INIT std::Shared<Timer::HighPrioTimer> Timer::timer_high_prio;

Timer::HighPrioTimer::HighPrioTimer()
    : Alarm::Timer(SIGRTMIN + 2, "HighPrioTimer", Thread::getMainSchedAttrs()) {}

std::SharedBase::Ptr<Alarm::Timer> Timer::getEngine(bool high_priority) {
    using Engine = std::SharedBase::Ptr<Alarm::Timer>;
    return high_priority ? Engine(timer_high_prio) : Engine(timer_low_prio);
}

Timer::Timer(void (*callback)(Timer*), bool high_priority)
    : m_callback(callback),
      m_high_priority(high_priority),
      m_alarm(getEngine(high_priority), nullptr, procedure, this) {}

Timer::~Timer() {
    m_alarm.stop();
}

/// The kinds of timers, as `start` and `startFixedRate` set them.
struct Timer::Settings {
    Timer& timer;
    uint32_t interval;
    bool periodic;
    bool fixed_rate;

    static void store(void* settings) {
        auto const& wanted = *static_cast<Settings*>(settings);
        wanted.timer.m_interval.store(wanted.interval, std::memory_order_relaxed);
        wanted.timer.m_periodic.store(wanted.periodic, std::memory_order_relaxed);
        wanted.timer.m_fixed_rate.store(wanted.fixed_rate, std::memory_order_relaxed);
    }
};

bool Timer::start(unsigned int interval_ms, bool periodic) {
    return start({*this, interval_ms, periodic, false});
}

bool Timer::startFixedRate(unsigned int interval_ms) {
    return start({*this, interval_ms, true, true});
}

bool Timer::start(Settings settings) {
    if (settings.interval == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "zero tick interval specified");
        return true;
    }
    Alarm::Start const start = settings.fixed_rate ? Alarm::Start::AT_FULL_MILLISECOND : Alarm::Start::EXACT;
    // Stores with the engine's lock held: a callback that is running still sees the old values.
    m_alarm.restart(start, Duration(settings.interval), Settings::store, &settings);
    return false;
}

bool Timer::stop() {
    m_alarm.stop();
    return false;
}

bool Timer::snooze() {
    m_alarm.start(Duration(getInterval()));
    return false;
}

void Timer::procedure(void* timer) {
    Timer* const self = static_cast<Timer*>(timer);
    // Before the callback, which may stop or destroy the timer.
    if (self->m_fixed_rate.load(std::memory_order_relaxed)) {
        self->m_alarm.startNext(Duration(self->getInterval()));
    } else if (self->isPeriodic()) {
        self->snooze();
    }
    self->m_callback(self);
}

} // namespace vesk
