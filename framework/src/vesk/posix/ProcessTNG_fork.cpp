#include <vesk/ProcessTNG.h>

#include "ErrnoTable.h"
#include "SystemErrorText.h"
#include "ThreadSched.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <sched.h>
#include <unistd.h>

// What runs between fork and exec. The child has but one thread, with a copy of all memory: whatever lock another thread
// of the process held at that moment is held in it for ever. libc has seen to its own for the heap and for standard
// error; of the libraries' locks none may be taken in this file behind the fork.

namespace vesk {

using namespace detail;
using std::GlobalErrorHandler;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ProcessTNG_fork";

constexpr ErrnoRow FORK_ERRORS[] = {
    {{EAGAIN}, {SysError, 0}},
    {{ENOMEM}, {SysError, 1}},
    {OTHERS, {ProcessTNG::Error, 0}},
};

constexpr ErrnoRow AFFINITY_ERRORS[] = {
    {OTHERS, {SysError, 19}},
};

constexpr ErrnoRow GROUP_ERRORS[] = {
    {OTHERS, {SysError, 19}},
};

constexpr ErrnoRow EXEC_ERRORS[] = {
    {OTHERS, {ProcessTNG::Error, 0}, {FileAccessError, 0}},
};

static_assert((O_WRONLY | O_CREAT | O_APPEND) == 0x441 && (O_WRONLY | O_CREAT | O_TRUNC) == 0x241);

// The system's set has a fixed size, whatever the machine has.
static_assert(sizeof(cpu_set_t) == 128 && CPU_SETSIZE == 1024);

/// Runs an allocation until it succeeds.
template <typename Allocate>
auto insist(Allocate allocate, char const* function) noexcept {
    for (;;) {
        if (auto const memory = allocate()) {
            return memory;
        }
        GlobalErrorHandler::doOutOfMem(SOURCE, __LINE__, function, "native arguments vector");
    }
}

// ---- scheduling: the number of the failure, 0 for success ----

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

// ---- redirection ----

/// Who tells of a redirection that has failed, and of what. Which of the two is the program and which the stream differs
/// from stream to stream: so these lines are known to those that read them.
struct Names {
    char const* first;
    char const* second;
    int own_pid;
};

/// Writes one line in one piece, so that it does not mix with others.
void tell(Names const& names, std::string const& what, int error) {
    std::cerr << std::string(names.first) + " [" + std::to_string(names.own_pid) + "]: " + what +
            "Reason: " + strerror(error) + "\n"; // NOLINT(concurrency-mt-unsafe): there is no other thread.
}

std::string describeDup(int fd, int target, Names const& names) {
    return "Couldn't dup2 (" + std::to_string(fd) + " to " + std::to_string(target) + " ) new " +
        names.second;
}

void openOnto(int target, char const* path, int flags, Names const& names) {
    int const fd = open(path, flags, 0600);
    if (fd == -1) {
        int const error = errno;
        tell(names, std::string("Couldn't open new ") + names.second + " \"" + path + "\". ", error);
        return;
    }
    if (dup2(fd, target) == -1) {
        int const error = errno;
        tell(names, describeDup(fd, target, names) + " (\"" + path + "\") ! ", error);
        return; // With the descriptor open, for what it may still be good for.
    }
    close(fd);
}

/// Makes `to` a copy of `from`, and closes `from`.
void moveOnto(int to, int from, Names const& names) {
    if (dup2(from, to) == -1) {
        int const error = errno;
        tell(names, describeDup(from, to, names) + "! ", error);
    }
    close(from);
}

/// What was asked of one of the two streams that are written.
struct Output {
    int target;
    bool null;
    std::string const& file;
    bool append;
    int fd;
};

void redirectOutput(Output const& output, Names const& for_file, Names const& for_fd) {
    char const* const path = output.null ? "/dev/null" : output.file.c_str();
    if (*path != '\0') {
        openOnto(output.target, path, O_WRONLY | O_CREAT | (output.append ? O_APPEND : O_TRUNC), for_file);
    } else if (output.fd != -1) {
        moveOnto(output.target, output.fd, for_fd);
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

/// The object's texts in the arrays that exec takes. They last until exec or the end of the child.
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
            argv = insist([count] { return new (std::nothrow) char*[count + 2]; }, "getArgs");
            // exec changes none of them: only its type is older than const.
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
            envp = insist([count] { return new (std::nothrow) char*[count + 1]; }, "getEnv");
            for (size_t i = 0; i < count; ++i) {
                std::string const row = (*m_environment)[i].first + "=" + (*m_environment)[i].second;
                envp[i] = insist([&row] { return strdup(row.c_str()); }, "getEnv");
            }
            envp[count] = nullptr;
        }
        return envp;
    }

private:
    char** argv = nullptr;
    char** envp = nullptr;
    std::string const* m_executable;
    std::vector<std::string> const* m_arguments;
    std::vector<std::pair<std::string, std::string>> const* m_environment;
};

