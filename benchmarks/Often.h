#pragma once

#include <benchmark/benchmark.h>

/// For rows whose system calls scatter by far more than what the library adds to them: many short repetitions, in random order
/// with those of the twin, have a median that tells.
inline void often(benchmark::internal::Benchmark* row) {
    row->Repetitions(99)->MinTime(0.01);
}
