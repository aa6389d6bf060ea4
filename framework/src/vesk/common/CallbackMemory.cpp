#include <vesk/Message.h>

#include <tarncommon/Export.h>

#include <array>
#include <atomic>
#include <new>
#include <pthread.h>
#include <utility>

/// The memory of `Message::Callback`. A producer creates these messages and the thread of a dispatcher deletes them: the
/// heap is slow at that, because both threads need the lock of the same arena. Here full chunks of free blocks move
/// from one thread to the other through a depot, by one atomic operation for each chunk.
///
/// Every block comes from the global `operator new`, so code that was compiled without the operators of this class may
/// delete it, and the other way round.

namespace vesk {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool IS_ON = false;
#else
constexpr bool IS_ON = true;
#endif

struct Block {
    Block* next;
};

constexpr unsigned int CHUNK = 32;

/// Full chunks, which belong to no thread.
class Depot {
public:
    /// Returns null if there is none.
    Block* take() noexcept {
        if (m_count.load(std::memory_order_relaxed) == 0) {
            return nullptr;
        }
        for (std::atomic<Block*>& place : m_places) {
            if (place.load(std::memory_order_relaxed) == nullptr) {
                continue;
            }
            // The exchange gives each chunk to one thread only. Acquire: makes visible the links between its blocks.
            if (Block* const chunk = place.exchange(nullptr, std::memory_order_acquire)) {
                m_count.fetch_sub(1, std::memory_order_relaxed);
                return chunk;
            }
        }
        return nullptr; // LCOV_EXCL_LINE: only if other threads take all chunks meanwhile
    }

    /// Returns false if there is no place for it.
    bool put(Block* chunk) noexcept {
        // Counts before the chunk is there: the count is never negative.
        if (m_count.fetch_add(1, std::memory_order_relaxed) < PLACES) {
            for (std::atomic<Block*>& place : m_places) {
                Block* expected = nullptr;
                if (place.load(std::memory_order_relaxed) == nullptr &&
                    place.compare_exchange_strong(
                        expected, chunk, std::memory_order_release, std::memory_order_relaxed)) {
                    return true;
                }
            }
        }
        m_count.fetch_sub(1, std::memory_order_relaxed);
        return false;
    }

private:
    static constexpr unsigned int PLACES = 32;

    std::array<std::atomic<Block*>, PLACES> m_places{};
    std::atomic<unsigned int> m_count{0};
};

TARN_CONSTANT_INIT Depot s_depot;

void freeAll(Block* first) noexcept {
    while (first != nullptr) {
        ::operator delete(std::exchange(first, first->next));
    }
}

/// The free blocks of a thread. All caches form a list, in which the library finds those of the threads that still run
/// when it is unloaded.
struct Cache {
    enum State : unsigned char { NEW, OBSERVED, ENDED };

    Block* first;
    Block* full; // A chunk, or null.
    Cache* next;
    Cache* previous;
    unsigned char count; // Of the blocks from `first` on.
    State state;

    /// Returns null if neither the thread nor the depot has a block.
    void* pop() noexcept {
        if (first == nullptr) {
            first = full != nullptr ? std::exchange(full, nullptr) : s_depot.take();
            if (first == nullptr) {
                return nullptr;
            }
            count = CHUNK;
        }
        --count;
        return std::exchange(first, first->next);
    }

    void push(void* block) noexcept {
        first = new (block) Block{first};
        if (++count < CHUNK) {
            return;
        }
        if (full != nullptr && !s_depot.put(full)) {
            freeAll(full);
        }
        full = std::exchange(first, nullptr);
        count = 0;
    }

