#pragma once

#include "support/Inject.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <mqueue.h>
#include <net/if.h>
#include <poll.h>
#include <random>
#include <semaphore.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

/// Makes the system calls of the calling thread fail. Must be included in exactly one file of a test program, because
/// it replaces these functions, also for the libraries.
namespace failing {

/// Decides which system calls of the calling thread fail during its lifetime.
class Plan {
public:
    /// The calls with these numbers fail, counted from 1.
    /// @param others  exchanges the two numbers that each function fails with
    Plan(int first, int second, bool others = false) : m_others(others), m_first(first), m_second(second) {
        t_current = this;
    }
    /// One call of a hundred fails.
    explicit Plan(std::minstd_rand& random) : m_random(&random) { t_current = this; }
    ~Plan() { t_current = nullptr; }
    Plan(Plan const&) = delete;
    Plan& operator=(Plan const&) = delete;

    int getCount() const { return m_count; }
    int getFailures() const { return m_failures; }
    /// Returns the name of the last function that failed.
    std::string getFailed() const { return m_failed; }

    /// Counts a call of a function. Returns whether it must fail, with one of these numbers in `errno`.
    VESK_UNWATCHED static bool fails(char const* function, int error, int other) noexcept {
        Plan* const plan = t_current;
        if (plan == nullptr || support::Injected::isResolving() || getpid() != plan->m_process) {
            return false;
        }
        ++plan->m_count;
        bool const failing = plan->m_random != nullptr
            ? (*plan->m_random)() % 100 == 0
            : plan->m_count == plan->m_first || plan->m_count == plan->m_second;
        if (failing) {
            ++plan->m_failures;
            plan->m_failed = function;
            if (s_note != nullptr) {
                *s_note = function;
            }
            errno = (plan->m_count % 2 == 0) != plan->m_others ? other : error;
        }
        return failing;
    }

    /// Receives the name of each function that fails, for the parent of a process that ends.
    static inline char const** s_note = nullptr;

private:
    static inline thread_local Plan* t_current = nullptr;

    std::minstd_rand* m_random = nullptr;
    pid_t m_process = getpid(); // A child has its own calls.
    bool m_others = false;
    int m_first = 0;
    int m_second = 0;
    int m_count = 0;
    int m_failures = 0;
    char const* m_failed = "";
};

} // namespace failing

#define VESK_FAILING(result, failure, error, other, name, parameters, arguments)                             \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        if (failing::Plan::fails(#name, error, other)) {                                                     \
            return failure;                                                                                  \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }

