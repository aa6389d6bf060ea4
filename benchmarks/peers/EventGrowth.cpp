#include "../EventBenchmark.cpp"

#include <sys/resource.h>

namespace {

// ---- Backlog ----

void postTo(VeskLoop& loop, void (*function)(void*), void* argument) {
    loop.queue.push(new vesk::Message::Callback(function, argument));
}

void postTo(BareLoop& loop, void (*function)(void*), void* argument) {
    loop.push(new BareLoop::Job(function, argument));
}

/// Ends the loop with the last job of the backlog.
template <typename Loop>
struct Backlog {
    static void count(void* backlog) {
        auto& self = *static_cast<Backlog*>(backlog);
        if (--self.left == 0) {
            self.loop.end();
        }
    }

    Loop& loop;
    benchmark::IterationCount left;
};

/// Posts all jobs of a backlog, then delivers them, in one thread.
template <typename Loop>
void deliverBacklog(benchmark::State& state) {
    Loop loop;
    Backlog<Loop> backlog{loop, 0};
    for (auto _ : state) {
        backlog.left = state.range(0);
        for (auto i = state.range(0); i > 0; --i) {
            postTo(loop, Backlog<Loop>::count, &backlog);
        }
        loop.run();
    }
}

void backlogs(benchmark::internal::Benchmark* row) {
    row->RangeMultiplier(10)->Range(1, 1000000);
}
BENCHMARK(deliverBacklog<VeskLoop>)
    ->Name("Growth: dispatcher backlog posted and delivered, by messages/vesk")
    ->Apply(backlogs);
BENCHMARK(deliverBacklog<BareLoop>)
    ->Name("Growth: dispatcher backlog posted and delivered, by messages/bare")
    ->Apply(backlogs);

// ---- Descriptors ----

/// Raises the limit of open descriptors: each pair needs two.
bool const s_raised = [] {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}();

void descriptors(benchmark::internal::Benchmark* row) {
    row->Arg(2)->Arg(10)->Arg(100)->Arg(1000);
}
BENCHMARK(cycle)->Name("Growth: poller cycle, by descriptors/vesk")->Apply(descriptors);
BENCHMARK(bareCycle)->Name("Growth: poller cycle, by descriptors/bare")->Apply(descriptors);

} // namespace
