#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <pthread.h>

/// The fault injector. A test program defines a function of libc, and the dynamic linker makes the libraries
/// call that definition. It forwards to the real function unless a `Fault` makes it fail.
///
///     VESK_INJECT_RESULT(pthread_mutex_init, (pthread_mutex_t* m, pthread_mutexattr_t const* a), (m, a))
///     VESK_INJECT_ERRNO(int, -1, clock_settime, (clockid_t c, timespec const* t), (c, t))
///
///     support::Fault const fault(inject_pthread_mutex_init, EAGAIN);
///     EXPECT_TRUE(vesk::MutexOps::init(&raw, false, false, false));
///
/// The macros must be used at the top of a test file, outside every namespace. Each test file is a separate
/// program, so a replaced function does not affect the tests of other files.

/// A sanitizer's runtime may call a replaced function before it can watch the program.
#define VESK_UNWATCHED __attribute__((no_sanitize_thread, no_sanitize_address))

namespace support {

/// One replaced function. Constant-initialized, so that it works from the first call in the process.
class Injected {
public:
    constexpr explicit Injected(char const* name) noexcept : m_name(name) {}

    /// Counts the call. Returns whether it must fail, and stores the number to fail with in `error`.
    bool fails(int& error) noexcept;
    /// Counts the call. Returns whether it must fail, and sets `errno` if so.
    bool fails() noexcept;

    /// Returns whether the calling thread looks up a real function for the first time. The loader may allocate
    /// memory for that.
    static bool isResolving() noexcept;

    /// Returns the real function.
    void* getReal() noexcept;
    /// Returns the real function that `replacement` replaces.
    template <typename Function>
    VESK_UNWATCHED Function* getReal(Function* /*replacement*/) noexcept {
        return reinterpret_cast<Function*>(getReal());
    }

private:
    friend class Fault;

    char const* m_name;
    std::atomic<void*> m_real{nullptr};
    std::atomic<bool> m_armed{false};
    std::atomic<int> m_calls{0};
    pthread_t m_thread{};
    bool m_counts_mine = true;
    bool m_counts_others = false;
    int m_error = 0;
    int m_first = 0;
    int m_last = 0;
};

/// Counts the calls of a function during its lifetime and makes some of them fail. Each function can have
/// only one `Fault` at a time.
class Fault : tarnbase::NonCopyable {
public:
    static constexpr int FOREVER = 1 << 30;

    enum class Threads { MINE, OTHERS, ALL };

    /// @param error    the number to fail with; 0 only counts the calls
    /// @param nth      the first call to fail, counted from 1
    /// @param times    how many calls fail in a row
    /// @param threads  the threads in which calls are counted and fail
    Fault(
        Injected& function, int error, int nth = 1, int times = 1, Threads threads = Threads::MINE) noexcept;
    ~Fault();

    /// Returns the number of calls so far.
    int getCalls() const noexcept { return m_function.m_calls; }

private:
    Injected& m_function;
};

} // namespace support

/// Replaces a function. The statements in the last argument run first in each call. They may record or change
/// its arguments. `fail` runs if the call must fail.
#define VESK_INJECT(result, fail, name, parameters, arguments, ...)                                          \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        __VA_ARGS__;                                                                                         \
        int error = 0;                                                                                       \
        if (inject_##name.fails(error)) {                                                                    \
            fail;                                                                                            \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }

/// Replaces a function that returns its error number, as the `pthread_*` functions do.
#define VESK_INJECT_RESULT(name, parameters, arguments)                                                      \
    VESK_INJECT(int, return error, name, parameters, arguments, static_cast<void>(0))

/// Replaces a function that returns `failure` and sets `errno`.
#define VESK_INJECT_ERRNO(result, failure, name, parameters, arguments)                                      \
    VESK_INJECT_NOTING(result, failure, name, parameters, arguments, static_cast<void>(0))

/// Replaces a function as `VESK_INJECT_ERRNO` does, with statements that run first in each call.
///
///     VESK_INJECT_NOTING(int, -1, shutdown, (int fd, int how) noexcept, (fd, how), s_how = how)
#define VESK_INJECT_NOTING(result, failure, name, parameters, arguments, ...)                                \
    VESK_INJECT(result, errno = error; return failure, name, parameters, arguments, __VA_ARGS__)

/// Replaces `open`, which has a mode argument only when it may create a file. The statement `first` runs
/// first in each call: it may record `flags` and `mode`, and replace `path`.
#define VESK_INJECT_OPEN(first)                                                                              \
    support::Injected inject_open("open");                                                                   \
    extern "C" VESK_UNWATCHED int open(char const* path, int flags, ...) {                                   \
        mode_t mode = 0;                                                                                     \
        if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {                                    \
            va_list arguments;                                                                               \
            va_start(arguments, flags);                                                                      \
            mode = va_arg(arguments, mode_t);                                                                \
            va_end(arguments);                                                                               \
        }                                                                                                    \
        first;                                                                                               \
        if (inject_open.fails()) {                                                                           \
            return -1;                                                                                       \
        }                                                                                                    \
        return inject_open.getReal(open)(path, flags, mode);                                                 \
    }
