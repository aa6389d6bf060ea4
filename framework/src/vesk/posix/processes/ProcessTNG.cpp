#include <vesk/ProcessTNG.h>

#include "ProcessImpl.h"
#include "vesk/common/Report.h"
#include "vesk/posix/detail/Insist.h"
#include <vesk/common/CancellationOff.h>

#include <vesk/AbsTime.h>
#include <vesk/FileAccess.h>
#include <vesk/FileAccessError.h>
#include <vesk/FileInfo.h>
#include <vesk/SysError.h>
#include <vesk/Vesk.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/Export.h>
#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/tracing/Channel.h>

#include <iterator>

namespace vesk {

using namespace detail;
using std::GlobalErrorHandler;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ProcessTNG";

constexpr std::ErrorID ROWS[] = {
    {0, "Failed to start child process: %s", 1}, {1, "Failed to create process object: %s", 1},
    {2, "Failed to kill child process: %s", 1},  {3, "Failed to wait for child process: %s", 1},
    {4, "Process could not be found: %s", 1},
};

// Registered so that the channel is found by its name; no trace output uses it at present.
tracing::Channel s_channel("FW_Vesk_Process", 7, tracing::Channel::WITH_THREAD);

using InternalLock = AbortingLock<Mutex const>;

/// Returns the time `timeout_ms` from now. A time that overflows becomes `TimePoint::MAX`, which is never
/// reached.
AbsTimeT getDeadline(long long timeout_ms) noexcept {
    long long deadline_ms = 0;
    if (__builtin_add_overflow(tarnbase::TimePoint::now().getCount(), timeout_ms, &deadline_ms)) {
        return AbsTimeT(tarnbase::TimePoint::MAX.getCount());
    }
    return AbsTimeT(deadline_ms);
}

} // namespace

TARN_CONSTANT_INIT std::ErrorType const ProcessTNG::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT char const* const ProcessTNG::ExecutableSuffix = "";

// ---- set-up and shutdown ----

bool ProcessTNG::init(bool lazy) {
    GlobalErrorHandler::doAssert(
        g_lazy_process_init == nullptr, "!g_lazy_process_init", PROCESS_IMPL_SOURCE, __LINE__, "init",
        nullptr);
    g_lazy_process_init = new LazyProcessInit;
    GlobalErrorHandler::doAssert(
        g_lazy_process_static_init == nullptr, "!g_lazy_process_static_init", PROCESS_IMPL_SOURCE, __LINE__,
        "init", nullptr);
    g_lazy_process_static_init = new LazyProcessStaticInit;
    return !lazy &&
        (g_lazy_process_init->checkInit(nullptr) || g_lazy_process_static_init->checkInit(nullptr));
}

void ProcessTNG::exit() {
    delete g_lazy_process_init;
    g_lazy_process_init = nullptr;
    delete g_lazy_process_static_init;
    g_lazy_process_static_init = nullptr;
    // The destructor of the lock warns and acknowledges its reports itself.
    delete g_process_static_impl;
    g_process_static_impl = nullptr;
    if (g_process_impl == nullptr) {
        return;
    }
    g_process_impl->stop();
    delete g_process_impl;
    g_process_impl = nullptr;
}

// ---- the object ----

ProcessTNG::ProcessTNG() {
    init();
}

ProcessTNG::ProcessTNG(std::string const& path) : ProcessTNG() {
    static_cast<void>(setExecutable(path));
}

ProcessTNG::ProcessTNG(std::string const& path, std::vector<std::string> const& argument_list)
    : ProcessTNG(path) {
    setArguments(argument_list);
}

ProcessTNG::~ProcessTNG() {
    CancellationOff const cancellation_off;
    InternalLock const lock(mutex, SOURCE, "~ProcessTNG");
    while (pid != INVALID_PROCESS_ID) {
        if (exit_condition.wait(mutex)) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "~ProcessTNG", "error waiting on condition");
        }
    }
}

void ProcessTNG::init() {
    bool failed = true;
    if (g_lazy_process_init != nullptr) {
        failed = g_lazy_process_init->checkInit(nullptr);
    } else {
        report(SOURCE, Chain::NEW, Vesk::ErrorId::INIT_FAILED, "process impl. object is invalid");
    }
    InternalLock const lock(mutex, SOURCE, "init");
    invalid = failed;
    priority_value = NO_PRIORITY;
    stdout_null = false;
    stderr_null = false;
    stdout_append = false;
    stderr_append = false;
    new_group = false;
}

bool ProcessTNG::isValid() const {
    InternalLock const lock(mutex, SOURCE, "isValid");
    return !invalid;
}

int ProcessTNG::getPid() const {
    InternalLock const lock(mutex, SOURCE, "getPid");
    return pid;
}

