#pragma once

/// Must be included in one file of a test program with engines of alarms.
///
/// The thread sanitizer delays a signal that reaches a thread in a call that it does not know to block, until that
/// thread makes a call that it does know. A dispatcher of signals that is interrupted in its `select` then waits in
/// `read` for the byte that its own handler should have written. With that sanitizer only the main thread takes
/// signals, because it waits in calls that the sanitizer knows.

#if defined(__SANITIZE_THREAD__)

#include <csignal>
#include <dlfcn.h>
#include <initializer_list>
#include <pthread.h>

extern "C" __attribute__((no_sanitize_thread)) int pthread_create(
    pthread_t* thread, pthread_attr_t const* attributes, void* (*body)(void*), void* argument) noexcept {
    using Create = int (*)(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
    static auto const create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    sigset_t signals;
    sigset_t before;
    sigfillset(&signals);
    for (int const signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGALRM}) {
        sigdelset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    int const result = create(thread, attributes, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

/// Lets the main thread take signals again. If a signal interrupts the thread sanitizer just before it runs the handler
/// of another one, the sanitizer restores the mask of the handler instead of that of the thread: all signals stay
/// blocked.
inline void unblockSignals() {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

#else

inline void unblockSignals() {}

#endif
