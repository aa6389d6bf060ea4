#include <vesk/RefCounted.h>

#include <tarncommon/Export.h>

namespace vesk {

namespace {

constexpr unsigned int COUNTERS = 1024;

} // namespace

TARN_CONSTANT_INIT Mutex RefCounted::s_init_lock(threadsafe::CONSTANT_INIT);
TARN_CONSTANT_INIT std::atomic<int32_t> RefCounted::s_init_counter{0};
TARN_CONSTANT_INIT std::atomic<RefCounted::CounterPool*> RefCounted::s_counter_pool{nullptr};
// On a cache line of its own: threads write to it, but only read the data around it.
alignas(64) TARN_CONSTANT_INIT std::atomic<void*> RefCounted::s_spare{nullptr};

/// Owner of the pool, which it frees when the library is unloaded. Its priority makes it the last static
/// object to be destroyed, after the handles that are static objects of the library.
class RefCounted::PoolEnd {
public:
    PoolEnd() noexcept = default;
    ~PoolEnd() { delete s_counter_pool.load(std::memory_order_acquire); }
};
__attribute__((init_priority(101))) RefCounted::PoolEnd const RefCounted::s_pool_end;

void RefCounted::doInit() {
    try {
        s_counter_pool.store(new CounterPool(sizeof(Counter), COUNTERS), std::memory_order_release);
    } catch (...) {
        s_init_counter.store(0);
        throw;
    }
}

void* RefCounted::takeFromPool() {
    CounterPool* const pool = checkInit();
    if (pool == nullptr) {
        return nullptr;
    }
    CounterPool::LockGuard const guard(*pool);
    if (void* const item = pool->getFreeStack().pop()) {
        return item;
    }
    // Another thread may have put a spare back since the first look. If not, all counts are in use.
    if (void* const item = takeSpare()) {
        return item;
    }
    return pool->getDepletion().getHelp();
}

void RefCounted::endLast() {
    destroy();
    CounterPool* const pool = s_counter_pool.load(std::memory_order_acquire);
    void* expected = nullptr;
    bool const spared = pool->contains(counter) && s_spare.load(std::memory_order_relaxed) == nullptr &&
        s_spare.compare_exchange_strong(
            expected, counter, std::memory_order_release, std::memory_order_relaxed);
    if (!spared) {
        pool->thankYou(counter);
    }
    counter = nullptr;
}

} // namespace vesk
