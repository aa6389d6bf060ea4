#pragma once

#include "support/Inject.h"

#include <ctime>

/// Replaces the calls below locks and conditions, except `pthread_mutex_unlock`. Must be included at the top of one file
/// of a test program, like the macros of Inject.h.

namespace support {

// The arguments of this thread's last system calls.
inline thread_local int t_shared = -1;
inline thread_local int t_type = -1;
inline thread_local int t_protocol = -1;
inline thread_local int t_clock = -1;
inline thread_local bool t_has_attributes = false;
inline thread_local timespec t_deadline{};

inline int note(int& to, int value) {
    return to = value;
}
inline pthread_rwlockattr_t const* note(pthread_rwlockattr_t const* attributes) {
    t_has_attributes = attributes != nullptr;
    return attributes;
}
inline timespec const* note(timespec const* deadline) {
    t_deadline = *deadline;
    return deadline;
}

} // namespace support

using namespace support;

VESK_INJECT_RESULT(pthread_mutexattr_init, (pthread_mutexattr_t * a), (a))
VESK_INJECT_RESULT(pthread_mutexattr_settype, (pthread_mutexattr_t * a, int t), (a, note(t_type, t)))
VESK_INJECT_RESULT(pthread_mutexattr_setprotocol, (pthread_mutexattr_t * a, int p), (a, note(t_protocol, p)))
VESK_INJECT_RESULT(pthread_mutexattr_setpshared, (pthread_mutexattr_t * a, int s), (a, note(t_shared, s)))
VESK_INJECT_RESULT(pthread_mutexattr_setrobust, (pthread_mutexattr_t * a, int r), (a, r))
VESK_INJECT_RESULT(pthread_mutexattr_destroy, (pthread_mutexattr_t * a), (a))
VESK_INJECT_RESULT(pthread_mutex_init, (pthread_mutex_t * m, pthread_mutexattr_t const* a), (m, a))
VESK_INJECT_RESULT(pthread_mutex_destroy, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_consistent, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_trylock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_timedlock, (pthread_mutex_t * m, timespec const* t), (m, t))
VESK_INJECT_RESULT(pthread_rwlockattr_init, (pthread_rwlockattr_t * a), (a))
VESK_INJECT_RESULT(pthread_rwlockattr_setpshared, (pthread_rwlockattr_t * a, int s), (a, note(t_shared, s)))
VESK_INJECT_RESULT(pthread_rwlockattr_destroy, (pthread_rwlockattr_t * a), (a))
VESK_INJECT_RESULT(pthread_rwlock_init, (pthread_rwlock_t * l, pthread_rwlockattr_t const* a), (l, note(a)))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_tryrdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_trywrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_timedrdlock, (pthread_rwlock_t * l, timespec const* t), (l, note(t)))
VESK_INJECT_RESULT(pthread_rwlock_timedwrlock, (pthread_rwlock_t * l, timespec const* t), (l, note(t)))
VESK_INJECT_RESULT(pthread_rwlock_unlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_init, (pthread_spinlock_t * l, int s), (l, note(t_shared, s)))
VESK_INJECT_RESULT(pthread_spin_destroy, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_lock, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_trylock, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_unlock, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_condattr_init, (pthread_condattr_t * a), (a))
VESK_INJECT_RESULT(pthread_condattr_setclock, (pthread_condattr_t * a, clockid_t c), (a, note(t_clock, c)))
VESK_INJECT_RESULT(pthread_condattr_setpshared, (pthread_condattr_t * a, int s), (a, note(t_shared, s)))
VESK_INJECT_RESULT(pthread_condattr_destroy, (pthread_condattr_t * a), (a))
VESK_INJECT_RESULT(pthread_cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))
VESK_INJECT_RESULT(pthread_cond_destroy, (pthread_cond_t * c), (c))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))
