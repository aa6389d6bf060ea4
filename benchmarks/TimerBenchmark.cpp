#include <vesk/Timer.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <pthread.h>
#include <semaphore.h>
#include <vector>

namespace {

void doNothing(vesk::Timer*) {}

// ---- Start and stop among many ----

// The twin of each row is the same operation with few timers, because bare timers are independent of each
// other.

constexpr unsigned int HOUR_MS = 3600000;

/// Running timers with intervals from one hour to two.
class Running {
public:
    explicit Running(unsigned int count) {
        for (unsigned int i = 0; i < count; ++i) {
            m_timers.push_back(std::make_unique<vesk::Timer>(doNothing, false));
            m_timers.back()->start(getInterval(i), false);
        }
    }

    static unsigned int getInterval(unsigned int i) { return HOUR_MS + i * 7919 % HOUR_MS; }

private:
    std::vector<std::unique_ptr<vesk::Timer>> m_timers;
};

/// Starts and stops a timer that is later than some and earlier than others. Each start has a new position
/// among them.
void startStop(benchmark::State& state, unsigned int pending) {
    Running const others(pending);
    std::array<std::unique_ptr<vesk::Timer>, 64> timers;
    for (auto& timer : timers) {
        timer = std::make_unique<vesk::Timer>(doNothing, false);
    }
    unsigned int i = 0;
    for (auto _ : state) {
        vesk::Timer& timer = *timers[i % timers.size()];
        benchmark::DoNotOptimize(timer.start(Running::getInterval(++i), false));
        benchmark::DoNotOptimize(timer.stop());
    }
}

void startStopAmongMany(benchmark::State& state) {
    startStop(state, 10000);
}
BENCHMARK(startStopAmongMany)->Name("Timer start plus stop, 10,000 pending against 10 (at most 1.5)/vesk");

void startStopAmongFew(benchmark::State& state) {
    startStop(state, 10);
}
BENCHMARK(startStopAmongFew)->Name("Timer start plus stop, 10,000 pending against 10 (at most 1.5)/bare");

/// Starts and stops the earliest timer. Each start arms the kernel's timer.
void startStopFirst(benchmark::State& state, unsigned int pending) {
    Running const others(pending);
    vesk::Timer timer(doNothing, false);
    for (auto _ : state) {
        benchmark::DoNotOptimize(timer.start(HOUR_MS / 2, false));
        benchmark::DoNotOptimize(timer.stop());
    }
}

void startStopBeforeMany(benchmark::State& state) {
    startStopFirst(state, 10000);
}
BENCHMARK(startStopBeforeMany)
    ->Name("Earliest timer start plus stop, 10,000 pending against 10 (at most 1.5)/vesk");

void startStopBeforeFew(benchmark::State& state) {
    startStopFirst(state, 10);
}
BENCHMARK(startStopBeforeFew)
    ->Name("Earliest timer start plus stop, 10,000 pending against 10 (at most 1.5)/bare");

/// Stops the pending timers in turn and starts each with a new interval.
void restart(benchmark::State& state, unsigned int pending) {
    std::vector<std::unique_ptr<vesk::Timer>> timers;
    for (unsigned int i = 0; i < pending; ++i) {
        timers.push_back(std::make_unique<vesk::Timer>(doNothing, false));
        timers.back()->start(Running::getInterval(i), false);
    }
    unsigned int i = 0;
    for (auto _ : state) {
        i += 4099;
        vesk::Timer& timer = *timers[i % pending];
        benchmark::DoNotOptimize(timer.stop());
        benchmark::DoNotOptimize(timer.start(Running::getInterval(i), false));
    }
}

void restartAmongMany(benchmark::State& state) {
    restart(state, 10000);
}
BENCHMARK(restartAmongMany)->Name("Timers stopped and started in turns, 10,000 against 10/vesk");

void restartAmongFew(benchmark::State& state) {
    restart(state, 10);
}
BENCHMARK(restartAmongFew)->Name("Timers stopped and started in turns, 10,000 against 10/bare");

// ---- Start and stop against the bare way ----

void startStopVesk(benchmark::State& state) {
    startStop(state, static_cast<unsigned int>(state.range(0)));
}
BENCHMARK(startStopVesk)->Name("Timer start plus stop (at most 1.0)/vesk")->Arg(100)->Arg(1000)->Arg(10000);

/// A hand-made engine: a mutex, a map of expiries, and one kernel timer, which is armed for the earliest expiry.
class HandMadeTimers {
public:
    using Place = std::multimap<long long, int>::iterator;

