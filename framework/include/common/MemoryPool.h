#pragma once

#include <common/ScopeGuard.h>
#include <common/error/ErrorHelper.h>

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstddef>
#include <functional>
#include <new>

namespace std {

/// A lock that does nothing and always succeeds, for a pool that one thread uses or that another lock guards.
class FakeLock {
public:
    bool lock() const noexcept { return false; }
    signed char tryLock() const noexcept { return 0; }
    signed char tryLockTimeout(long long const&) const noexcept { return 0; }
    bool unlock() const noexcept { return false; }
};

/// A condition that does nothing and always succeeds, for a pool whose callers never wait for an item.
class FakeCondition {
public:
    template <typename Lock>
    bool wait(Lock&) const noexcept {
        return false;
    }
    template <typename Lock, typename Deadline>
    signed char waitTimeout(Lock&, Deadline const&) const noexcept {
        return 0;
    }
    bool signal() const noexcept { return false; }
};

/// The free items of one block, last in first out. It starts full, with the first item of the block at the bottom: the
/// items come from the end of the block downward. Takes no lock.
class FreeStack : private tarnbase::NonCopyable {
public:
    /// Makes room for all items, waiting for memory if need be (`GlobalErrorHandler::doOutOfMem`, "need free stack").
    /// @param init       the block; null trips an assertion and gives a stack that is empty
    /// @param item_size  bytes from one item to the next
    /// @param count      items in the block
    FreeStack(void* init, unsigned int item_size, unsigned int count) {
        if (init == nullptr) {
            GlobalErrorHandler::doAssert(false, "init", SOURCE, __LINE__, "FreeStack", nullptr);
        }
        items = allocateOrWait(
            [count] { return new (nothrow) void*[count]; }, SOURCE, "FreeStack", "need free stack");
        m_size = count;
        m_left = init != nullptr ? count : 0;
        for (unsigned int i = 0; i < m_left; ++i) {
            items[i] = static_cast<unsigned char*>(init) + static_cast<size_t>(i) * item_size;
        }
    }

    ~FreeStack() { delete[] items; }

    /// The item that was given back last, null if none is left.
    void* pop() noexcept { return m_left != 0 ? items[--m_left] : nullptr; }

    /// Takes an item back. On a full stack an assertion trips and the item is dropped.
    void push(void* item) noexcept {
        if (m_left >= m_size) {
            GlobalErrorHandler::doAssert(false, "m_left < m_size", SOURCE, __LINE__, "push", nullptr);
            return;
        }
        items[m_left++] = item;
    }

    /// How many items are free, and how many there are.
    unsigned int getLeft() const noexcept { return m_left; }
    unsigned int getSize() const noexcept { return m_size; }
    bool isFull() const noexcept { return m_left == m_size; }

private:
    static constexpr char const* SOURCE = "framework/include/common/MemoryPool";

    void** items;
    unsigned int m_left;
    unsigned int m_size;
};

/// The policy of a pool that gives null when it is empty.
class NullOnDepletion {
public:
    NullOnDepletion(unsigned int, unsigned int) noexcept {}

    void* getHelp() noexcept { return nullptr; }

