#pragma once

#include "support/LibcHeap.h"

#include <cstddef>
#include <cstdlib>
#include <new>

/// Counts the heap allocations of the calling thread. Must be included in exactly one file of a test program,
/// because it replaces the allocation functions of libc. The sanitizers bring their own allocation functions,
/// so nothing is counted under them. `COUNTS_ALLOCATIONS` says which case applies.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

namespace support {
constexpr bool COUNTS_ALLOCATIONS = false;
inline thread_local int t_allocations = 0;
} // namespace support

#else

namespace support {
constexpr bool COUNTS_ALLOCATIONS = true;
inline thread_local int t_allocations = 0;
} // namespace support

extern "C" {
void* malloc(size_t size) {
    ++support::t_allocations;
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    ++support::t_allocations;
    return __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
    ++support::t_allocations;
    return __libc_realloc(memory, size);
}
}

#endif

namespace support {

/// Counts the heap allocations of this thread since its construction.
class AllocationCounter {
public:
    AllocationCounter() noexcept : m_start(t_allocations) {}
    int getCount() const noexcept { return t_allocations - m_start; }

private:
    int m_start;
};

} // namespace support
