#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace tarnbase::detail {

/// Disables cancellation of the calling thread for the duration of a scope (`pthread_setcancelstate`), then
/// restores the previous state. For code that a destructor or a `noexcept` function calls, out of which a
/// canceled thread cannot be unwound.
class [[nodiscard]] CancellationOff : private NonCopyable {
public:
    CancellationOff() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationOff() { pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace tarnbase::detail