    HandMadeTimers() {
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL; // Never raised: the benchmark is shorter than an hour.
        event.sigev_signo = SIGRTMIN + 8;
        timer_create(CLOCK_MONOTONIC, &event, &m_timer);
    }
    ~HandMadeTimers() { timer_delete(m_timer); }

    Place start(unsigned int interval_ms, int id) {
        pthread_mutex_lock(&m_mutex);
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        Place const place = m_expiries.emplace(now.tv_sec * 1000LL + now.tv_nsec / 1000000 + interval_ms, id);
        if (place == m_expiries.begin()) {
            itimerspec value{};
            value.it_value.tv_sec = static_cast<time_t>(interval_ms / 1000);
            value.it_value.tv_nsec = static_cast<long>(interval_ms % 1000) * 1000000;
            timer_settime(m_timer, 0, &value, nullptr);
        }
        pthread_mutex_unlock(&m_mutex);
        return place;
    }
    void stop(Place place) {
        pthread_mutex_lock(&m_mutex);
        m_expiries.erase(place);
        pthread_mutex_unlock(&m_mutex);
    }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    std::multimap<long long, int> m_expiries;
    timer_t m_timer{};
};

void startStopByHand(benchmark::State& state) {
    HandMadeTimers timers;
    auto const pending = static_cast<unsigned int>(state.range(0));
    for (unsigned int i = 0; i < pending; ++i) {
        timers.start(Running::getInterval(i), 0);
    }
    unsigned int i = 0;
    for (auto _ : state) {
        timers.stop(timers.start(Running::getInterval(++i), 1));
    }
}
BENCHMARK(startStopByHand)->Name("Timer start plus stop (at most 1.0)/bare")->Arg(100)->Arg(1000)->Arg(10000);

void startStopAlone(benchmark::State& state) {
    vesk::Timer timer(doNothing, false);
    for (auto _ : state) {
        benchmark::DoNotOptimize(timer.start(HOUR_MS, false));
        benchmark::DoNotOptimize(timer.stop());
    }
}
BENCHMARK(startStopAlone)->Name("Timer start plus stop, none pending (at most 0.2)/vesk");

void startStopOfTheKernel(benchmark::State& state) {
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL; // Never raised: the benchmark is shorter than an hour.
    event.sigev_signo = SIGRTMIN + 8;
    timer_t timer{};
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    itimerspec hour{};
    hour.it_value.tv_sec = HOUR_MS / 1000;
    itimerspec const never{};
    for (auto _ : state) {
        timer_settime(timer, 0, &hour, nullptr);
        timer_settime(timer, 0, &never, nullptr);
    }
    timer_delete(timer);
}
BENCHMARK(startStopOfTheKernel)->Name("Timer start plus stop, none pending (at most 0.2)/bare");

// ---- Delay of a timer of one millisecond ----

constexpr long NS_PER_MS = 1000000;

long long now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL * NS_PER_MS + time.tv_nsec;
}

/// Adds the delays in microseconds to the row.
void show(benchmark::State& state, std::vector<long long>& delays) {
    std::sort(delays.begin(), delays.end());
    auto const at = [&delays](size_t percent) {
        return static_cast<double>(delays[delays.size() * percent / 100]) / 1000;
    };
    state.counters["late_p50_us"] = at(50);
    state.counters["late_p99_us"] = at(99);
}

class Shot {
public:
    Shot() { sem_init(&m_done, 0, 0); }
    ~Shot() { sem_destroy(&m_done); }

    void hit() {
        m_time = now();
        sem_post(&m_done);
    }
    long long wait() {
        while (sem_wait(&m_done) != 0) {} // The signal may interrupt this thread.
        return m_time;
    }

private:
    sem_t m_done;
    long long m_time = 0;
};

