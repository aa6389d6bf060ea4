#include "support/Inject.h"

#include <cstdlib>
#include <dlfcn.h>

namespace support {

void* Injected::getReal() noexcept {
    void* real = m_real.load(std::memory_order_relaxed);
    if (real == nullptr) {
        real = dlsym(RTLD_NEXT, m_name);
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
