#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace vesk::detail {

/// Puts the cancellation of the calling thread off to the end of a scope: for what must not be left half done, and for
/// what waits in a destructor, which unwinding must not leave.
class [[nodiscard]] CancellationOff : private tarnbase::NonCopyable {
public:
    CancellationOff() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationOff() { pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace vesk::detail
