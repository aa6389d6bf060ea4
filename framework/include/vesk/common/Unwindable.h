#pragma once

#include <vesk/Export.h>

namespace vesk {

/// Calls a function with an argument. If the thread is canceled in it, the unwinding begins anew at this call.
VESK_API void callUnwindable(void (*function)(void*), void* argument);

/// Makes a system call that is a cancellation point, and returns its result.
///
/// In the C library for 32-bit ARM, some of these calls have no tables to unwind their callers: `pthread_join`,
/// `epoll_wait`, `accept4`, `openat`. A thread that is canceled in one of them ends without the destructors of its
/// callers. A clean-up handler in the form of the C language, which needs no tables, stops the unwinding where the handler
/// is registered, and begins it again there. Other architectures need no handler.
/// @param call  called without arguments; no object with a destructor may live in it
template <typename Call>
auto unwindable(Call const& call) -> decltype(call()) {
#if defined(__arm__)
    struct Job {
        Call const& call;
        decltype(call()) result{};
    } job{call};
    callUnwindable(
        [](void* data) { static_cast<Job*>(data)->result = static_cast<Job*>(data)->call(); }, &job);
    return job.result;
#else
    return call();
#endif
}

} // namespace vesk
