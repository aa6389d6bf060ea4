#include <vesk/RefCounted.h>

#include <tarncommon/Export.h>

#include <pthread.h>

namespace vesk {

namespace {

constexpr unsigned int COUNTERS = 1024;
/// The number of threads that may have spare items at the same time, and how many of them.
constexpr unsigned int SPARE_THREADS = 64;
constexpr unsigned int SPARES_OF_THREAD = 8;
constexpr unsigned int SPARES = SPARE_THREADS * SPARES_OF_THREAD;

/// The items of the pool's own block that the thread released last. Each contains the address of the next.
struct Spares {
    void* first;
    unsigned char count;
    bool allowed; ///< The thread is one of the `SPARE_THREADS`.

    void* pop() noexcept {
        void* const item = first;
        first = *static_cast<void**>(item);
        --count;
        return item;
    }
    void push(void* item) noexcept {
        first = new (item) void*(first);
        ++count;
    }
};

// In the static block of the thread: a few bytes, which the loader has room for even when the library is loaded
// at run time. Any other model calls the loader for the address.
TARN_CONSTANT_INIT thread_local Spares t_spares
    __attribute__((tls_model(TARN_TLS_MODEL))) = {nullptr, 0, false};

constexpr pthread_key_t NO_KEY = ~pthread_key_t{0};

/// Calls `PoolEnd::endThread` at the end of each thread that may have spares.
TARN_CONSTANT_INIT std::atomic<pthread_key_t> s_key{NO_KEY};
TARN_CONSTANT_INIT std::atomic<unsigned int> s_spare_threads{0};

/// Stops observing the ends of threads. Deleting the key keeps the C library from calling code that is
/// unloaded. Runs at the end of the process too: the program may still unload the library then.
__attribute__((destructor)) void forgetThreads() noexcept {
    pthread_key_t const key = s_key.exchange(NO_KEY);
    if (key != NO_KEY) {
        pthread_key_delete(key);
    }
}

/// Makes the calling thread one of those that may have spares. Returns false if there are too many of them,
/// or if the end of the thread cannot be observed.
bool allowSpares() noexcept {
    pthread_key_t const key = s_key.load(std::memory_order_relaxed);
    if (key == NO_KEY || s_spare_threads.load(std::memory_order_relaxed) >= SPARE_THREADS) {
        return false;
    }
    if (s_spare_threads.fetch_add(1) >= SPARE_THREADS || pthread_setspecific(key, &t_spares) != 0) {
        s_spare_threads.fetch_sub(1); // LCOV_EXCL_LINE: only if two threads take the last place
        return false;
    }
    t_spares.allowed = true;
    return true;
}

/// Items that replace those that other threads have as spares. They are used when all others are and the pool
/// cannot grow: 1,024 handles have a count, wherever the spares are. Guarded by the lock of the pool.
class Reserve {
public:
    /// Returns null if as many items are in use as other threads may have spares.
    void* get() noexcept {
        unsigned int const threads = s_spare_threads.load(std::memory_order_relaxed);
        unsigned int const others = (threads - (t_spares.allowed ? 1 : 0)) * SPARES_OF_THREAD;
        for (unsigned int i = 0; i < SPARES && m_used_count < others; ++i) {
            if (!m_used[i]) {
                m_used[i] = true;
                ++m_used_count;
                return &m_items[i];
            }
        }
        return nullptr;
    }

    bool contains(void const* item) const noexcept {
        return !std::less<void const*>()(item, m_items) && std::less<void const*>()(item, m_items + SPARES);
    }

    void put(void* item) noexcept {
        m_used[static_cast<void**>(item) - m_items] = false;
        --m_used_count;
    }

private:
    void* m_items[SPARES] = {};
    bool m_used[SPARES] = {};
    unsigned int m_used_count = 0;
};

TARN_CONSTANT_INIT Reserve s_reserve;

} // namespace

TARN_CONSTANT_INIT Mutex RefCounted::s_init_lock(threadsafe::ConstantInit{TARN_LOCK_NAME(COUNTERS)});
TARN_CONSTANT_INIT std::atomic<int32_t> RefCounted::s_init_counter{0};
TARN_CONSTANT_INIT std::atomic<RefCounted::CounterPool*> RefCounted::s_counter_pool{nullptr};
TARN_CONSTANT_INIT std::atomic<void*> RefCounted::s_spare{nullptr};

/// Owner of the pool, which it frees when the library is unloaded. Its priority makes it the last static
/// object to be destroyed, after the handles that are static objects of the library.
class TARN_HIDDEN RefCounted::PoolEnd {
public:
    PoolEnd() noexcept = default;
    ~PoolEnd() {
        forgetThreads();
        delete s_counter_pool.load(std::memory_order_acquire);
    }

    /// Takes an item of the pool under its lock.
    static void* take();
    /// Puts an item back under the lock of the pool.
    static void put(void* item);
    /// Puts back the spares of a thread that ends.
    static void endThread(void* spares);
};
__attribute__((init_priority(101))) RefCounted::PoolEnd const RefCounted::s_pool_end;

void RefCounted::doInit() {
    try {
        s_counter_pool.store(new CounterPool(sizeof(Counter), COUNTERS), std::memory_order_release);
    } catch (...) {
        s_init_counter.store(0);
        throw;
    }
    pthread_key_t key{};
    if (pthread_key_create(&key, PoolEnd::endThread) == 0) {
        s_key.store(key);
    }
}

void* RefCounted::PoolEnd::take() {
    CounterPool* const pool = checkInit();
    if (pool == nullptr) {
        return nullptr; // LCOV_EXCL_LINE: only during the first use in another thread
    }
    CounterPool::LockGuard const guard(*pool);
    if (void* const item = pool->getFreeStack().pop()) {
        return item;
    }
    void* const item = pool->getDepletion().getHelp();
    return item != nullptr ? item : s_reserve.get();
}

void RefCounted::PoolEnd::put(void* item) {
    CounterPool* const pool = s_counter_pool.load(std::memory_order_acquire);
    if (s_reserve.contains(item)) {
        CounterPool::LockGuard const guard(*pool);
        s_reserve.put(item);
    } else {
        pool->thankYou(item);
    }
}

void RefCounted::PoolEnd::endThread(void* /*spares*/) {
    while (t_spares.first != nullptr) {
        put(t_spares.pop());
    }
    t_spares.allowed = false;
    s_spare_threads.fetch_sub(1);
}

void* RefCounted::takeFromPool() {
    return __builtin_expect(t_spares.first == nullptr, 0) ? PoolEnd::take() : t_spares.pop();
}

void RefCounted::endLast() {
    counter->store(0, std::memory_order_relaxed);
    destroy();
    bool const keeps = t_spares.count < SPARES_OF_THREAD &&
        s_counter_pool.load(std::memory_order_acquire)->contains(counter) &&
        (t_spares.allowed || allowSpares());
    if (keeps) {
        t_spares.push(counter);
    } else {
        PoolEnd::put(counter);
    }
    counter = nullptr;
}

} // namespace vesk
