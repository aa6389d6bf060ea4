#include "../ErrorBenchmark.cpp"

namespace {

void reportChain(benchmark::State& state) {
    for (auto _ : state) {
        for (auto i = state.range(0); i > 0; --i) {
            std::ErrorOutput("framework/src/vesk/posix/Mutex", __LINE__, i == state.range(0))(
                vesk::Mutex::ErrorId::LOCK_FAILED, ARGUMENT);
        }
        std::ErrorStorage::ack();
    }
}

void formatChain(benchmark::State& state) {
    static char texts[32][512];
    for (auto _ : state) {
        for (auto i = state.range(0); i > 0; --i) {
            snprintf(texts[i - 1], sizeof texts[0], "Mutex lock failed: %s", ARGUMENT);
        }
        benchmark::DoNotOptimize(texts);
        benchmark::ClobberMemory();
    }
}

void reports(benchmark::internal::Benchmark* row) {
    row->RangeMultiplier(2)->Range(1, 32);
}
BENCHMARK(reportChain)->Name("Growth: error chain made and acknowledged, by reports/vesk")->Apply(reports);
BENCHMARK(formatChain)->Name("Growth: error chain made and acknowledged, by reports/bare")->Apply(reports);

} // namespace
