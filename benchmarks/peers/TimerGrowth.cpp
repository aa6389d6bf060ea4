#include "../TimerBenchmark.cpp"

namespace {

void pendingTimers(benchmark::internal::Benchmark* row) {
    row->RangeMultiplier(10)->Range(10, 100000);
}
BENCHMARK(startStopVesk)->Name("Growth: timer start plus stop, by timers pending/vesk")->Apply(pendingTimers);
BENCHMARK(startStopByHand)
    ->Name("Growth: timer start plus stop, by timers pending/bare")
    ->Apply(pendingTimers);

} // namespace
