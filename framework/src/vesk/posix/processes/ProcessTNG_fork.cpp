#include <vesk/ProcessTNG.h>

#include "ProcessImpl.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SignalsBlocked.h"
#include "vesk/posix/detail/SystemErrorText.h"
#include "vesk/posix/threads/ThreadSched.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/Vesk.h>

#include <common/error/ErrorHelper.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sched.h>
#include <unistd.h>

// Between fork and exec the child has one thread and a copy of all memory. A lock that another thread of the
// process held at the moment of the fork stays locked in the child: libc resets the locks of the heap and of
// its streams, but neither that of the locale, which `strerror` takes, nor those of other libraries.
// Therefore the child makes only async-signal-safe calls. The memory that it needs is allocated before the
// fork, and its texts are built on its stack.

namespace vesk {

using namespace detail;
using std::GlobalErrorHandler;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ProcessTNG_fork";

constexpr ErrnoRow FORK_ERRORS[] = {
    {{EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {OTHERS, ProcessTNG::ErrorId::START_FAILED},
};

static_assert((O_WRONLY | O_CREAT | O_APPEND) == 0x441 && (O_WRONLY | O_CREAT | O_TRUNC) == 0x241);

// The kernel accepts a set of this fixed size on every machine.
static_assert(sizeof(cpu_set_t) == 128 && CPU_SETSIZE == 1024);

constexpr char const* VECTOR = "native arguments vector";

// ---- scheduling: each function returns the error number, or 0 on success ----

int setPolicy(int policy, int priority) noexcept {
    sched_param param{};
    param.sched_priority = priority;
    return sched_setscheduler(0, policy, &param) == 0 ? 0 : errno;
}

int setTimeSharing(int nice) noexcept {
    int const error = setPolicy(SCHED_OTHER, 0);
    return error != 0 ? error : setNice(0, nice);
}

int keepPolicy(int current, sched::Param const& param) noexcept {
    return current == SCHED_OTHER ? setNice(0, param.nice) : setPolicy(current, param.priority);
}

int keepPolicy(int current, sched::Param const& param, int priority) noexcept {
    switch (current) {
    case SCHED_FIFO:
    case SCHED_RR:
        return setPolicy(current, priority);
    case SCHED_OTHER:
        return setTimeSharing(priority);
    default:
        return keepPolicy(current, param);
    }
}

// ---- messages of the child ----

/// One line on standard error, collected on the stack. It is written with a single `write`, so that it does
/// not mix with other lines. A line longer than `PIPE_BUF` is written in several pieces.
class ErrorLine : private tarnbase::NonCopyable {
public:
    ~ErrorLine() { flush(); }

    ErrorLine& put(char const* text) noexcept {
        for (; *text != '\0'; ++text) {
            if (m_length == sizeof m_text) {
                flush();
            }
            m_text[m_length++] = *text;
        }
        return *this;
    }

    ErrorLine& put(int number) noexcept {
        char digits[16]{};
        std::to_chars(digits, digits + sizeof digits - 1, number);
        return put(digits);
    }

    /// Appends the system's text for an error number.
    ErrorLine& putError(int error) noexcept {
        char const* const text = getErrorDescription(error);
        return text != nullptr ? put(text) : put("Unknown error ").put(error);
    }

private:
    /// Ignores failures: there is no other channel to report them on.
    void flush() noexcept {
        char const* at = m_text;
        while (m_length > 0) {
            ssize_t const done = retryOnEintr([&] { return write(STDERR_FILENO, at, m_length); });
            if (done <= 0) {
                break; // LCOV_EXCL_LINE: only if standard error cannot be written
            }
            at += done;
            m_length -= static_cast<size_t>(done);
        }
        m_length = 0;
    }

    char m_text[PIPE_BUF];
    size_t m_length = 0;
};

// ---- redirection ----

/// The names in the messages about one redirection. Which of the two is the program and which the stream
/// differs from stream to stream. The word order is fixed: log parsers depend on it.
struct Names {
    char const* first;
    char const* second;
    int own_pid;
};

void tellOpen(Names const& names, char const* path, int error) noexcept {
    ErrorLine line;
    line.put(names.first).put(" [").put(names.own_pid).put("]: Couldn't open new ").put(names.second);
    line.put(" \"").put(path).put("\". Reason: ").putError(error).put("\n");
}

/// Reports a failed `dup2`. `path` is null if the caller gave a descriptor.
void tellDup(Names const& names, int fd, int target, char const* path, int error) noexcept {
    ErrorLine line;
    line.put(names.first).put(" [").put(names.own_pid).put("]: Couldn't dup2 (").put(fd);
    line.put(" to ").put(target).put(" ) new ").put(names.second);
    if (path != nullptr) {
        line.put(" (\"").put(path).put("\") ");
    }
    line.put("! Reason: ").putError(error).put("\n");
}

void openOnto(int target, char const* path, int flags, Names const& names) noexcept {
    int const fd = open(path, flags, 0600);
    if (fd == -1) {
        tellOpen(names, path, errno);
        return;
    }
    if (fd == target) {
        return; // The process had no such stream, so `open` returned `target` itself.
    }
    if (dup2(fd, target) == -1) {
        tellDup(names, fd, target, path, errno);
        return; // Leaves `fd` open: the program may still use it.
    }
    close(fd);
}

/// Makes `to` a copy of `from`, and closes `from`. If both are equal, the descriptor stays open, also across
/// exec.
void moveOnto(int to, int from, Names const& names) noexcept {
    if (from == to) {
        if (fcntl(to, F_SETFD, 0) == -1) {
            tellDup(names, from, to, nullptr, errno);
        }
        return;
    }
    if (dup2(from, to) == -1) {
        tellDup(names, from, to, nullptr, errno);
    }
    close(from);
}

/// The redirection settings of standard output or standard error.
struct Output {
    int target;
    bool null;
    std::string const& file;
    bool append;
    int fd;
};

void redirectOutput(Output const& output, Names const& for_file, Names const& for_fd) noexcept {
    char const* const path = output.null ? "/dev/null" : output.file.c_str();
    if (*path != '\0') {
        openOnto(output.target, path, O_WRONLY | O_CREAT | (output.append ? O_APPEND : O_TRUNC), for_file);
    } else if (output.fd != -1) {
        moveOnto(output.target, output.fd, for_fd);
    }
}

// ---- signals ----

/// Resets the handlers of the process to the default action, as exec does: a handler that runs in the child
/// would consume a signal that was sent to the program, and act on objects that belong to the process.
void dropHandlers() noexcept {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN) {
            action = {};
            action.sa_handler = SIG_DFL;
            sigaction(signal, &action, nullptr);
        }
    }
}

void unblockSignals() {
    sigset_t all;
    sigfillset(&all);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread.
    if (sigprocmask(SIG_UNBLOCK, &all, nullptr) != 0) {
        GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "startChild", "after fork(): error unblocking signals");
    }
}

} // namespace

