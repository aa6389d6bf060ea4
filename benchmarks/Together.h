#pragma once

#include <benchmark/benchmark.h>

#include <ctime>
#include <sched.h>
#include <unistd.h>

/// Support for rows in which two threads or processes hand something to each other and back.

/// Binds the calling thread, and the threads and processes that it starts during the lifetime of the object,
/// to one processor. A hand-over then always costs the same. Otherwise the system places the two sides on one
/// processor in one run and on two in the next, and a wake-up across processors costs several times more than
/// a local one.
class OneProcessor {
public:
    OneProcessor() noexcept {
        sched_getaffinity(0, sizeof m_before, &m_before);
        // The last processor, because interrupts usually go to the first.
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

/// Returns the processor time of this process, plus that of `peer` if it is given, in seconds. Two processes
/// that share one processor and wait only for each other use all of it, so this is their real time without
/// that of other processes.
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

/// Measures the processor time of `body`, for a row with `UseManualTime`. Reads the clock once per `TURNS`
/// calls, so that its cost is negligible.
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
