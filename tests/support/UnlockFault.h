#pragma once

#include "support/Inject.h"

#include <pthread.h>

/// Makes `pthread_mutex_unlock` fail. The injected failure releases the mutex all the same: a mutex that
/// stays locked could never be destroyed. Must be included at the top of a test file, like the macros of
/// Inject.h.
support::Injected inject_pthread_mutex_unlock("pthread_mutex_unlock");
extern "C" VESK_UNWATCHED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    int error = 0;
    bool const fails = inject_pthread_mutex_unlock.fails(error);
    int const result =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(inject_pthread_mutex_unlock.getReal())(mutex);
    return fails ? error : result;
}
