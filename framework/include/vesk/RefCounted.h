#pragma once

#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/common/AbortingLock.h>

#include <common/MemoryPool.h>

#include <atomic>
#include <cstdint>

namespace vesk {

/// Base of small handles with copies that share a resource: the destruction of the last copy frees it.
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
/// The destructor of the class that defines `destroy()` must call `decrement()` exactly once: in the
/// destructor of the base the derived object no longer exists.
///
/// Handles of the same resource may be copied and destroyed by different threads concurrently; a single
/// handle belongs to one thread at a time. The counts come from one pool of the process with space for 1,024
/// of them, which grows beyond that and shrinks again. A copy costs one atomic increment and never allocates,
/// blocks or fails. Creating a handle that is not a copy, and destroying the last handle of a resource, may
/// take the pool's lock, a leaf lock: no other lock of the library is taken under it. Up to 64 threads keep
/// the eight counts that they released last for their next handles, and need no lock for temporary handles.
/// Handles may be global objects of any library or program.
///
/// If there is no memory for a count, the handle has none. It and its copies work, but the last of them
/// cannot be determined, so `destroy()` is never called for them.
class VESK_API RefCounted {
public:
    virtual ~RefCounted() = default;

protected:
    using CounterPool = std::MemoryPool<std::UsePoolOnDepletion, Mutex, std::FakeCondition>;
    using Counter = std::atomic<int32_t>;

    /// Takes a new count, 1. The first handle of the process creates the pool, which may throw
    /// `std::bad_alloc`. In that case the next handle tries again.
    VESK_API_INLINE RefCounted() : counter(nullptr) {
        void* const item = takeFromPool();
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

    /// Releases the handle's resource, with `destroy()` if the handle was the last, and shares the count of
    /// `other`. The derived class copies its own fields afterwards, as a defaulted assignment does.
    /// Assignment between handles of the same resource, or of a handle to itself, does not change the count.
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

    /// Releases the count. The last release frees the shared resource. Must be called once for each handle,
    /// from the destructor of the derived class.
    VESK_API_INLINE void decrement() {
        // A count of 1 is this handle's own: no other thread has a handle that it could copy or destroy, so
        // the count cannot change any more. The acquiring load pairs with the decrements of the other handles.
        if (counter != nullptr &&
            (counter->load(std::memory_order_acquire) == 1 || counter->fetch_sub(1) == 1)) {
            endLast();
        }
    }

    /// Frees the shared resource. Called once, for the last handle, by the thread that destroys it.
    /// @return 0; the result is ignored
    virtual int destroy() = 0;

    /// Null if there was no memory for a count.
    Counter* counter;

    /// Guards the creation of the pool.
    static Mutex s_init_lock;
    /// 0 until the pool has been created.
    static std::atomic<int32_t> s_init_counter;
    /// The counts of the process. The end of the process does not free them: handles may outlive every other
    /// object.
    static std::atomic<CounterPool*> s_counter_pool;

private:
    class PoolEnd;

    static void doInit();

    /// Returns the pool, which the first use creates.
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

    /// Takes an item: a spare of the thread, or one of the pool.
    static void* takeFromPool();
    void endLast();

    /// Always null. Programs that were compiled with an earlier version look here before `takeFromPool`.
    static std::atomic<void*> s_spare;
    static PoolEnd const s_pool_end;
};

} // namespace vesk
