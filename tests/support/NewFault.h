#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

/// Makes allocations by `new` fail. Must be included in exactly one file of a test program: it replaces the
/// allocation functions of the language, also for the libraries.

namespace support {

/// The allocation functions that can fail.
enum class New { SINGLE, NOTHROW_SINGLE, NOTHROW_ARRAY };

/// Counts the calls of one allocation function by this thread during its lifetime and makes some of them
/// fail. A thread can have only one `NewFault` at a time.
class NewFault : tarnbase::NonCopyable {
public:
    static constexpr int FOREVER = 1 << 30;

    /// @param form   the function
    /// @param nth    the first call to fail, counted from 1
    /// @param times  how many calls fail in a row; 0 only counts them
    explicit NewFault(New form, int nth = 1, int times = 1) noexcept
        : m_form(form), m_first(nth), m_last(times == FOREVER ? FOREVER : nth + times - 1) {
        t_current = this;
    }
    ~NewFault() { t_current = nullptr; }

    /// Returns the number of calls so far.
    int getCalls() const noexcept { return m_calls; }
    /// Returns the requested sizes of the first `MAX_SIZES` calls.
    std::vector<size_t> getSizes() const {
        return {m_sizes, m_sizes + (m_calls < MAX_SIZES ? m_calls : MAX_SIZES)};
    }

    static bool fails(New form, size_t size) noexcept {
        return t_current != nullptr && t_current->m_form == form && t_current->count(size);
    }

private:
    static constexpr int MAX_SIZES = 16;

    bool count(size_t size) noexcept {
        if (m_calls < MAX_SIZES) {
            m_sizes[m_calls] = size;
        }
        ++m_calls;
        return m_calls >= m_first && m_calls <= m_last;
    }

    static inline thread_local NewFault* t_current = nullptr;

    New m_form;
    int m_first;
    int m_last;
    int m_calls = 0;
    size_t m_sizes[MAX_SIZES] = {};
};

inline void* allocate(New form, size_t size) noexcept {
    return NewFault::fails(form, size) ? nullptr : malloc(size != 0 ? size : 1);
}

inline void* allocateOrThrow(New form, size_t size) {
    void* const memory = allocate(form, size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace support

// Not inlined: the compiler would otherwise see `malloc` paired with `delete` and warn about a mismatch.
#define VESK_REPLACED __attribute__((noinline))

VESK_REPLACED void* operator new(size_t size) {
    return support::allocateOrThrow(support::New::SINGLE, size);
}
VESK_REPLACED void* operator new(size_t size, std::nothrow_t const&) noexcept {
    return support::allocate(support::New::NOTHROW_SINGLE, size);
}
VESK_REPLACED void* operator new[](size_t size, std::nothrow_t const&) noexcept {
    return support::allocate(support::New::NOTHROW_ARRAY, size);
}
VESK_REPLACED void* operator new[](size_t size) {
    void* const memory = malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
VESK_REPLACED void operator delete(void* memory) noexcept {
    free(memory);
}
VESK_REPLACED void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
VESK_REPLACED void operator delete(void* memory, std::nothrow_t const&) noexcept {
    free(memory);
}
VESK_REPLACED void operator delete[](void* memory) noexcept {
    free(memory);
}
VESK_REPLACED void operator delete[](void* memory, size_t) noexcept {
    free(memory);
}
VESK_REPLACED void operator delete[](void* memory, std::nothrow_t const&) noexcept {
    free(memory);
}

#undef VESK_REPLACED
