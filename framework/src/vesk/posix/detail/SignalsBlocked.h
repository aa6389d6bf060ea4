#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <csignal>
#include <pthread.h>

namespace vesk::detail {

/// Blocks all signals of the calling thread to the end of a scope. Threads and children that it makes meanwhile begin with
/// all of them blocked.
class [[nodiscard]] SignalsBlocked : private tarnbase::NonCopyable {
public:
    SignalsBlocked() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before{};
};

} // namespace vesk::detail
