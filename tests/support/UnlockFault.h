#pragma once

#include "support/Inject.h"

#include <pthread.h>

/// An unlock that fails lets go of the lock all the same: one that stayed held could never be destroyed. Include it at the top
/// of a test file, as the macros of Inject.h stand there.
support::Injected inject_pthread_mutex_unlock("pthread_mutex_unlock");
extern "C" VESK_UNWATCHED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    int error = 0;
    bool const fails = inject_pthread_mutex_unlock.fails(error);
    int const result =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(inject_pthread_mutex_unlock.getReal())(mutex);
    return fails ? error : result;
}