int ProcessTNG::getLastPid() const {
    InternalLock const lock(mutex, SOURCE, "getLastPid");
    return last_pid;
}

// ---- the end of a child ----

/// Reaps the child under the object's lock: its id cannot be reused before that, and `kill` finds no child in
/// the object afterwards. Wakes a waiter first, then calls the listener. The waiter may destroy the object at
/// once, so the listener and the state are local copies.
void ProcessTNG::processExited(ProcessTNG* process, bool was_killed, int exit_status) {
    ExitState state;
    state.exited = true;
    state.killed = was_killed;
    state.status = exit_status;
    state.process = process;
    ExitListener* listener = nullptr;
    {
        InternalLock const lock(process->mutex, PROCESS_IMPL_SOURCE, "processExited");
        if (process->pid != INVALID_PROCESS_ID) {
            ProcessImpl::reap(process->pid);
        }
        listener = process->exit_listener;
        process->m_last_state = state;
        process->last_pid = process->pid;
        process->pid = INVALID_PROCESS_ID;
        if (process->exit_condition.signal()) {
            GlobalErrorHandler::doAbort(
                PROCESS_IMPL_SOURCE, __LINE__, "processExited", "error signaling condition");
        }
    }
    if (listener != nullptr) {
        listener->processExited(&state);
    }
}

// ---- settings for the next child ----

bool ProcessTNG::setExecutable(std::string const& path) {
    FileInfo const info(path, true);
    bool failed = !info.isValid();
    if (!failed && (info.getAccess() & FileAccess::owner_exec) == FileAccess::none) {
        report(SOURCE, Chain::NEW, FileAccessErrorId::BAD_PATH, path.c_str());
        failed = true;
    }
    InternalLock const lock(mutex, SOURCE, "setExecutable");
    executable = path;
    invalid = invalid || failed;
    return failed;
}

void ProcessTNG::setArguments(std::vector<std::string> const& argument_list) {
    InternalLock const lock(mutex, SOURCE, "setArguments");
    arguments = argument_list;
}

void ProcessTNG::setEnvironment(std::vector<std::pair<std::string, std::string>> const& variables) {
    InternalLock const lock(mutex, SOURCE, "setEnvironment");
    environment = variables;
}

void ProcessTNG::setStdoutFile(std::string const& path, bool append) {
    InternalLock const lock(mutex, SOURCE, "setStdoutFile");
    stdout_file = path;
    stdout_append = append;
}

void ProcessTNG::setStderrFile(std::string const& path, bool append) {
    InternalLock const lock(mutex, SOURCE, "setStderrFile");
    stderr_file = path;
    stderr_append = append;
}

void ProcessTNG::setStdinFile(std::string const& path) {
    InternalLock const lock(mutex, SOURCE, "setStdinFile");
    stdin_file = path;
}

void ProcessTNG::setStdoutFd(int fd) {
    InternalLock const lock(mutex, SOURCE, "setStdoutFd");
    stdout_fd = fd;
}

void ProcessTNG::setStderrFd(int fd) {
    InternalLock const lock(mutex, SOURCE, "setStderrFd");
    stderr_fd = fd;
}

void ProcessTNG::setStdinFd(int fd) {
    InternalLock const lock(mutex, SOURCE, "setStdinFd");
    stdin_fd = fd;
}

void ProcessTNG::setStdoutNull(bool use_null) {
    InternalLock const lock(mutex, SOURCE, "setStdoutNull");
    stdout_null = use_null;
}

void ProcessTNG::setStderrNull(bool use_null) {
    InternalLock const lock(mutex, SOURCE, "setStderrNull");
    stderr_null = use_null;
}

void ProcessTNG::setNewGroup(bool use_new_group) {
    InternalLock const lock(mutex, SOURCE, "setNewGroup");
    new_group = use_new_group;
}

bool ProcessTNG::setPriority(bool use_default, int priority) {
    InternalLock const lock(mutex, SOURCE, "setPriority");
    priority_value = use_default ? NO_PRIORITY : priority;
    sched_attrs.policy = use_default ? sched::VESK_SCHED_NOOP : sched::VESK_SCHED_POLICY_KEEP;
    return false;
}

bool ProcessTNG::setSchedAttrs(sched::Attr const& attrs) {
    InternalLock const lock(mutex, SOURCE, "setSchedAttrs");
    sched_attrs = attrs;
    return false;
}

void ProcessTNG::setAffinity(std::vector<bool> const& processors) {
    InternalLock const lock(mutex, SOURCE, "setAffinity");
    affinity = processors;
}

void ProcessTNG::setExitListener(ExitListener* listener) {
    InternalLock const lock(mutex, SOURCE, "setExitListener");
    exit_listener = listener;
}

// ---- running a child ----