    /// No item can come from here: trips an assertion.
    void thankYou(void* ptr) noexcept {
        if (ptr != nullptr) {
            GlobalErrorHandler::doAssert(
                false, "! ptr", "framework/include/common/MemoryPool", __LINE__, "thankYou", nullptr);
        }
    }
};

/// A supply of small items of one size: one block of memory, and a stack of the items in it that are free.
///
///     std::MemoryPool<std::NullOnDepletion, vesk::Mutex, std::FakeCondition> pool(sizeof(Job), 64);
///     if (void* const memory = pool.get()) { ... pool.thankYou(memory); }
///
/// `get` and `thankYou` may be called from any thread when `Lock` is a real lock; they hold it only for a few
/// instructions, unless the depletion policy has to find memory. A lock that cannot be had goes to
/// `GlobalErrorHandler::doAbort` with "error locking".
///
/// @tparam Depletion  what happens when the pool is empty: `NullOnDepletion` or `UsePoolOnDepletion`
/// @tparam Lock       `vesk::Mutex`, or `FakeLock` where no lock is needed
/// @tparam Condition  what a policy waits on; `FakeCondition` for the policies of this file, which never wait
template <typename Depletion, typename Lock, typename Condition>
class MemoryPool : private tarnbase::NonCopyable {
public:
    /// Holds the pool's lock for the length of a scope.
    class LockGuard : public ScopeGuard<Lock const, bool (Lock::*)() const, NoopResultConv> {
    public:
        explicit LockGuard(MemoryPool const& pool)
            : ScopeGuard<Lock const, bool (Lock::*)() const, NoopResultConv>(
                  pool.m_lock, &Lock::unlock, !pool.m_lock.lock()) {
            if (!this->isArmed()) {
                GlobalErrorHandler::doAbort(SOURCE, __LINE__, "LockGuard", "error locking");
            }
        }
    };

    /// Allocates the block. Without memory for it an assertion trips, and the pool is empty from the start.
    /// @param item_size   bytes of an item; a pointer's size is the least. To keep the items aligned pass a multiple of
    ///                    the alignment.
    /// @param item_count  items in the block
    MemoryPool(unsigned int item_size, unsigned int item_count)
        : m_item_size(item_size < sizeof(void*) ? static_cast<unsigned int>(sizeof(void*)) : item_size),
          m_item_count(item_count),
          m_memblock_start(allocateBlock(m_item_size, item_count)),
          m_memblock_end(
              m_memblock_start != nullptr ? m_memblock_start + static_cast<size_t>(m_item_size) * item_count
                                          : nullptr),
          m_depletion(m_item_size, item_count),
          m_free_stack(m_memblock_start, m_item_size, item_count) {
        if (m_memblock_start == nullptr) {
            GlobalErrorHandler::doAssert(false, "m_memblock_start", SOURCE, __LINE__, "MemoryPool", nullptr);
        }
    }

    /// Frees the memory, that of items still in use included.
    ~MemoryPool() { delete[] m_memblock_start; }

    /// An item, with what was in it before. Null if the pool is empty and its policy has none.
    void* get() {
        LockGuard const guard(*this);
        void* const item = m_free_stack.pop();
        return item != nullptr ? item : m_depletion.getHelp();
    }

    /// Takes an item back. Null is ignored. What becomes of an item from elsewhere is the policy's affair; one that is
    /// given back twice may trip an assertion.
    void thankYou(void* item) {
        if (item == nullptr) {
            return;
        }
        LockGuard const guard(*this);
        if (contains(item)) {
            m_free_stack.push(item);
        } else {
            m_depletion.thankYou(item);
        }
    }

    /// Whether an address lies in the pool's own block. Callable from any thread without the lock.
    bool contains(void const* item) const noexcept {
        // Only the function objects order addresses of different blocks.
        return !less<void const*>()(item, m_memblock_start) && less<void const*>()(item, m_memblock_end);
    }

    unsigned int getItemSize() const noexcept { return m_item_size; }
    unsigned int getItemCount() const noexcept { return m_item_count; }

    /// The two places an item comes from. For callers that hold a `LockGuard`.
    FreeStack& getFreeStack() noexcept { return m_free_stack; }
    Depletion& getDepletion() noexcept { return m_depletion; }

private:
    static constexpr char const* SOURCE = "framework/include/common/MemoryPool";

    static unsigned char* allocateBlock(unsigned int item_size, unsigned int item_count) noexcept {
        size_t bytes = 0;
        if (__builtin_mul_overflow(static_cast<size_t>(item_size), item_count, &bytes)) {
            return nullptr;
        }
        return new (nothrow) unsigned char[bytes];
    }

    unsigned int m_item_size;
    unsigned int m_item_count;
    unsigned char* m_memblock_start;
    unsigned char* m_memblock_end;
    Lock m_lock;
    Depletion m_depletion;
    FreeStack m_free_stack;
};

/// The policy of a pool that falls back on further pools: each new one holds twice as many items as the one before, and
/// goes away when all of its items are back. It works under the lock of the pool that it serves.
class UsePoolOnDepletion : private tarnbase::NonCopyable {
public:
    using Pool = MemoryPool<NullOnDepletion, FakeLock, FakeCondition>;