class ShootingTimer : public vesk::Timer {
public:
    explicit ShootingTimer(Shot& target) : Timer(shoot, false), m_shot(target) {}
    ~ShootingTimer() override { stop(); }

private:
    static void shoot(Timer* timer) { static_cast<ShootingTimer*>(timer)->m_shot.hit(); }

    Shot& m_shot;
};

void oneShot(benchmark::State& state) {
    Shot shot;
    ShootingTimer timer(shot);
    std::vector<long long> delays;
    for (auto _ : state) {
        long long const start = now();
        timer.start(1, false);
        delays.push_back(shot.wait() - start - NS_PER_MS);
    }
    show(state, delays);
}
BENCHMARK(oneShot)->Name("One-shot timer of 1 ms/vesk")->UseRealTime();

/// A system timer with a dedicated thread that waits for its signal.
class BareTimer {
public:
    explicit BareTimer(Shot& target) : m_shot(target) {
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGNAL;
        timer_create(CLOCK_MONOTONIC, &event, &m_timer);
        pthread_create(&m_thread, nullptr, serve, this);
    }
    ~BareTimer() {
        m_ending = true;
        pthread_kill(m_thread, SIGNAL);
        pthread_join(m_thread, nullptr);
        timer_delete(m_timer);
    }

    void start(long ns = NS_PER_MS, bool periodic = false) {
        itimerspec value{};
        value.it_value.tv_nsec = ns;
        value.it_interval.tv_nsec = periodic ? ns : 0;
        timer_settime(m_timer, 0, &value, nullptr);
    }

private:
    static void* serve(void* argument) {
        auto& self = *static_cast<BareTimer*>(argument);
        siginfo_t info;
        while (sigwaitinfo(&s_signals, &info) == SIGNAL && !self.m_ending) {
            self.m_shot.hit();
        }
        return nullptr;
    }

    static inline int const SIGNAL = SIGRTMIN + 9;
    /// Blocked before the first thread exists, so that all threads inherit that. A thread that did not block the
    /// signal would take it, and end the process.
    static inline sigset_t const s_signals = [] {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGNAL);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        return signals;
    }();

    Shot& m_shot;
    timer_t m_timer{};
    pthread_t m_thread{};
    std::atomic<bool> m_ending{false};
};

void bareOneShot(benchmark::State& state) {
    Shot shot;
    BareTimer timer(shot);
    std::vector<long long> delays;
    for (auto _ : state) {
        long long const start = now();
        timer.start();
        delays.push_back(shot.wait() - start - NS_PER_MS);
    }
    show(state, delays);
}
BENCHMARK(bareOneShot)->Name("One-shot timer of 1 ms/bare")->UseRealTime();

// ---- Mean period of a timer of ten milliseconds ----

constexpr unsigned int PERIOD_MS = 10;

/// Waits for one call in each iteration: the time of an iteration is the mean period.
void waitForCalls(benchmark::State& state, Shot& shot) {
    for (auto _ : state) {
        shot.wait();
    }
}

void periodic(benchmark::State& state) {
    Shot shot;
    ShootingTimer timer(shot);
    timer.start(PERIOD_MS, true);
    waitForCalls(state, shot);
}
BENCHMARK(periodic)->Name("Period of 10 ms, start/vesk")->UseRealTime();

void fixedRate(benchmark::State& state) {
    Shot shot;
    ShootingTimer timer(shot);
    timer.startFixedRate(PERIOD_MS);
    waitForCalls(state, shot);
}
BENCHMARK(fixedRate)->Name("Period of 10 ms, startFixedRate/vesk")->UseRealTime();

void barePeriodic(benchmark::State& state) {
    Shot shot;
    BareTimer timer(shot);
    timer.start(PERIOD_MS * NS_PER_MS, true);
    waitForCalls(state, shot);
}
BENCHMARK(barePeriodic)->Name("Period of 10 ms, start/bare")->UseRealTime();
BENCHMARK(barePeriodic)->Name("Period of 10 ms, startFixedRate/bare")->UseRealTime();

} // namespace
