#include "../ThreadBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/thread/thread.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/Thread.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_thread_proc.h>
#endif

namespace {

#define PEER_THREAD(function, peer)                                                                          \
    BENCHMARK(function)->Name("Thread created and joined/" peer)->UseRealTime()

PEER_THREAD(makeStartJoin, "vesk");

void* returnAtOnce(void*) {
    return nullptr;
}

void createAndJoin(benchmark::State& state) {
    for (auto _ : state) {
        pthread_t thread;
        benchmark::DoNotOptimize(pthread_create(&thread, nullptr, returnAtOnce, nullptr));
        benchmark::DoNotOptimize(pthread_join(thread, nullptr));
    }
}
PEER_THREAD(createAndJoin, "bare");

#ifdef VESK_PEER_BOOST
void boostThread(benchmark::State& state) {
    for (auto _ : state) {
        boost::thread thread(doNothing, nullptr);
        thread.join();
    }
}
PEER_THREAD(boostThread, "boost");
#endif

#ifdef VESK_PEER_POCO
void pocoThread(benchmark::State& state) {
    for (auto _ : state) {
        Poco::Thread thread;
        thread.start(doNothing, nullptr);
        thread.join();
    }
}
PEER_THREAD(pocoThread, "poco");
#endif

#ifdef VESK_PEER_GLIB
void glibThread(benchmark::State& state) {
    for (auto _ : state) {
        g_thread_join(g_thread_new(nullptr, returnAtOnce, nullptr));
    }
}
PEER_THREAD(glibThread, "glib");
#endif

#ifdef VESK_PEER_UV
void uvThread(benchmark::State& state) {
    for (auto _ : state) {
        uv_thread_t thread;
        benchmark::DoNotOptimize(uv_thread_create(&thread, doNothing, nullptr));
        benchmark::DoNotOptimize(uv_thread_join(&thread));
    }
}
PEER_THREAD(uvThread, "uv");
#endif

#ifdef VESK_PEER_APR
void* returnToApr(apr_thread_t* thread, void*) {
    apr_thread_exit(thread, APR_SUCCESS);
    return nullptr;
}

void aprThread(benchmark::State& state) {
    AprPool const pool;
    for (auto _ : state) {
        apr_thread_t* thread = nullptr;
        benchmark::DoNotOptimize(apr_thread_create(&thread, nullptr, returnToApr, nullptr, pool.raw));
        apr_status_t result = 0;
        benchmark::DoNotOptimize(apr_thread_join(&result, thread));
        apr_pool_clear(pool.raw);
    }
}
PEER_THREAD(aprThread, "apr");
#endif

} // namespace