    /// @param item_size   the served pool's
    /// @param item_count  the served pool's; the first further pool holds twice as many
    UsePoolOnDepletion(unsigned int item_size, unsigned int item_count) noexcept
        : m_next_size(item_count), m_item_size(item_size) {}

    ~UsePoolOnDepletion() {
        while (m_first != nullptr) {
            remove(m_first);
        }
    }

    /// An item of a further pool, a new one if there is none. Waits for the memory of the pool itself and of its free
    /// stack (`GlobalErrorHandler::doOutOfMem`, "need another pool", "need free stack").
    /// @return null if the new pool has no block
    void* getHelp() {
        if (m_current != nullptr) {
            if (void* const item = m_current->get()) {
                return item;
            }
        }
        // The count is an estimate: it only saves the walk when nothing is to be expected of it.
        if (m_free_count != 0) {
            for (Extension* extension = m_first; extension != nullptr; extension = extension->next) {
                if (void* const item = extension->get()) {
                    m_current = extension;
                    --m_free_count;
                    return item;
                }
            }
        }
        m_next_size *= 2;
        Extension* const extension = allocateOrWait(
            [this] { return new (nothrow) Extension(m_item_size, m_next_size); }, SOURCE, "getHelp",
            "need another pool");
        append(extension);
        m_free_count += m_next_size - 1;
        m_current = extension;
        return extension->get();
    }

    /// Takes back an item of a further pool. One from anywhere else is fatal: "item is not from here!".
    void thankYou(void* item) {
        Extension* extension = m_last;
        while (extension != nullptr && !extension->contains(item)) {
            extension = extension->previous;
        }
        if (extension == nullptr) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "thankYou", "item is not from here!");
            return;
        }
        extension->thankYou(item);
        // Down as in taking, past 0 if it comes to that: an estimate that is too high costs a walk, one of 0 a pool.
        --m_free_count;
        if (extension->getFreeStack().isFull()) {
            remove(extension);
            m_next_size /= 2;
        }
    }

    /// Items in the further pool made last; the next one holds twice as many.
    unsigned int getNextSize() const noexcept { return m_next_size; }
    unsigned int getItemSize() const noexcept { return m_item_size; }

    /// A rough number of the free items in the further pools: it falls with each item given back as it does with each
    /// one found by a walk, and wraps around below 0.
    unsigned int getFreeCount() const noexcept { return m_free_count; }

    /// How many further pools there are now.
    unsigned int getPoolCount() const noexcept {
        unsigned int count = 0;
        for (Extension const* extension = m_first; extension != nullptr; extension = extension->next) {
            ++count;
        }
        return count;
    }

    /// The pool that is tried first, null if none is.
    Pool* getCurrent() const noexcept { return m_current; }

private:
    static constexpr char const* SOURCE = "framework/include/common/MemoryPool";

    // The links lie in the pools themselves, so that the list never allocates.
    struct Extension : Pool {
        Extension(unsigned int item_size, unsigned int item_count) : Pool(item_size, item_count) {}

        Extension* previous = nullptr;
        Extension* next = nullptr;
    };

    void append(Extension* extension) noexcept {
        extension->previous = m_last;
        (m_last != nullptr ? m_last->next : m_first) = extension;
        m_last = extension;
    }

    void remove(Extension* extension) noexcept {
        (extension->previous != nullptr ? extension->previous->next : m_first) = extension->next;
        (extension->next != nullptr ? extension->next->previous : m_last) = extension->previous;
        if (m_current == extension) {
            m_current = nullptr;
        }
        delete extension;
    }

    unsigned int m_next_size;
    unsigned int m_item_size;
    unsigned int m_free_count = 0;
    Extension* m_first = nullptr;
    Extension* m_last = nullptr;
    Extension* m_current = nullptr;
};

} // namespace std