/// Starts the child. The collector's lock is held from before the fork until the entry exists: the child may
/// have ended by then. Releases both locks.
int ProcessTNG::startLocked(ProcessImpl& impl, ProcessImpl::Children& entry) TARN_RELEASE(mutex)
    TARN_RELEASE(impl.mutex) {
    if (startChild()) {
        unlockOrAbort(SOURCE, mutex, "start");
        unlockOrAbort(SOURCE, impl.mutex, "start");
        return INVALID_PROCESS_ID;
    }
    auto node = entry.extract(INVALID_PROCESS_ID);
    node.key() = pid;
    auto const entered = impl.proc_obj_map.insert(std::move(node));
    GlobalErrorHandler::doAssert(entered.inserted, "entered.inserted", SOURCE, __LINE__, "start", nullptr);
    // An existing entry of this id belongs to a child that something else has reaped: its exit state never
    // arrives.
    entered.position->second = this;
    if (impl.condition.signal()) {
        GlobalErrorHandler::doAbort(SOURCE, __LINE__, "start", "error signaling condition");
    }
    unlockOrAbort(SOURCE, impl.mutex, "start");
    int const started = pid;
    unlockOrAbort(SOURCE, mutex, "start");
    return started;
}

/// Not analyzed: after a failed lock of the collector the object stays locked.
int ProcessTNG::start() TARN_NOT_ANALYZED {
    // Cancellation must not leave the locks held, and must not act a second time in the child.
    CancellationOff const cancellation_off;
    // Allocated before any lock is taken and before the fork, so that a failure leaves nothing behind.
    ProcessImpl::Children entry{{INVALID_PROCESS_ID, this}};

    if (mutex.lock()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::START_FAILED, "locking operation failed");
        return INVALID_PROCESS_ID;
    }
    if (pid != INVALID_PROCESS_ID) {
        unlockOrAbort(SOURCE, mutex, "start");
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "There is already a child running.");
        return INVALID_PROCESS_ID;
    }
    m_last_state = ExitState();

    ProcessImpl* const impl = g_process_impl;
    GlobalErrorHandler::doAssert(impl != nullptr, "g_process_impl", SOURCE, __LINE__, "start", nullptr);
    if (impl == nullptr) {
        unlockOrAbort(SOURCE, mutex, "start");
        report(SOURCE, Chain::NEW, Vesk::ErrorId::INIT_FAILED, "process impl. object is invalid");
        report(SOURCE, Chain::ON_TOP, ErrorId::START_FAILED, "locking operation failed");
        return INVALID_PROCESS_ID;
    }
    if (impl->mutex.lock()) {
        // The object stays locked on purpose: no use of it can succeed after this failure.
        report(SOURCE, Chain::ON_TOP, ErrorId::START_FAILED, "locking operation failed");
        return INVALID_PROCESS_ID;
    }
    return startLocked(*impl, entry);
}

bool ProcessTNG::wait(ExitState& state, bool timed, long long timeout) {
    MutexLock lock(mutex);
    if (!lock.isLocked()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::WAIT_FAILED, "locking operation failed");
        return true;
    }
    if (pid == INVALID_PROCESS_ID && !m_last_state.hasExited()) {
        static_cast<void>(lock.unlock());
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "no child process running, no child exit states left");
        return true;
    }
    state = ExitState();
    state.process = this;
    AbsTimeT const deadline = timed ? getDeadline(timeout) : AbsTimeT();
    while (pid != INVALID_PROCESS_ID) {
        int const result = timed         ? exit_condition.waitTimeout(mutex, deadline)
            : exit_condition.wait(mutex) ? -1
                                         : 0;
        if (result < 0) {
            report(SOURCE, Chain::ON_TOP, ErrorId::WAIT_FAILED, "wait for process exit signal failed");
            return true;
        }
        if (result > 0) {
            return false;
        }
    }
    GlobalErrorHandler::doAssert(
        m_last_state.hasExited(), "m_last_state.hasExited()", SOURCE, __LINE__, "wait", nullptr);
    state = m_last_state;
    m_last_state = ExitState();
    last_pid = INVALID_PROCESS_ID;
    if (lock.unlock()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::WAIT_FAILED, "unlocking operation failed");
        return true;
    }
    return false;
}

bool ProcessTNG::kill(bool graceful) {
    MutexLock lock(mutex);
    if (!lock.isLocked()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::KILL_FAILED, "locking operation failed");
        return true;
    }
    if (pid == INVALID_PROCESS_ID) {
        return false;
    }
    bool failed = killProcess(in_new_group ? -pid : pid, graceful);
    if (failed && std::ErrorStorage::is(ErrorId::NOT_FOUND)) {
        // The child has ended, and the collector has not processed its end yet.
        std::ErrorStorage::ack();
        failed = false;
    }
    if (lock.unlock()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::KILL_FAILED, "unlocking operation failed");
        return true;
    }
    return failed;
}

} // namespace vesk
