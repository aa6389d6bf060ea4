#include "Spawn.h"

#include "SignalsBlocked.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/UniqueFd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// The child shares the memory of its parent until it executes the program, and runs on a stack of its own while the
// calling thread waits. It makes only async-signal-safe calls, and none that libc extends to all threads of the process.

// The number is the same on all architectures.
#ifndef SYS_close_range
#define SYS_close_range 436
#endif
// 32-bit systems have two forms of these calls; the unmarked one has ids of 16 bits.
#ifdef SYS_setresuid32
#define LOOP_SETRESUID SYS_setresuid32
#define LOOP_SETRESGID SYS_setresgid32
#define LOOP_SETGROUPS SYS_setgroups32
#else
#define LOOP_SETRESUID SYS_setresuid
#define LOOP_SETRESGID SYS_setresgid
#define LOOP_SETGROUPS SYS_setgroups
#endif

namespace vesk::loop::detail {

using vesk::detail::CancellationOff;
using vesk::detail::UniqueFd;

namespace {

constexpr unsigned int CLOSE_ON_EXEC = 4; // CLOSE_RANGE_CLOEXEC

// The sanitizers do not know that two processes share their tables.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SHARES_MEMORY = false;
#else
constexpr bool SHARES_MEMORY = true;
#endif

struct Context {
    Plan& plan;
    int status;
    // Written by the child. Stays false if the system has copied the memory nevertheless.
    volatile bool is_shared = false;
    volatile int step = 0;
    volatile int error = 0;
};

// ---- descriptors ----

/// Marks one descriptor to be closed by exec.
void markOne(int fd) noexcept {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/// Marks the open descriptors of a range, as listed by the system.
bool markListed(unsigned int first, unsigned int last) noexcept {
    int const folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return false;
    }
    struct Entry {
        uint64_t number;
        int64_t offset;
        unsigned short length;
        unsigned char type;
        char name[1];
    };
    alignas(Entry) char entries[2048];
    for (long size = 0; (size = syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0;) {
        for (long at = 0; at < size;) {
            auto const* const entry = reinterpret_cast<Entry const*>(entries + at);
            char const* const name = reinterpret_cast<char const*>(entry) + offsetof(Entry, name);
            auto const fd = static_cast<unsigned int>(strtoul(name, nullptr, 10));
            if (name[0] != '.' && fd >= first && fd <= last) {
                markOne(static_cast<int>(fd));
            }
            at += entry->length;
        }
    }
    close(folder);
    return true;
}

/// Lets exec close all descriptors of a range.
void mark(unsigned int first, unsigned int last) noexcept {
    if (first > last || syscall(SYS_close_range, first, last, CLOSE_ON_EXEC) == 0 ||
        markListed(first, last)) {
        return;
    }
    long const limit = sysconf(_SC_OPEN_MAX);
    for (unsigned int fd = first; fd <= last && static_cast<long>(fd) < limit; ++fd) {
        markOne(static_cast<int>(fd));
    }
}

/// Moves a descriptor out of the way of the targets.
bool moveAbove(int& fd, int highest) noexcept {
    if (fd <= highest) {
        fd = fcntl(fd, F_DUPFD_CLOEXEC, highest + 1);
    }
    return fd >= 0;
}

bool redirect(Plan& plan, int& status) noexcept {
    int const highest = plan.redirections.empty() ? 2 : std::max(plan.redirections.back().target, 2);
    if (!moveAbove(status, highest)) {
        return false;
    }
    for (Plan::Redirection& redirection : plan.redirections) {
        if (!moveAbove(redirection.source, highest)) {
            return false;
        }
    }
    unsigned int next = 0;
    for (Plan::Redirection const& redirection : plan.redirections) {
        if (dup2(redirection.source, redirection.target) < 0) {
            return false;
        }
        auto const target = static_cast<unsigned int>(redirection.target);
        if (target > next) {
            mark(next, target - 1);
        }
        next = target + 1;
    }
    mark(next, UINT_MAX);
    return true;
}

// ---- the other steps: each returns whether it succeeded, with `errno` set ----

bool setUser(Plan const& plan) noexcept {
    // The functions of libc would change all threads of the parent.
    return !plan.sets_user ||
        (syscall(LOOP_SETGROUPS, plan.groups.size(), plan.groups.data()) == 0 &&
         syscall(LOOP_SETRESGID, plan.group, plan.group, plan.group) == 0 &&
         syscall(LOOP_SETRESUID, plan.user, plan.user, plan.user) == 0);
}

bool setLimits(Plan const& plan) noexcept {
    return std::all_of(plan.limits.begin(), plan.limits.end(), [](std::pair<int, rlim_t> const& limit) {
        rlimit const value{limit.second, limit.second};
        return setrlimit(static_cast<__rlimit_resource>(limit.first), &value) == 0;
    });
}

/// Handlers must not run in the child, and the program must not inherit ignored signals.
void resetSignals() noexcept {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr); // NOLINT(concurrency-mt-unsafe): there is one thread.
}

/// Tries the paths as the search of a shell does. Returns why none was executed.
int execute(Plan const& plan) noexcept {
    int result = ENOENT;
    for (std::string const& path : plan.paths) {
        execve(path.c_str(), plan.argv.data(), plan.envp.data());
        if (errno == EACCES) {
            result = EACCES; // Another folder may have one that can be executed.
        } else if (errno != ENOENT && errno != ENOTDIR) {
            return errno;
        }
    }
    return result;
}

/// Returns only on failure.
Failure run(Plan& plan, int& status) noexcept {
    if (plan.is_session && setsid() < 0) {
        return {Step::SESSION, errno};
    }
    if (plan.sets_process_group && setpgid(0, plan.process_group) != 0) {
        return {Step::GROUP, errno};
    }
    if (!redirect(plan, status)) {
        return {Step::DESCRIPTORS, errno};
    }
    if (!setLimits(plan)) {
        return {Step::LIMITS, errno};
    }
    if (!setUser(plan)) {
        return {Step::USER, errno};
    }
    if (plan.folder != nullptr && chdir(plan.folder) != 0) {
        return {Step::FOLDER, errno};
    }
    resetSignals();
    return {Step::EXECUTE, execute(plan)};
}

int runChild(void* argument) noexcept {
    Context& context = *static_cast<Context*>(argument);
    context.is_shared = true;
    Failure const failure = run(context.plan, context.status);
    context.step = static_cast<int>(failure.step);
    context.error = failure.error;
    ssize_t const written = write(context.status, &failure, sizeof failure);
    _exit(written == sizeof failure ? 127 : 126);
}

pid_t createChild(Context& context) noexcept {
    if constexpr (SHARES_MEMORY) {
        alignas(64) char stack[32 * 1024];
        return clone(runChild, stack + sizeof stack, CLONE_VM | CLONE_VFORK | SIGCHLD, &context);
    } else {
        pid_t const child = fork();
        if (child == 0) {
            runChild(&context);
        }
        context.is_shared = false;
        return child;
    }
}

/// Returns the failure of a child that was started by `fork`: it comes by the pipe, which exec closes.
Failure receive(int pipe) noexcept {
    Failure failure;
    ssize_t size = 0;
    do {
        size = read(pipe, &failure, sizeof failure);
    } while (size < 0 && errno == EINTR);
    return size == sizeof failure ? failure : Failure{};
}

} // namespace

pid_t spawn(Plan& plan, Failure& failure) noexcept {
    CancellationOff const cancellation_off;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        failure = {Step::CREATE, errno};
        return -1;
    }
    UniqueFd const reader(ends[0]);
    UniqueFd writer(ends[1]);
    Context context{plan, writer.get()};
    pid_t child = -1;
    {
        SignalsBlocked const blocked;
        child = createChild(context);
        failure = {Step::CREATE, child < 0 ? errno : 0};
    }
    writer.close();
    if (child < 0) {
        return -1;
    }
    failure =
        context.is_shared ? Failure{static_cast<Step>(context.step), context.error} : receive(reader.get());
    if (failure.error != 0) {
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {}
        return -1;
    }
    return child;
}

} // namespace vesk::loop::detail
