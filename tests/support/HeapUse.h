#pragma once

#include "support/LibcHeap.h"

#include <atomic>
#include <cstddef>
#include <malloc.h>

/// Counts what all threads use of the heap. Must be included in exactly one file of a test program, because it
/// replaces the allocation functions of libc. The sanitizers bring their own allocation functions and look for
/// leaks themselves, so nothing is counted under them.

namespace support {

inline std::atomic<long long> g_heap_bytes{0};
inline std::atomic<long long> g_heap_blocks{0};

} // namespace support

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace support {

inline void* countBlock(void* block, int sign = 1) {
    if (block != nullptr) {
        g_heap_bytes.fetch_add(
            sign * static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
        g_heap_blocks.fetch_add(sign, std::memory_order_relaxed);
    }
    return block;
}

} // namespace support

extern "C" {
void* malloc(size_t size) {
    return support::countBlock(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
    return support::countBlock(__libc_calloc(count, size));
}
void* memalign(size_t alignment, size_t size) {
    return support::countBlock(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) {
    return support::countBlock(__libc_memalign(alignment, size));
}
void* realloc(void* block, size_t size) {
    support::countBlock(block, -1);
    return support::countBlock(__libc_realloc(block, size));
}
void free(void* block) {
    support::countBlock(block, -1);
    __libc_free(block);
}
}

#endif
