#pragma once

#include <cstddef>
#include <new>

/// Makes `new (std::nothrow)` fail. Include it in one file of a test program: it replaces the allocation functions there,
/// those of the libraries included.

namespace support {

inline thread_local bool t_nothrow_fails = false;

/// While it lives, `new (std::nothrow)` gives null in this thread.
class NothrowFault {
public:
    NothrowFault() noexcept { t_nothrow_fails = true; }
    ~NothrowFault() { t_nothrow_fails = false; }

    NothrowFault(NothrowFault const&) = delete;
    NothrowFault& operator=(NothrowFault const&) = delete;
};

} // namespace support

void* operator new(size_t size, std::nothrow_t const&) noexcept {
    try {
        return support::t_nothrow_fails ? nullptr : ::operator new(size);
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}

void* operator new[](size_t size, std::nothrow_t const&) noexcept {
    try {
        return support::t_nothrow_fails ? nullptr : ::operator new[](size);
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}
