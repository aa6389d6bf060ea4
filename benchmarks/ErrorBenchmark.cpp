#include <vesk/Mutex.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <pthread.h>

namespace {

constexpr char const* ARGUMENT = "Resource deadlock avoided (errno = 35)";

void reportAndAck(benchmark::State& state) {
    for (auto _ : state) {
        std::ErrorOutput("framework/src/vesk/posix/Mutex", __LINE__, true)(
            vesk::Mutex::ErrorId::LOCK_FAILED, ARGUMENT);
        std::ErrorStorage::ack();
    }
}
BENCHMARK(reportAndAck)->Name("Report of a one-argument row and ack (at most 3)/vesk");

void format(benchmark::State& state) {
    char text[512];
    for (auto _ : state) {
        snprintf(text, sizeof text, "Mutex lock failed: %s", ARGUMENT);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(format)->Name("Report of a one-argument row and ack (at most 3)/bare");

void failedUnlock(benchmark::State& state) {
    vesk::Mutex const mutex;
    for (auto _ : state) {
        benchmark::DoNotOptimize(mutex.unlock());
        std::ErrorStorage::ack();
    }
}
BENCHMARK(failedUnlock)->Name("Failed unlock with its report and ack/vesk");

void bareFailedUnlock(benchmark::State& state) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    char text[512];
    for (auto _ : state) {
        char buffer[256];
        int const error = pthread_mutex_unlock(&mutex);
        snprintf(
            text, sizeof text, "Mutex inconsistency detected: %s (errno = %d)",
            strerror_r(error, buffer, sizeof buffer), error);
        benchmark::DoNotOptimize(text);
    }
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
}
BENCHMARK(bareFailedUnlock)->Name("Failed unlock with its report and ack/bare");

} // namespace
