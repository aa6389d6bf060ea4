#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

/// Lets the heap run out for one thread. Include it in one file of a test program: it replaces the allocation operators
/// of the language there.

namespace support {

/// Fails every `new` of this thread, after the first few, while it lives.
class NoMemory {
public:
    explicit NoMemory(int allowed = 0) noexcept { t_left = allowed; }
    ~NoMemory() { t_left = -1; }

    NoMemory(NoMemory const&) = delete;
    NoMemory& operator=(NoMemory const&) = delete;

    /// Counts one allocation.
    static bool isRefused() noexcept {
        if (t_left == 0) {
            return true;
        }
        t_left -= t_left > 0 ? 1 : 0;
        return false;
    }

private:
    static inline thread_local int t_left = -1; // -1: no limit.
};

} // namespace support

__attribute__((noinline)) void* operator new(size_t size) {
    void* const memory = support::NoMemory::isRefused() ? nullptr : malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