/// True on failure. Runs with the object's lock and the collector's held. Returns in the process only.
bool ProcessTNG::startChild() {
    in_new_group = new_group;
    pid = fork();
    if (pid == 0) {
        runChild();
    }
    if (pid != INVALID_PROCESS_ID) {
        return false;
    }
    classify(SOURCE, FORK_ERRORS, errno);
    return true;
}

/// The child. Its failures have no way back to the process; it goes on with them, but for that of exec. An exception must
/// not get out of here, where the caller's own code would run in the child.
void ProcessTNG::runChild() noexcept {
    int const own_pid = getpid();
    // What the process has not told yet, about its errors and on its buffered output, is the process's to tell.
    std::ErrorStorage::ack();
    std::cerr.tie(nullptr);

    unblockSignals();
    applyScheduling();
    applyAffinity();
    VectorTransformer vectors(*this);
    char** const args = vectors.getArgs();
    char** const env = vectors.getEnv();
    redirectStreams(own_pid);
    enterNewGroup();
    if (environment.empty()) {
        execv(executable.c_str(), args);
    } else {
        execve(executable.c_str(), args, env);
    }
    classify(SOURCE, EXEC_ERRORS, errno, executable.c_str());
    GlobalErrorHandler::doAbort(SOURCE, __LINE__, "startChild", "error calling exec() after fork()");
    _exit(1);
}

void ProcessTNG::applyScheduling() const {
    int error = 0;
    switch (sched_attrs.policy) {
    case sched::VESK_SCHED_POLICY_KEEP: {
        int const current = sched_getscheduler(0);
        error = priority_value == NO_PRIORITY ? keepPolicy(current, sched_attrs.param)
                                              : keepPolicy(current, sched_attrs.param, priority_value);
        break;
    }
    case sched::VESK_SCHED_POLICY_RR:
        error = setPolicy(SCHED_RR, sched_attrs.param.priority);
        break;
    case sched::VESK_SCHED_POLICY_FIFO:
        error = setPolicy(SCHED_FIFO, sched_attrs.param.priority);
        break;
    case sched::VESK_SCHED_POLICY_NORMAL:
        // Whoever may not change the policy may have the nice value all the same.
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
            SystemErrorText(error).get());
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
    // Without a processor in the set, too: that the system refuses it is how the caller gets to know.
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        classify(SOURCE, AFFINITY_ERRORS, errno);
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
        // The other way round than the two above, on purpose: programs count on it.
        moveOnto(stdin_fd, STDIN_FILENO, {program, "stdin", own_pid});
    }
}

void ProcessTNG::enterNewGroup() const {
    if (in_new_group && setpgid(0, 0) != 0) {
        classify(SOURCE, GROUP_ERRORS, errno);
        std::cerr << "Error setting new process group: " + tarn_error.getReasonList() + "\n";
        std::ErrorStorage::ack();
    }
}

} // namespace vesk
