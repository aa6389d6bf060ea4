#pragma once

#include <ctime>
#include <pthread.h>
#include <sched.h>

namespace support {

/// Waits until a condition holds, at most about two minutes. Takes no lock, so that it does not meet an
/// injected fault. Is no cancellation point, so that a body that waits here continues when its thread is
/// terminated.
template <typename Condition>
bool eventually(Condition condition) {
    constexpr int IMPATIENT_ROUNDS = 200;
    constexpr int ROUNDS = 1200000;
    for (int round = 0; !condition(); ++round) {
        if (round < IMPATIENT_ROUNDS) {
            sched_yield();
            continue;
        }
        if (round == ROUNDS) {
            return false;
        }
        // Lets threads run that have a lower priority than this one.
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        timespec const little{0, 100000};
        nanosleep(&little, nullptr);
        pthread_setcancelstate(before, nullptr);
    }
    return true;
}

} // namespace support
