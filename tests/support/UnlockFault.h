#pragma once

#include "support/Inject.h"

/// Makes `pthread_mutex_unlock` fail. Must be included at the top of a test file, like the macros of Inject.h.

namespace support {

/// Whether the injected failure releases the mutex all the same: a mutex that stays locked could never be
/// destroyed.
inline std::atomic<bool> g_failing_unlock_unlocks{true};

} // namespace support

support::Injected inject_pthread_mutex_unlock("pthread_mutex_unlock");
extern "C" VESK_UNWATCHED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    int error = 0;
    bool const fails = inject_pthread_mutex_unlock.fails(error);
    if (fails && !support::g_failing_unlock_unlocks) {
        return error;
    }
    int const result = inject_pthread_mutex_unlock.getReal(pthread_mutex_unlock)(mutex);
    return fails ? error : result;
}