    void clear() noexcept {
        freeAll(std::exchange(first, nullptr));
        freeAll(std::exchange(full, nullptr));
        count = 0;
    }
};

// In the static block of the thread, as the spare counts of handles are.
TARN_CONSTANT_INIT thread_local Cache t_cache
    __attribute__((tls_model(TARN_TLS_MODEL))) = {nullptr, nullptr, nullptr, nullptr, 0, Cache::NEW};

/// Observes the ends of threads, and frees the blocks when the library is unloaded.
class Caches {
public:
    Caches() noexcept : m_has_key(pthread_key_create(&m_key, endThread) == 0) {}
    ~Caches();

    bool observe() noexcept;

private:
    static void endThread(void* cache) noexcept;
    void remove(Cache& cache) noexcept;

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_key_t m_key{};
    bool m_has_key;
    Cache* m_first = nullptr;
};

// Destroyed after the objects of the library that may have messages.
__attribute__((init_priority(101))) Caches s_caches;

/// Makes the calling thread one that keeps blocks. Returns false if it must not: its end cannot be observed, or is under
/// way. Does not wait for the lock, which a child of `fork` may find locked forever.
bool Caches::observe() noexcept {
    if (t_cache.state == Cache::ENDED || !m_has_key || pthread_mutex_trylock(&m_mutex) != 0) {
        return false; // LCOV_EXCL_LINE: only while another thread begins or ends
    }
    bool const is_observed = pthread_setspecific(m_key, &t_cache) == 0;
    if (is_observed) {
        t_cache.state = Cache::OBSERVED;
        t_cache.next = m_first;
        if (m_first != nullptr) {
            m_first->previous = &t_cache;
        }
        m_first = &t_cache;
    }
    pthread_mutex_unlock(&m_mutex);
    return is_observed;
}

void Caches::endThread(void* /*cache*/) noexcept {
    t_cache.state = Cache::ENDED;
    s_caches.remove(t_cache);
    t_cache.clear();
}

void Caches::remove(Cache& cache) noexcept {
    pthread_mutex_lock(&m_mutex);
    (cache.previous != nullptr ? cache.previous->next : m_first) = cache.next;
    if (cache.next != nullptr) {
        cache.next->previous = cache.previous;
    }
    pthread_mutex_unlock(&m_mutex);
}

Caches::~Caches() {
    if (m_has_key) {
        pthread_key_delete(m_key);
        m_has_key = false;
    }
    for (Cache* cache = m_first; cache != nullptr; cache = cache->next) {
        cache->state = Cache::ENDED;
        cache->clear();
    }
    while (Block* const chunk = s_depot.take()) {
        freeAll(chunk); // LCOV_EXCL_LINE: only in a program that unloads the library
    }
}

/// Returns whether the calling thread keeps blocks.
bool keepsBlocks() noexcept {
    return t_cache.state == Cache::OBSERVED || s_caches.observe();
}

/// Returns a kept block, or null.
void* reuse(size_t size) noexcept {
    return IS_ON && size == sizeof(Message::Callback) && keepsBlocks() ? t_cache.pop() : nullptr;
}

} // namespace

void* Message::Callback::operator new(size_t size) {
    void* const block = reuse(size);
    return block != nullptr ? block : ::operator new(size);
}

void* Message::Callback::operator new(size_t size, std::nothrow_t const& nothrow) noexcept {
    void* const block = reuse(size);
    return block != nullptr ? block : ::operator new(size, nothrow);
}

void* Message::Callback::operator new(size_t size, std::align_val_t alignment) {
    return ::operator new(size, alignment);
}

void Message::Callback::operator delete(void* block, size_t size) noexcept {
    if (IS_ON && block != nullptr && size == sizeof(Callback) && keepsBlocks()) {
        t_cache.push(block);
    } else {
        ::operator delete(block);
    }
}

void Message::Callback::operator delete(void* block, std::nothrow_t const& nothrow) noexcept {
    ::operator delete(block, nothrow);
}

void Message::Callback::operator delete(void* block, size_t /*size*/, std::align_val_t alignment) noexcept {
    ::operator delete(block, alignment);
}

} // namespace vesk
