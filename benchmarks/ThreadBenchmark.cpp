#include <vesk/Thread.h>

#include <benchmark/benchmark.h>

#include <pthread.h>

namespace {

void doNothing(void*) {}

void makeStartJoin(benchmark::State& state) {
    for (auto _ : state) {
        vesk::Thread thread(doNothing, nullptr);
        benchmark::DoNotOptimize(thread.start());
        benchmark::DoNotOptimize(thread.join());
    }
}
BENCHMARK(makeStartJoin)->Name("Thread made, started, joined (at most 1.25)/vesk")->UseRealTime();

/// The state that a delayed start needs without the library.
struct Handoff {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    bool started = false;
};

void* waitForStart(void* argument) {
    auto& handoff = *static_cast<Handoff*>(argument);
    pthread_mutex_lock(&handoff.mutex);
    while (!handoff.started) {
        pthread_cond_wait(&handoff.condition, &handoff.mutex);
    }
    pthread_mutex_unlock(&handoff.mutex);
    return nullptr;
}

void bareMakeStartJoin(benchmark::State& state) {
    for (auto _ : state) {
        Handoff handoff;
        pthread_t thread;
        pthread_create(&thread, nullptr, waitForStart, &handoff);
        pthread_mutex_lock(&handoff.mutex);
        handoff.started = true;
        pthread_cond_signal(&handoff.condition);
        pthread_mutex_unlock(&handoff.mutex);
        pthread_join(thread, nullptr);
    }
}
BENCHMARK(bareMakeStartJoin)->Name("Thread made, started, joined (at most 1.25)/bare")->UseRealTime();

} // namespace
