#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>

/// Scales a number of repetitions by the percentage in `VESK_BENCH_PERCENT` (default: 100). The result is at
/// least 3, so that it has a median.
inline int scaled(int repetitions) {
    char const* const text = getenv("VESK_BENCH_PERCENT");
    return text == nullptr ? repetitions : std::max(3, repetitions * atoi(text) / 100);
}

/// Configures a row in which the variance of the system calls is far larger than the library's overhead. Many
/// short repetitions, interleaved at random with those of the twin, give a meaningful median.
inline void often(benchmark::internal::Benchmark* row) {
    row->Repetitions(scaled(99))->MinTime(0.01);
}
