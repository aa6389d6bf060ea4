#pragma once

#include <benchmark/benchmark.h>

/// Configures a row with system calls that scatter by far more than the cost of the library. Many short
/// repetitions, interleaved at random with those of the twin, give a stable median.
inline void often(benchmark::internal::Benchmark* row) {
    row->Repetitions(99)->MinTime(0.01);
}