/// The object's texts as the arrays that exec expects.
class ProcessTNG::VectorTransformer : private tarnbase::NonCopyable {
public:
    explicit VectorTransformer(ProcessTNG const& process) noexcept
        : m_executable(&process.executable),
          m_arguments(&process.arguments),
          m_environment(&process.environment) {}

    ~VectorTransformer() {
        delete[] argv;
        for (char** row = envp; row != nullptr && *row != nullptr; ++row) {
            free(*row);
        }
        delete[] envp;
    }

    [[gnu::used]] VESK_API char** getArgs() noexcept {
        if (argv == nullptr) {
            size_t const count = m_arguments->size();
            argv = std::allocateOrWait(
                [count] { return new (std::nothrow) char*[count + 2]; }, SOURCE, "getArgs", VECTOR);
            // exec does not modify the texts: its parameter type lacks `const` for historical reasons.
            argv[0] = const_cast<char*>(m_executable->c_str());
            for (size_t i = 0; i < count; ++i) {
                argv[i + 1] = const_cast<char*>((*m_arguments)[i].c_str());
            }
            argv[count + 1] = nullptr;
        }
        return argv;
    }

    [[gnu::used]] VESK_API char** getEnv() noexcept {
        if (envp == nullptr) {
            size_t const count = m_environment->size();
            envp = std::allocateOrWait(
                [count] { return new (std::nothrow) char*[count + 1]; }, SOURCE, "getEnv", VECTOR);
            for (size_t i = 0; i < count; ++i) {
                envp[i] = std::allocateOrWait(
                    [this, i] { return makeRow((*m_environment)[i]); }, SOURCE, "getEnv", VECTOR);
            }
            envp[count] = nullptr;
        }
        return envp;
    }

private:
    static char* makeRow(std::pair<std::string, std::string> const& variable) noexcept {
        try {
            return strdup((variable.first + "=" + variable.second).c_str());
        } catch (std::bad_alloc const&) {
            return nullptr;
        }
    }

    char** argv = nullptr;
    char** envp = nullptr;
    std::string const* m_executable;
    std::vector<std::string> const* m_arguments;
    std::vector<std::pair<std::string, std::string>> const* m_environment;
};

/// Forks the child. Returns in the calling process only, true on failure. The caller holds the object's lock
/// and the collector's lock.
bool ProcessTNG::startChild() {
    in_new_group = new_group;
    VectorTransformer vectors(*this);
    char** const args = vectors.getArgs();
    char** const env = environment.empty() ? nullptr : vectors.getEnv();
    // The first use of the thread's error store may allocate thread-local memory, which the child must not
    // do.
    std::ErrorStorage::isError(true);

    // A signal that is sent to the child before its handlers are reset stays pending until then.
    SignalsBlocked const signals_blocked;
    pid = fork();
    if (pid == 0) {
        runChild(args, env);
    }
    if (pid == INVALID_PROCESS_ID) {
        classify(SOURCE, FORK_ERRORS, errno);
        return true;
    }
    if (in_new_group) {
        // Both the process and the child call `setpgid`, so that the group exists before the program runs and
        // before `start` returns. A failure here is ignored: either the program has been executed already, or
        // the child's own call fails and the child reports it.
        setpgid(pid, pid);
    }
    return false;
}

