#include <common/Shared.h>
#include <vesk/RefCounted.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

/// A second thread for the whole run. libc and libstdc++ omit atomic operations in a single-threaded process,
/// but users of this library have several threads.
class Company {
public:
    Company()
        : m_thread([this] {
              std::unique_lock<std::mutex> lock(m_mutex);
              m_condition.wait(lock, [this] { return m_end; });
          }) {}
    ~Company() {
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            m_end = true;
        }
        m_condition.notify_one();
        m_thread.join();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_end = false;
    std::thread m_thread;
} company;

class Handle final : public vesk::RefCounted {
public:
    Handle() = default;
    Handle(Handle const&) = default;
    ~Handle() override { decrement(); }

private:
    int destroy() override { return 0; }
};

void copyHandle(benchmark::State& state) {
    Handle const handle;
    for (auto _ : state) {
        Handle copy(handle);
        benchmark::DoNotOptimize(copy);
    }
}

void copySharedPtr(benchmark::State& state) {
    auto const pointer = std::make_shared<int>(1);
    for (auto _ : state) {
        std::shared_ptr<int> copy(pointer);
        benchmark::DoNotOptimize(copy);
    }
}

void createHandle(benchmark::State& state) {
    for (auto _ : state) {
        Handle handle;
        benchmark::DoNotOptimize(handle);
    }
}

void createCounter(benchmark::State& state) {
    for (auto _ : state) {
        auto* counter = new std::atomic<int>(1);
        benchmark::DoNotOptimize(counter);
        delete counter;
    }
}

/// As many bytes as a `Handle`.
struct Counted {
    virtual ~Counted() = default;
    std::atomic<int> count{1};
};

/// Allocates some objects, and deletes them in the same order.
template <typename Object>
void allocate(benchmark::State& state) {
    std::vector<Object*> objects(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        for (Object*& object : objects) {
            object = new Object;
            benchmark::DoNotOptimize(object);
        }
        for (Object* const object : objects) {
            delete object;
        }
    }
}

void copyPtr(benchmark::State& state) {
    static std::Shared<int> shared;
    std::SharedBase::Ptr<int> const pointer(shared);
    for (auto _ : state) {
        std::SharedBase::Ptr<int> copy(pointer);
        benchmark::DoNotOptimize(copy);
    }
}

void countUnderMutex(benchmark::State& state) {
    static std::mutex mutex;
    static int count = 1;
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            ++count;
            benchmark::DoNotOptimize(count);
        }
        {
            std::lock_guard<std::mutex> const lock(mutex);
            --count;
            benchmark::DoNotOptimize(count);
        }
    }
}

BENCHMARK(copyHandle)->Name("RefCounted handle copy (at most 1.0)/vesk");
BENCHMARK(copySharedPtr)->Name("RefCounted handle copy (at most 1.0)/bare");
BENCHMARK(createHandle)->Name("RefCounted create and destroy (at most 1.0)/vesk");
BENCHMARK(createCounter)->Name("RefCounted create and destroy (at most 1.0)/bare");
BENCHMARK(allocate<Handle>)->Name("RefCounted handles on the heap (at most 2.0)/vesk")->Arg(1)->Arg(8);
BENCHMARK(allocate<Counted>)->Name("RefCounted handles on the heap (at most 2.0)/bare")->Arg(1)->Arg(8);
BENCHMARK(copyPtr)->Name("Shared::Ptr copy/vesk");
BENCHMARK(countUnderMutex)->Name("Shared::Ptr copy/bare");

} // namespace
