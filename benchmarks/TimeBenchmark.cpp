#include <vesk/RealtimeStopWatch.h>
#include <vesk/Time.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <benchmark/benchmark.h>

#include <ctime>

namespace {

void now(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(tarnbase::TimePoint::now());
    }
}
BENCHMARK(now)->Name("TimePoint::now (at most 1.10)/vesk");

void bareNow(benchmark::State& state) {
    for (auto _ : state) {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        benchmark::DoNotOptimize(time);
    }
}
BENCHMARK(bareNow)->Name("TimePoint::now (at most 1.10)/bare");

void timestamp(benchmark::State& state) {
    for (auto _ : state) {
        long long ms = 0;
        benchmark::DoNotOptimize(vesk::Time::getTimestamp(ms));
        benchmark::DoNotOptimize(ms);
    }
}
BENCHMARK(timestamp)->Name("Time::getTimestamp/vesk");

void bareTimestamp(benchmark::State& state) {
    for (auto _ : state) {
        timespec time;
        clock_gettime(CLOCK_REALTIME, &time);
        benchmark::DoNotOptimize(time);
    }
}
BENCHMARK(bareTimestamp)->Name("Time::getTimestamp/bare");

void stopWatch(benchmark::State& state) {
    vesk::RealtimeStopWatch watch(false);
    for (auto _ : state) {
        watch.start();
        watch.stop();
    }
    benchmark::DoNotOptimize(watch.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
}
BENCHMARK(stopWatch)->Name("Stopwatch start and stop/vesk");

void bareStopWatch(benchmark::State& state) {
    long long sum = 0;
    for (auto _ : state) {
        timespec start;
        timespec end;
        clock_gettime(CLOCK_MONOTONIC, &start);
        clock_gettime(CLOCK_MONOTONIC, &end);
        sum += static_cast<long long>(end.tv_sec - start.tv_sec) * 1000000000 + end.tv_nsec - start.tv_nsec;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(bareStopWatch)->Name("Stopwatch start and stop/bare");

} // namespace