/// Runs in the child. Failures cannot be reported to the process: the child continues after each of them,
/// except after a failed exec. `noexcept`: an exception must not leave this function, because the caller's
/// code would then run in the child.
void ProcessTNG::runChild(char* const* args, char* const* env) noexcept {
    int const own_pid = getpid();
    // Discards the copies of the process's pending reports: the process itself reports them.
    std::ErrorStorage::ack();

    dropHandlers();
    unblockSignals();
    applyScheduling();
    applyAffinity();
    redirectStreams(own_pid);
    enterNewGroup();
    if (env == nullptr) {
        execv(executable.c_str(), args);
    } else {
        execve(executable.c_str(), args, env);
    }
    report(SOURCE, Chain::NEW, ErrorId::START_FAILED, UntranslatedErrorText().get());
    report(SOURCE, Chain::ON_TOP, FileAccessErrorId::BAD_PATH, executable.c_str());
    GlobalErrorHandler::doAbort(SOURCE, __LINE__, "startChild", "error calling exec() after fork()");
    _exit(1);
}

void ProcessTNG::applyScheduling() const {
    int error = 0;
    switch (sched_attrs.policy) {
    case sched::VESK_SCHED_POLICY_KEEP:
        error = priority_value == NO_PRIORITY
            ? keepPolicy(sched_getscheduler(0), sched_attrs.param)
            : keepPolicy(sched_getscheduler(0), sched_attrs.param, priority_value);
        break;
    case sched::VESK_SCHED_POLICY_RR:
        error = setPolicy(SCHED_RR, sched_attrs.param.priority);
        break;
    case sched::VESK_SCHED_POLICY_FIFO:
        error = setPolicy(SCHED_FIFO, sched_attrs.param.priority);
        break;
    case sched::VESK_SCHED_POLICY_NORMAL:
        // The nice value can be permitted even if changing the policy is not.
        setPolicy(SCHED_OTHER, 0);
        error = setNice(0, sched_attrs.param.nice);
        break;
    default:
        break;
    }
    if (error != 0) {
        GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "startChild",
            "ProcessTNG::startChild (forked): Error applying scheduling policy/parameters: %s",
            UntranslatedErrorText(error).get());
    }
}

void ProcessTNG::applyAffinity() const {
    if (affinity.empty()) {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    size_t const count =
        std::min({affinity.size(), size_t{Vesk::s_sys_info.processor_count}, size_t{CPU_SETSIZE}});
    for (size_t i = 0; i < count; ++i) {
        if (affinity[i]) {
            CPU_SET(i, &set);
        }
    }
    // Also called with an empty set: the system's refusal is how the caller learns of it.
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        report(SOURCE, Chain::NEW, SysErrorId::UNCLASSIFIED, UntranslatedErrorText().get());
        GlobalErrorHandler::doWarning(SOURCE, __LINE__, "startChild", "after fork(): Error setting affinity");
        std::ErrorStorage::ack();
    }
}

void ProcessTNG::redirectStreams(int own_pid) const {
    char const* const program = executable.c_str();
    redirectOutput(
        {STDOUT_FILENO, stdout_null, stdout_file, stdout_append, stdout_fd}, {program, "stdout", own_pid},
        {"stdout", program, own_pid});
    redirectOutput(
        {STDERR_FILENO, stderr_null, stderr_file, stderr_append, stderr_fd}, {program, "stderr", own_pid},
        {program, "stderr", own_pid});
    if (!stdin_file.empty()) {
        openOnto(STDIN_FILENO, stdin_file.c_str(), O_RDONLY, {"stdin", program, own_pid});
    } else if (stdin_fd != -1) {
        // Reversed compared with standard output and standard error. Required by callers: programs rely on
        // it.
        moveOnto(stdin_fd, STDIN_FILENO, {program, "stdin", own_pid});
    }
}

void ProcessTNG::enterNewGroup() const {
    if (!in_new_group || setpgid(0, 0) == 0) {
        return;
    }
    report(SOURCE, Chain::NEW, SysErrorId::UNCLASSIFIED, UntranslatedErrorText().get());
    {
        // Formats this single report as `ErrorApi::getReasonList` does, but without using the heap.
        std::ErrorObject const& reason = *std::ErrorStorage::get();
        ErrorLine line;
        line.put("Error setting new process group: ").put(reason.file).put(":").put(reason.line);
        line.put(": ").put(reason.getText()).put("\n");
    }
    std::ErrorStorage::ack();
}

} // namespace vesk