/// The system releases a descriptor even if its close fails.
#define VESK_FAILING_AFTER(name, parameters, arguments)                                                      \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED int name parameters {                                                          \
        int const result = reinterpret_cast<int(*) parameters>(inject_##name.getReal()) arguments;           \
        return result == 0 && failing::Plan::fails(#name, EIO, ENOSPC) ? -1 : result;                        \
    }

VESK_INJECT_OPEN(if (failing::Plan::fails("open", EMFILE, ENOMEM)) { return -1; })
VESK_FAILING_AFTER(close, (int fd), (fd))
VESK_FAILING_AFTER(closedir, (DIR * directory), (directory))
VESK_FAILING_AFTER(mq_close, (mqd_t queue), (queue))
VESK_FAILING_AFTER(sem_close, (sem_t * semaphore), (semaphore))
VESK_FAILING(ssize_t, -1, EIO, ENOMEM, read, (int fd, void* to, size_t size), (fd, to, size))
VESK_FAILING(ssize_t, -1, EIO, ENOSPC, write, (int fd, void const* from, size_t size), (fd, from, size))
/// Self-pipes are written without `write`, which is a cancellation point. Messages to standard error do not fail.
support::Injected inject_syscall("syscall");
extern "C" VESK_UNWATCHED long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_write && arguments[0] != STDERR_FILENO && failing::Plan::fails("write", EIO, ENOSPC)) {
        return -1;
    }
    return inject_syscall.getReal(syscall)(
        number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
VESK_FAILING(int, -1, EIO, EOVERFLOW, fstat, (int fd, struct stat* data), (fd, data))
VESK_FAILING(int, -1, EACCES, ENOENT, stat, (char const* path, struct stat* data), (path, data))
VESK_FAILING(int, -1, EACCES, ENOENT, lstat, (char const* path, struct stat* data), (path, data))
VESK_FAILING(off_t, -1, ESPIPE, EOVERFLOW, lseek, (int fd, off_t offset, int from), (fd, offset, from))
VESK_FAILING(int, -1, ENOSPC, EFBIG, ftruncate, (int fd, off_t length), (fd, length))
VESK_FAILING(int, -1, EACCES, EROFS, unlink, (char const* path), (path))
VESK_FAILING(int, -1, EACCES, EEXIST, mkstemp, (char* path), (path))
VESK_FAILING(DIR*, nullptr, ENOMEM, EMFILE, fdopendir, (int fd), (fd))
VESK_FAILING(dirent*, nullptr, EIO, ENOENT, readdir, (DIR * directory), (directory))
VESK_FAILING(int, -1, ENOMEM, EINVAL, munmap, (void* at, size_t size), (at, size))
VESK_FAILING(
    int, -1, EMFILE, EACCES, shm_open, (char const* name, int flags, mode_t mode), (name, flags, mode))
VESK_FAILING(int, -1, EACCES, ENOENT, shm_unlink, (char const* name), (name))
VESK_FAILING(int, -1, EACCES, ENOENT, mq_unlink, (char const* name), (name))
VESK_FAILING(int, -1, EACCES, ENOENT, sem_unlink, (char const* name), (name))
VESK_FAILING(int, -1, EBADF, EINVAL, mq_getattr, (mqd_t queue, mq_attr* attributes), (queue, attributes))
VESK_FAILING(int, -1, EMFILE, ENOBUFS, socket, (int family, int type, int protocol), (family, type, protocol))
VESK_FAILING(int, -1, EADDRINUSE, EACCES, bind, (int fd, sockaddr const* to, socklen_t size), (fd, to, size))
VESK_FAILING(
    int, -1, ECONNREFUSED, EAGAIN, connect, (int fd, sockaddr const* to, socklen_t size), (fd, to, size))
VESK_FAILING(int, -1, EADDRINUSE, EOPNOTSUPP, listen, (int fd, int backlog), (fd, backlog))
VESK_FAILING(
    int, -1, EMFILE, ECONNABORTED, accept4, (int fd, sockaddr* from, socklen_t* size, int flags),
    (fd, from, size, flags))
VESK_FAILING(
    int, -1, ENOPROTOOPT, EDOM, setsockopt,
    (int fd, int level, int option, void const* value, socklen_t size), (fd, level, option, value, size))
VESK_FAILING(
    int, -1, ENOBUFS, ENOTCONN, getsockname, (int fd, sockaddr* own, socklen_t* size), (fd, own, size))
VESK_FAILING(
    int, -1, ENOBUFS, ENOTCONN, getpeername, (int fd, sockaddr* peer, socklen_t* size), (fd, peer, size))
VESK_FAILING(int, -1, ENOTCONN, EINVAL, shutdown, (int fd, int how), (fd, how))
VESK_FAILING(int, -1, EPERM, EROFS, chmod, (char const* path, mode_t mode), (path, mode))
VESK_FAILING(int, -1, EPERM, EROFS, chown, (char const* path, uid_t user, gid_t group), (path, user, group))
VESK_FAILING(int, -1, EPERM, EROFS, utimes, (char const* path, timeval const* times), (path, times))
VESK_FAILING(ssize_t, -1, EACCES, EIO, readlink, (char const* path, char* to, size_t size), (path, to, size))
VESK_FAILING(char*, nullptr, EACCES, ELOOP, realpath, (char const* path, char* to), (path, to))
VESK_FAILING(char*, nullptr, ENOENT, EACCES, getcwd, (char* to, size_t size), (to, size))
VESK_FAILING(FILE*, nullptr, EMFILE, ENOMEM, fopen, (char const* path, char const* mode), (path, mode))
VESK_FAILING(int, -1, EMFILE, ENFILE, pipe, (int* ends), (ends))
VESK_FAILING(int, -1, ENOMEM, EINVAL, poll, (pollfd * set, nfds_t count, int ms), (set, count, ms))
VESK_FAILING(
    ssize_t, -1, ENOBUFS, ENOMEM, sendmsg, (int fd, msghdr const* data, int flags), (fd, data, flags))
VESK_FAILING(ssize_t, -1, ENOMEM, EIO, recvmsg, (int fd, msghdr* data, int flags), (fd, data, flags))
VESK_FAILING(int, -1, EAGAIN, ENOMEM, fork, (), ())
VESK_FAILING(int, -1, EPERM, EACCES, setpgid, (pid_t process, pid_t group), (process, group))
VESK_FAILING(
    int, -1, EAGAIN, ENOMEM, timer_create, (clockid_t clock, sigevent* event, timer_t* timer),
    (clock, event, timer))
VESK_FAILING(
    int, -1, EINVAL, EINVAL, timer_settime,
    (timer_t timer, int flags, itimerspec const* to, itimerspec* before), (timer, flags, to, before))
VESK_FAILING(
    int, -1, EINVAL, ENOMEM, sigaction, (int signal, struct sigaction const* to, struct sigaction* before),
    (signal, to, before))
VESK_FAILING_AFTER(timer_delete, (timer_t timer), (timer))

VESK_FAILING(int, -1, EIO, ENOTTY, tcgetattr, (int fd, termios* line), (fd, line))
VESK_FAILING(int, -1, EIO, EINVAL, tcsetattr, (int fd, int when, termios const* line), (fd, when, line))
VESK_FAILING(
    int, -1, EACCES, ENOENT, fstatat, (int fd, char const* path, struct stat* data, int flags),
    (fd, path, data, flags))
VESK_FAILING(
    int, -1, ENOPROTOOPT, ENOBUFS, getsockopt, (int fd, int level, int option, void* value, socklen_t* size),
    (fd, level, option, value, size))
VESK_FAILING(struct if_nameindex*, nullptr, ENOBUFS, ENOMEM, if_nameindex, (), ())

/// A variadic function with at most two more arguments.
#define VESK_FAILING_MORE(result, failure, error, other, name, parameters, last, arguments)                  \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        va_list list;                                                                                        \
        va_start(list, last);                                                                                \
        void* const more = va_arg(list, void*);                                                              \
        void* const most = va_arg(list, void*);                                                              \
        va_end(list);                                                                                        \
        if (failing::Plan::fails(#name, error, other)) {                                                     \
            return failure;                                                                                  \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }
VESK_FAILING_MORE(
    int, -1, ENOTTY, EIO, ioctl, (int fd, unsigned long call, ...), call, (fd, call, more, most))
VESK_FAILING_MORE(
    int, -1, EBADF, ENOLCK, fcntl, (int fd, int command, ...), command, (fd, command, more, most))
VESK_FAILING_MORE(
    int, -1, EMFILE, ENOENT, openat, (int fd, char const* path, int flags, ...), flags,
    (fd, path, flags, more, most))
VESK_FAILING_MORE(
    mqd_t, -1, EMFILE, EACCES, mq_open, (char const* name, int flags, ...), flags, (name, flags, more, most))
VESK_FAILING_MORE(
    sem_t*, SEM_FAILED, EMFILE, EACCES, sem_open, (char const* name, int flags, ...), flags,
    (name, flags, more, most))
