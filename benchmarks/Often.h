#pragma once

#include <benchmark/benchmark.h>

/// Configures a row in which the variance of the system calls is far larger than the library's overhead. Many
/// short repetitions, interleaved at random with those of the twin, give a meaningful median.
inline void often(benchmark::internal::Benchmark* row) {
    row->Repetitions(99)->MinTime(0.01);
}
