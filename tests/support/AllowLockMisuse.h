#pragma once

/// Include it in one file of a test program that breaks the rules of locks on purpose, to see that this is reported, or
/// that shares locks with forked processes, of which the thread sanitizer knows nothing: it then leaves misuse to the
/// test, and goes on to look for data races and for locks taken in the wrong order.

#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) char const* __tsan_default_options();
extern "C" char const* __tsan_default_options() {
    return "report_mutex_bugs=0:report_destroy_locked=0";
}
#endif
