#include "support/Inject.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <string_view>

namespace support {

namespace {

/// Returns the real function of a name. With 64-bit offsets and times on a 32-bit system, the C library's
/// headers redirect calls and definitions of some functions to others. Their names follow one of the patterns
/// below.
void* findReal(char const* name) noexcept {
#if defined(__USE_FILE_OFFSET64) && !defined(__OFF_T_MATCHES_OFF64_T)
    // A function with both an offset and a time is looked up before one with only one of them.
    constexpr char const* WIDE_NAMES[] = {"__%.*s64_time64%s", "__%.*s_time64%s", "__%.*s64%s", "%.*s64%s"};
    std::string_view const whole(name);
    bool const reentrant = whole.size() > 2 && whole.substr(whole.size() - 2) == "_r";
    int const length = static_cast<int>(whole.size()) - (reentrant ? 2 : 0);
    for (char const* const pattern : WIDE_NAMES) {
        char wide[64];
        snprintf(wide, sizeof wide, pattern, length, name, name + length);
        if (void* const real = dlsym(RTLD_NEXT, wide)) {
            return real;
        }
    }
#endif
    return dlsym(RTLD_NEXT, name);
}

thread_local bool t_is_resolving = false;

} // namespace

bool Injected::isResolving() noexcept {
    return t_is_resolving;
}

void* Injected::getReal() noexcept {
    void* real = m_real.load(std::memory_order_relaxed);
    if (real == nullptr) {
        t_is_resolving = true;
        real = findReal(m_name);
        t_is_resolving = false;
        if (real == nullptr) {
            abort();
        }
        m_real.store(real, std::memory_order_relaxed);
    }
    return real;
}

bool Injected::fails(int& error) noexcept {
    if (!m_armed.load(std::memory_order_acquire)) {
        return false;
    }
    if (!(pthread_equal(m_thread, pthread_self()) != 0 ? m_counts_mine : m_counts_others)) {
        return false;
    }
    int const call = ++m_calls;
    error = m_error;
    return m_error != 0 && call >= m_first && call <= m_last;
}

bool Injected::fails() noexcept {
    int error = 0;
    if (!fails(error)) {
        return false;
    }
    errno = error;
    return true;
}

Fault::Fault(Injected& function, int error, int nth, int times, Threads threads) noexcept
    : m_function(function) {
    m_function.m_calls = 0;
    m_function.m_thread = pthread_self();
    m_function.m_counts_mine = threads != Threads::OTHERS;
    m_function.m_counts_others = threads != Threads::MINE;
    m_function.m_error = error;
    m_function.m_first = nth;
    m_function.m_last = times == FOREVER ? FOREVER : nth + times - 1;
    m_function.m_armed.store(true, std::memory_order_release);
}

Fault::~Fault() {
    m_function.m_armed.store(false, std::memory_order_release);
}

} // namespace support
