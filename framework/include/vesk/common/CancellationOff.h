#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk::detail {

/// Disables the cancellation of the calling thread for the length of a scope (`pthread_setcancelstate`), and restores the
/// state before it. A cancellation that is pending stays pending.
///
/// A cancelled thread is unwound by an exception, which must not leave a destructor or a `noexcept` function: there it ends
/// the process. Each of these that reaches a cancellation point holds this guard, as does what must not be left half done.
/// Everything that libc declares without `noexcept` counts as a cancellation point, and so does code of the user.
class [[nodiscard]] CancellationOff : private tarnbase::NonCopyable {
public:
    CancellationOff() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationOff() { pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace vesk::detail
