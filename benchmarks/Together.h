#pragma once

#include <benchmark/benchmark.h>

#include <ctime>
#include <sched.h>
#include <unistd.h>

/// For rows in which two threads, or two processes, hand something to each other and back.

/// While it lives, the calling thread, and the threads and processes that it starts, share one processor. What goes back
/// and forth between two of them then always costs the same: otherwise the system lets them sit together in one run and
/// apart in the next, and a wake-up across processors costs several times one at home.
class OneProcessor {
public:
    OneProcessor() noexcept {
        sched_getaffinity(0, sizeof m_before, &m_before);
        // The last one, as interrupts prefer the first.
        int processor = CPU_SETSIZE - 1;
        while (processor > 0 && !CPU_ISSET(processor, &m_before)) {
            --processor;
        }
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(processor, &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~OneProcessor() { sched_setaffinity(0, sizeof m_before, &m_before); }
    OneProcessor(OneProcessor const&) = delete;
    OneProcessor& operator=(OneProcessor const&) = delete;

private:
    cpu_set_t m_before{};
};

/// The processor's time of this process, and of another one if it is given, in seconds. Two that share one processor and
/// wait for nothing but each other use all of it, so this is their real time without that of strangers.
inline double getProcessorTime(pid_t peer = 0) noexcept {
    timespec mine{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &mine);
    timespec others{};
    clockid_t clock{};
    if (peer != 0 && clock_getcpuclockid(peer, &clock) == 0) {
        clock_gettime(clock, &others);
    }
    return static_cast<double>(mine.tv_sec + others.tv_sec) +
        static_cast<double>(mine.tv_nsec + others.tv_nsec) * 1e-9;
}

/// Measures `body` by the processor's time, for a row with `UseManualTime`. The clock is read for so many turns at once that
/// it does not count.
template <typename Body>
void measureTogether(benchmark::State& state, Body body, pid_t peer = 0) {
    constexpr int TURNS = 32;
    while (state.KeepRunningBatch(TURNS)) {
        double const start = getProcessorTime(peer);
        for (int i = 0; i < TURNS; ++i) {
            body();
        }
        state.SetIterationTime(getProcessorTime(peer) - start);
    }
}
