#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk::detail {

/// Guard that disables cancellation of the calling thread for the duration of a scope
/// (`pthread_setcancelstate`) and then restores the previous state. A pending cancellation stays pending.
///
/// Cancellation unwinds the thread with an exception, which must not leave a destructor or a `noexcept`
/// function: there it ends the process. Each destructor and `noexcept` function that reaches a cancellation
/// point therefore uses this guard, as does code that must not be left half done. All functions that libc
/// declares without `noexcept` count as cancellation points, and so does code of the user.
class [[nodiscard]] CancellationOff : private tarnbase::NonCopyable {
public:
    CancellationOff() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationOff() { pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace vesk::detail
