#pragma once

#include <common/ScopeGuard.h>
#include <common/error/ErrorHelper.h>

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstddef>
#include <functional>
#include <new>

namespace std {

/// A lock that does nothing and always succeeds, for a pool that only one thread uses or that another lock
/// guards.
class FakeLock {
public:
    /// @{
    /// Succeeds.
    bool lock() const noexcept { return false; }
    signed char tryLock() const noexcept { return 0; }
    signed char tryLockTimeout(long long const&) const noexcept { return 0; }
    bool unlock() const noexcept { return false; }
    /// @}
};

/// A condition that does nothing and always succeeds, for a pool without waiting callers.
class FakeCondition {
public:
    template <typename Lock>
    /// @{
    /// Succeeds without waiting.
    bool wait(Lock&) const noexcept {
        return false;
    }
    template <typename Lock, typename Deadline>
    signed char waitTimeout(Lock&, Deadline const&) const noexcept {
        return 0;
    }
    bool signal() const noexcept { return false; }
    /// @}
};

/// The free items of one block, last in first out. It starts full, with the first item of the block at the
/// bottom: `pop` returns the items from the end of the block downward. Takes no lock.
class FreeStack : private tarnbase::NonCopyable {
public:
    /// Allocates space for all items. Waits for memory if necessary (`GlobalErrorHandler::doOutOfMem`,
    /// "need free stack").
    /// @param init       the block; null trips an assertion and makes the stack empty
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

    /// Returns the item that was put back last, null if none is left.
    void* pop() noexcept { return m_left != 0 ? items[--m_left] : nullptr; }

    /// Puts an item back. If the stack is full, an assertion trips and the item is dropped.
    void push(void* item) noexcept {
        if (m_left >= m_size) {
            GlobalErrorHandler::doAssert(false, "m_left < m_size", SOURCE, __LINE__, "push", nullptr);
            return;
        }
        items[m_left++] = item;
    }

    /// @{
    /// Returns the number of free items, and the number of all items.
    unsigned int getLeft() const noexcept { return m_left; }
    unsigned int getSize() const noexcept { return m_size; }
    bool isFull() const noexcept { return m_left == m_size; }
    /// @}

private:
    static constexpr char const* SOURCE = "framework/include/common/MemoryPool";

    void** items;
    unsigned int m_left;
    unsigned int m_size;
};

/// Depletion policy that returns null when the pool is empty.
class NullOnDepletion {
public:
    /// Ignores the sizes of the pool.
    NullOnDepletion(unsigned int, unsigned int) noexcept {}

    /// Returns null.
    void* getHelp() noexcept { return nullptr; }

    /// Trips an assertion unless `ptr` is null: this policy provides no items.
    void thankYou(void* ptr) noexcept {
        if (ptr != nullptr) {
            GlobalErrorHandler::doAssert(
                false, "! ptr", "framework/include/common/MemoryPool", __LINE__, "thankYou", nullptr);
        }
    }
};

/// A supply of small items of one size: one block of memory, and a stack of its free items.
///
///     std::MemoryPool<std::NullOnDepletion, vesk::Mutex, std::FakeCondition> pool(sizeof(Job), 64);
///     if (void* const memory = pool.get()) { ... pool.thankYou(memory); }
///
/// `get` and `thankYou` may be called from any thread if `Lock` is a real lock. They hold it only for a few
/// instructions, unless the depletion policy has to allocate memory. If locking fails,
/// `GlobalErrorHandler::doAbort` is called with "error locking".
///
/// @tparam Depletion  policy for an empty pool: `NullOnDepletion` or `UsePoolOnDepletion`
/// @tparam Lock       `vesk::Mutex`, or `FakeLock` where no lock is needed
/// @tparam Condition  the condition that a policy waits on; `FakeCondition` for the policies of this file,
///                    which never wait
template <typename Depletion, typename Lock, typename Condition>
class MemoryPool : private tarnbase::NonCopyable {
public:
    /// Guard that holds the pool's lock for the duration of a scope.
    class LockGuard : public ScopeGuard<Lock const, bool (Lock::*)() const, NoopResultConv> {
    public:
        /// Locks the pool.
        explicit LockGuard(MemoryPool const& pool)
            : ScopeGuard<Lock const, bool (Lock::*)() const, NoopResultConv>(
                  pool.m_lock, &Lock::unlock, !pool.m_lock.lock()) {
            if (!this->isArmed()) {
                GlobalErrorHandler::doAbort(SOURCE, __LINE__, "LockGuard", "error locking");
            }
        }
    };

