#pragma once

#include "support/Inject.h"
#include "support/LibcHeap.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <sys/mman.h>

/// Makes the allocations of an operation fail, whatever they are made with: `new`, `malloc` and its relatives,
/// `mmap`. Must be included in exactly one file of a test program, because it replaces these functions, also for
/// the libraries. The sanitizers bring their own `malloc`: under them only `new` and `mmap` are seen.
namespace support {

/// Counts the allocations of the calling thread during its lifetime, and makes some of them fail. A thread can
/// have only one at a time.
class AllocationFault {
public:
    /// @param nth    the first allocation to fail, counted from 1; 0 only counts
    /// @param times  how many fail in a row
    explicit AllocationFault(int nth = 0, int times = 1) noexcept : m_first(nth), m_times(times) {
        t_current = this;
    }
    ~AllocationFault() { t_current = nullptr; }

    AllocationFault(AllocationFault const&) = delete;
    AllocationFault& operator=(AllocationFault const&) = delete;

    /// Returns the number of allocations so far, including those that failed.
    int getCount() const noexcept { return m_count; }

    /// Counts an allocation. Returns whether it must fail, and sets `errno` if so.
    VESK_UNWATCHED static bool fails() noexcept {
        if (t_current == nullptr || Injected::isResolving()) {
            return false;
        }
        int const number = ++t_current->m_count;
        int const first = t_current->m_first;
        bool const failing = first != 0 && number >= first && number < first + t_current->m_times;
        if (failing) {
            errno = ENOMEM;
        }
        return failing;
    }

private:
    static inline thread_local AllocationFault* t_current = nullptr;

    int m_first;
    int m_times;
    int m_count = 0;
};

/// The number of blocks that all threads have on the heap; 0 where blocks are not counted.
inline std::atomic<long long> g_blocks{0};

} // namespace support

inline support::Injected inject_mmap("mmap");

extern "C" VESK_UNWATCHED void*
mmap(void* at, size_t size, int access, int flags, int fd, off_t offset) noexcept {
    if (support::AllocationFault::fails()) {
        return MAP_FAILED;
    }
    using Function = void* (*)(void*, size_t, int, int, int, off_t);
    return reinterpret_cast<Function>(inject_mmap.getReal())(at, size, access, flags, fd, offset);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

namespace support {
constexpr bool SEES_MALLOC = false;
} // namespace support

// Not inlined: the compiler would otherwise see `malloc` paired with `delete` and warn about a mismatch.
#define VESK_REPLACED __attribute__((noinline))

VESK_REPLACED void* operator new(size_t size, std::nothrow_t const&) noexcept {
    return support::AllocationFault::fails() ? nullptr : malloc(size != 0 ? size : 1);
}
VESK_REPLACED void* operator new(size_t size) {
    void* const block = operator new(size, std::nothrow);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
VESK_REPLACED void* operator new[](size_t size, std::nothrow_t const&) noexcept {
    return operator new(size, std::nothrow);
}
VESK_REPLACED void* operator new[](size_t size) {
    return operator new(size);
}
VESK_REPLACED void operator delete(void* block) noexcept {
    free(block);
}
VESK_REPLACED void operator delete(void* block, size_t) noexcept {
    free(block);
}
VESK_REPLACED void operator delete(void* block, std::nothrow_t const&) noexcept {
    free(block);
}
VESK_REPLACED void operator delete[](void* block) noexcept {
    free(block);
}
VESK_REPLACED void operator delete[](void* block, size_t) noexcept {
    free(block);
}
VESK_REPLACED void operator delete[](void* block, std::nothrow_t const&) noexcept {
    free(block);
}

#undef VESK_REPLACED

#else

namespace support {

constexpr bool SEES_MALLOC = true;

inline void* countBlock(void* block) noexcept {
    if (block != nullptr) {
        g_blocks.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

} // namespace support

extern "C" {
void* malloc(size_t size) {
    return support::AllocationFault::fails() ? nullptr : support::countBlock(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
    return support::AllocationFault::fails() ? nullptr : support::countBlock(__libc_calloc(count, size));
}
void* memalign(size_t alignment, size_t size) {
    return support::AllocationFault::fails() ? nullptr
                                             : support::countBlock(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}
void* realloc(void* block, size_t size) {
    if (support::AllocationFault::fails()) {
        return nullptr;
    }
    void* const result = __libc_realloc(block, size);
    if (block == nullptr) {
        support::countBlock(result);
    }
    return result;
}
void free(void* block) {
    if (block != nullptr) {
        support::g_blocks.fetch_sub(1, std::memory_order_relaxed);
    }
    __libc_free(block);
}
}

#endif
