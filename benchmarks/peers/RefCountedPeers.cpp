#include "../RefCountedBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/SharedPtr.h>
#endif

namespace {

template <typename Make>
void makeAndDrop(benchmark::State& state, Make make) {
    for (auto _ : state) {
        auto const counted = make();
        benchmark::DoNotOptimize(counted);
    }
}

template <typename Pointer>
void copyAndDrop(benchmark::State& state, Pointer const& pointer) {
    for (auto _ : state) {
        Pointer copy(pointer);
        benchmark::DoNotOptimize(copy);
    }
}

#ifdef VESK_PEER_BOOST
void boostCreate(benchmark::State& state) {
    makeAndDrop(state, [] { return boost::make_shared<int>(1); });
}
void boostCopy(benchmark::State& state) {
    copyAndDrop(state, boost::make_shared<int>(1));
}
BENCHMARK(boostCreate)->Name("RefCounted create and destroy/boost");
BENCHMARK(boostCopy)->Name("RefCounted handle copy/boost");
#endif

#ifdef VESK_PEER_POCO
void pocoCreate(benchmark::State& state) {
    makeAndDrop(state, [] { return Poco::makeShared<int>(1); });
}
void pocoCopy(benchmark::State& state) {
    copyAndDrop(state, Poco::makeShared<int>(1));
}
BENCHMARK(pocoCreate)->Name("RefCounted create and destroy/poco");
BENCHMARK(pocoCopy)->Name("RefCounted handle copy/poco");
#endif

#ifdef VESK_PEER_GLIB
void glibCreate(benchmark::State& state) {
    for (auto _ : state) {
        void* const box = g_atomic_rc_box_alloc0(sizeof(int));
        benchmark::DoNotOptimize(box);
        g_atomic_rc_box_release(box);
    }
}
void glibCopy(benchmark::State& state) {
    void* const box = g_atomic_rc_box_alloc0(sizeof(int));
    for (auto _ : state) {
        void* const copy = g_atomic_rc_box_acquire(box);
        benchmark::DoNotOptimize(copy);
        g_atomic_rc_box_release(copy);
    }
    g_atomic_rc_box_release(box);
}
BENCHMARK(glibCreate)->Name("RefCounted create and destroy/glib");
BENCHMARK(glibCopy)->Name("RefCounted handle copy/glib");
#endif

} // namespace
