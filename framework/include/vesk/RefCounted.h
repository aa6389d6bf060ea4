#pragma once

#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/common/AbortingLock.h>

#include <common/MemoryPool.h>

#include <atomic>
#include <cstdint>

namespace vesk {

/// Base of small handles whose copies share what they stand for: the last copy to go frees it.
///
///     class Door final : public vesk::RefCounted {
///     public:
///         explicit Door(int fd) : m_fd(fd) {}
///         Door(Door const&) = default;
///         Door& operator=(Door const&) = default;
///         ~Door() override { decrement(); }
///
///     private:
///         int destroy() override { close(m_fd); return 0; }
///
///         int m_fd;
///     };
///
/// `decrement()` belongs into the destructor of the class that has `destroy()`, exactly once: in the base's destructor
/// the derived object would be gone already.
///
/// Handles of the same thing may be copied and destroyed by different threads at once; one handle belongs to one thread at
/// a time. The counts come from one pool of the process with room for 1,024 of them, which grows beyond that and
/// shrinks again: a copy costs one atomic increment and never allocates, blocks or fails. Making a handle that is no copy,
/// and ending the last one, may take the pool's lock, a leaf that nothing is called under. Handles may be global objects
/// of any library or program.
///
/// Should there be no memory for a count, the handle does without: it and its copies work, but nobody can tell which of
/// them is the last, so `destroy()` is never called for them.
class VESK_API RefCounted {
public:
    virtual ~RefCounted() = default;

protected:
    using CounterPool = std::MemoryPool<std::UsePoolOnDepletion, Mutex, std::FakeCondition>;
    using Counter = std::atomic<int32_t>;

    /// Takes a count of its own, 1. The first one of the process builds the pool, which may throw `std::bad_alloc`; the
    /// next one then tries again.
    VESK_API_INLINE RefCounted() : counter(nullptr) {
        void* item = takeSpare();
        if (__builtin_expect(item == nullptr, 0)) {
            item = takeFromPool();
        }
        if (item != nullptr) {
            counter = new (item) Counter(1);
        }
    }

    /// Shares the count of `other`.
    VESK_API_INLINE RefCounted(RefCounted const& other) noexcept : counter(other.counter) {
        if (counter != nullptr) {
            counter->fetch_add(1);
        }
    }

    /// Lets go of what the handle stands for, with `destroy()` if it was the last, and shares the count of `other`. The
    /// derived class copies its own fields afterwards, as a defaulted assignment does. Two handles of the same thing, or
    /// a handle and itself, stay as they are.
    RefCounted& operator=(RefCounted const& other) { // NOLINT(bugprone-unhandled-self-assignment)
        if (counter != other.counter) {
            Counter* const shared = other.counter;
            if (shared != nullptr) {
                shared->fetch_add(1);
            }
            decrement();
            counter = shared;
        }
        return *this;
    }

    /// Lets go of the count; the last one to do so frees what the handles share. Call it once for each handle, from the
    /// derived class's destructor.
    VESK_API_INLINE void decrement() {
        if (counter != nullptr && counter->fetch_sub(1) == 1) {
            endLast();
        }
    }

    /// Frees what the handles share. Called once, for the last of them, by the thread that ends it.
    /// @return 0; nobody looks at it
    virtual int destroy() = 0;

    /// Null if there was no memory for a count.
    Counter* counter;

    /// Guards the building of the pool.
    static Mutex s_init_lock;
    /// 0 until the pool has been made.
    static std::atomic<int32_t> s_init_counter;
    /// The counts of the process. The end of the process does not free them: handles may outlive every other object.
    static std::atomic<CounterPool*> s_counter_pool;

private:
    class PoolEnd;

    static void doInit();

    /// The pool, built if this is its first use.
    static CounterPool* checkInit() {
        CounterPool* pool = s_counter_pool.load(std::memory_order_acquire);
        if (__builtin_expect(pool != nullptr, 1)) {
            return pool;
        }
        AbortingLock<Mutex> const lock(s_init_lock, "framework/include/vesk/RefCounted", "checkInit");
        int32_t expected = 0;
        if (s_init_counter.compare_exchange_strong(expected, 1)) {
            doInit();
        }
        return s_counter_pool.load(std::memory_order_acquire);
    }

    /// The item of the pool's own block that was given back last stays out of the free stack: a handle that is made and
    /// ended in passing costs no lock.
    static void* takeSpare() noexcept {
        return s_spare.load(std::memory_order_relaxed) != nullptr
            ? s_spare.exchange(nullptr, std::memory_order_acquire)
            : nullptr;
    }

    static void* takeFromPool();
    void endLast();

    static std::atomic<void*> s_spare;
    static PoolEnd const s_pool_end;
};

} // namespace vesk