    /// Allocates the block. If there is no memory for it, an assertion trips and the pool is empty from the
    /// start.
    /// @param item_size   bytes of an item, at least the size of a pointer. Pass a multiple of the alignment
    ///                    to keep the items aligned.
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

    /// Frees the block, including the memory of items that are still in use.
    ~MemoryPool() { delete[] m_memblock_start; }

    /// Returns an item with its previous content. Returns null if the pool is empty and its policy provides
    /// no item.
    void* get() {
        LockGuard const guard(*this);
        void* const item = m_free_stack.pop();
        return item != nullptr ? item : m_depletion.getHelp();
    }

    /// Puts an item back. Null is ignored. The policy handles an item that is not from the pool's own block.
    /// Putting an item back twice may trip an assertion.
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

    /// Returns whether an address is in the pool's own block. Callable from any thread without the lock.
    bool contains(void const* item) const noexcept {
        // Unlike the operators, the function objects also order addresses of different blocks.
        return !less<void const*>()(item, m_memblock_start) && less<void const*>()(item, m_memblock_end);
    }

    /// Returns the size of an item in bytes.
    unsigned int getItemSize() const noexcept { return m_item_size; }
    /// Returns the number of items.
    unsigned int getItemCount() const noexcept { return m_item_count; }

    /// @{
    /// Return the two sources of items. The caller must hold a `LockGuard`.
    FreeStack& getFreeStack() noexcept { return m_free_stack; }
    Depletion& getDepletion() noexcept { return m_depletion; }
    /// @}

private:
    static constexpr char const* SOURCE = "framework/include/common/MemoryPool";

    static unsigned char* allocateBlock(unsigned int item_size, unsigned int item_count) noexcept {
        size_t bytes = 0;
        if (__builtin_mul_overflow(static_cast<size_t>(item_size), item_count, &bytes)) {
            return nullptr; // LCOV_EXCL_LINE: only where size_t has 32 bits
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

/// Depletion policy that uses additional pools. Each new pool holds twice as many items as the previous one,
/// and is destroyed when all of its items are back. The policy works under the lock of the pool that it
/// serves.
class UsePoolOnDepletion : private tarnbase::NonCopyable {
public:
    /// The pool of one block.
    using Pool = MemoryPool<NullOnDepletion, FakeLock, FakeCondition>;

    /// @param item_size   item size of the served pool
    /// @param item_count  item count of the served pool; the first additional pool holds twice as many
    UsePoolOnDepletion(unsigned int item_size, unsigned int item_count) noexcept
        : m_next_size(item_count), m_item_size(item_size) {}

    ~UsePoolOnDepletion() {
        while (m_first != nullptr) {
            remove(m_first);
        }
    }

    /// Returns an item of an additional pool, which is created if no other has a free item. Waits for the
    /// memory of the pool object and of its free stack (`GlobalErrorHandler::doOutOfMem`,
    /// "need another pool", "need free stack").
    /// @return null if there is no memory for the block of the new pool
    void* getHelp() {
        if (m_current != nullptr) {
            if (void* const item = m_current->get()) {
                return item;
            }
        }
        // The count is an estimate. It only avoids a search that is unlikely to find an item.
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

    /// Puts back an item of an additional pool. An item from elsewhere is fatal: "item is not from here!".
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
        // Decremented here as in `getHelp`, and may wrap around below 0. The exact value does not matter: an
        // estimate that is too high costs a search, an estimate of 0 costs a new pool.
        --m_free_count;
        if (extension->getFreeStack().isFull()) {
            remove(extension);
            m_next_size /= 2;
        }
    }

    /// @{
    /// Returns half the item count of the next additional pool. Initially that is the item count of the
    /// served pool. Each new pool doubles it, and each destroyed pool halves it.
    unsigned int getNextSize() const noexcept { return m_next_size; }
    unsigned int getItemSize() const noexcept { return m_item_size; }
    /// @}

    /// Returns an estimate of the free items in the additional pools. It decreases with each item that is put
    /// back and with each item that a search finds, and wraps around below 0.
    unsigned int getFreeCount() const noexcept { return m_free_count; }

    /// Returns the current number of additional pools.
    unsigned int getPoolCount() const noexcept {
        unsigned int count = 0;
        for (Extension const* extension = m_first; extension != nullptr; extension = extension->next) {
            ++count;
        }
        return count;
    }

    /// Returns the pool that is tried first, null if there is none.
    Pool* getCurrent() const noexcept { return m_current; }

private:
    static constexpr char const* SOURCE = "framework/include/common/MemoryPool";

    // The links are members of the pools, so that the list never allocates.
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
