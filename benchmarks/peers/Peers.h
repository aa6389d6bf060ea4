#pragma once

/// What the sources of the peers share: the headers of C libraries, which need no namespace of their own, and
/// their initialization.

#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>

/// A second thread for the whole run. The C library omits atomic operations while a process has never had one,
/// so that the first rows would be too fast. It blocks all signals.
inline bool const g_has_threads = [] {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    auto const wait = [](void*) -> void* {
        for (;;) {
            pause();
        }
    };
    bool const started = pthread_create(&thread, nullptr, wait, nullptr) == 0 && pthread_detach(thread) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}();

#ifdef VESK_PEER_GLIB
#include <gio/gio.h>
#include <glib-unix.h>
#include <glib.h>
#include <glib/gstdio.h>
#endif

#ifdef VESK_PEER_UV
#include <uv.h>

/// Owns a loop of libuv. Its handles must be closed before.
class UvLoop {
public:
    UvLoop() {
        if (uv_loop_init(&raw) != 0) {
            abort();
        }
    }
    ~UvLoop() {
        uv_walk(&raw, close, nullptr);
        uv_run(&raw, UV_RUN_DEFAULT);
        if (uv_loop_close(&raw) != 0) {
            abort();
        }
    }
    UvLoop(UvLoop const&) = delete;
    UvLoop& operator=(UvLoop const&) = delete;

    uv_loop_t raw{};

private:
    static void close(uv_handle_t* handle, void*) {
        if (uv_is_closing(handle) == 0) {
            uv_close(handle, nullptr);
        }
    }
};
#endif

#ifdef VESK_PEER_APR
#include <apr_general.h>
#include <apr_pools.h>

/// A pool that is destroyed with the object. APR allocates everything from pools.
class AprPool {
public:
    AprPool() {
        static apr_status_t const initialized = apr_initialize();
        if (initialized != APR_SUCCESS || apr_pool_create(&raw, nullptr) != APR_SUCCESS) {
            abort();
        }
    }
    ~AprPool() { apr_pool_destroy(raw); }
    AprPool(AprPool const&) = delete;
    AprPool& operator=(AprPool const&) = delete;

    apr_pool_t* raw = nullptr;
};
#endif
