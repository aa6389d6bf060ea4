#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <csignal>
#include <pthread.h>

namespace vesk::detail {

/// Guard that blocks all signals of the calling thread until the end of a scope. Threads and children that
/// the thread creates meanwhile start with all signals blocked.
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
