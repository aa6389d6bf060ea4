#pragma once

#include <csignal>
#include <pthread.h>

namespace vesk::loop::detail {

/// Blocks all signals in the calling thread for the duration of a scope.
class [[nodiscard]] SignalsBlocked {
public:
    SignalsBlocked() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

    sigset_t const& getBefore() const noexcept { return m_before; }

private:
    sigset_t m_before{};
};

} // namespace vesk::loop::detail
