#include "ProcessImpl.h"

#include "vesk/common/Report.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/Insist.h"
#include "vesk/posix/detail/SignalsBlocked.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/AbsTime.h>
#include <vesk/KeptChildren.h>
#include <vesk/Vesk.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/Export.h>
#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <sys/wait.h>

namespace vesk {

using namespace detail;
using std::GlobalErrorHandler;

namespace {

constexpr char const* SOURCE = PROCESS_IMPL_SOURCE;

// How long the collector pauses after a failed wait before it waits again.
constexpr long long WAIT_AGAIN_MS = 100;

// How long it pauses while a kept child has ended and is not reaped yet, which ends every wait for any child.
constexpr long long KEPT_AGAIN_MS = 10;

/// Resets an ignored `SIGCHLD` to its default action, and clears `SA_NOCLDWAIT`: with either of them the
/// kernel discards the exit states of children. A program inherits an ignored `SIGCHLD` across exec.
void keepEndsOfChildren() noexcept {
    struct sigaction action {};
    if (sigaction(SIGCHLD, nullptr, &action) != 0) {
        return; // LCOV_EXCL_LINE: fails only for numbers that are no signal
    }
    if (action.sa_handler == SIG_IGN) {
        action = {};
        action.sa_handler = SIG_DFL;
    } else if ((action.sa_flags & SA_NOCLDWAIT) != 0) {
        action.sa_flags &= ~SA_NOCLDWAIT;
    } else {
        return;
    }
    sigaction(SIGCHLD, &action, nullptr);
}

/// Waits for the end of one child or of any child. With `WNOWAIT` the child is not reaped and keeps its id.
int waitForEnd(idtype_t type, int pid, siginfo_t& info, int options) {
    return retryOnEintr([&] { return waitid(type, static_cast<id_t>(pid), &info, WEXITED | options); });
}

} // namespace

TARN_CONSTANT_INIT ProcessImpl* g_process_impl = nullptr;
TARN_CONSTANT_INIT ProcessStaticImpl* g_process_static_impl = nullptr;
TARN_CONSTANT_INIT LazyProcessInit* g_lazy_process_init = nullptr;
TARN_CONSTANT_INIT LazyProcessStaticInit* g_lazy_process_static_init = nullptr;

// ---- the collector ----

ProcessImpl::ProcessImpl() : thread(threadEntry, nullptr, "vesk::ProcessCollector") {}

ProcessImpl::~ProcessImpl() {
    GlobalErrorHandler::doAssert(
        !collector_running, "!collector_running", SOURCE, __LINE__, "~ProcessImpl", nullptr);
    GlobalErrorHandler::doAssert(
        proc_obj_map.empty(), "proc_obj_map.empty()", SOURCE, __LINE__, "~ProcessImpl", nullptr);
}

void ProcessImpl::threadEntry(void*) {
    GlobalErrorHandler::doAssert(
        g_process_impl != nullptr, "g_process_impl", SOURCE, __LINE__, "threadEntry", nullptr);
    g_process_impl->processCollector();
}

/// Reaps all children before stopping, so that every starter learns the exit state.
void ProcessImpl::processCollector() {
    lockOrAbort(SOURCE, mutex, "processCollector");
    for (;;) {
        while (!proc_obj_map.empty()) {
            unlockOrAbort(SOURCE, mutex, "processCollector");
            waitChild();
        }
        if (!collector_running) {
            unlockOrAbort(SOURCE, mutex, "processCollector");
            return;
        }
        if (condition.wait(mutex)) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "processCollector", "error waiting on condition");
        }
    }
}

/// Waits for the end of one child of any origin, and passes its exit state to its object. Returns with the
/// mutex locked.
void ProcessImpl::waitChild() {
    siginfo_t info{};
    // `WNOWAIT`: a reaped child's id could be reused by a new child before the entry is erased.
    if (waitForEnd(P_ALL, 0, info, WNOWAIT) != 0) {
        handleWaitFailure(errno);
        return;
    }
    m_wait_failed = false;
    int const pid = info.si_pid;

    // Finds even a child that ended immediately: its `start` holds the lock until the entry exists.
    lockOrAbort(SOURCE, mutex, "waitChild");
    auto const child = proc_obj_map.find(pid);
    if (child == proc_obj_map.end()) {
        if (KeptChildren::isKept(pid)) {
            auto const ended = findEnded(info);
            ended != proc_obj_map.end() ? finish(ended, info) : pause(KEPT_AGAIN_MS);
            return;
        }
        reap(pid);
        GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "waitChild",
            "%s: : got notification about exit of an unknown child process exit. PID = \"%d\", was_killed = "
            "%d. "
            "If you intentionally created a child process outside of VESK then this is expected. Otherwise a "
            "programming error might be involved.",
            "waitChild", pid, info.si_code != CLD_EXITED ? 1 : 0);
        return;
    }
    siginfo_t now{};
    if (waitForEnd(P_PID, pid, now, WNOWAIT | WNOHANG) == 0) {
        if (now.si_pid == 0) {
            return; // The id was that of an unknown child, now reaped; the entry's child is running.
        }
        info = now;
    }
    finish(child, info);
}

/// Passes the exit state of a child to its object.
void ProcessImpl::finish(Children::iterator child, siginfo_t const& info) {
    ProcessTNG* const process = child->second;
    proc_obj_map.erase(child);
    // Lock order: an object's mutex is taken before this one.
    unlockOrAbort(SOURCE, mutex, "waitChild");
    ProcessTNG::processExited(process, info.si_code != CLD_EXITED, info.si_status);
    lockOrAbort(SOURCE, mutex, "waitChild");
}

/// Looks for a child that has ended behind one that the collector leaves alone.
ProcessImpl::Children::iterator ProcessImpl::findEnded(siginfo_t& info) {
    return std::find_if(proc_obj_map.begin(), proc_obj_map.end(), [&info](auto const& entry) {
        siginfo_t now{};
        bool const has_ended = waitForEnd(P_PID, entry.first, now, WNOWAIT | WNOHANG) == 0 && now.si_pid != 0;
        info = has_ended ? now : info;
        return has_ended;
    });
}

void ProcessImpl::pause(long long milliseconds) {
    AbsTimeT const again(tarnbase::TimePoint::now().getCount() + milliseconds);
    if (condition.waitTimeout(mutex, again) < 0) {
        // LCOV_EXCL_LINE: the condition belongs to the collector and is valid
        GlobalErrorHandler::doAbort(SOURCE, __LINE__, "waitChild", "error waiting on condition");
    }
}

/// Handles a failed wait. The usual cause is that there are entries but no children: the process ignores
/// `SIGCHLD`, or something else has reaped them. Returns with the mutex locked.
void ProcessImpl::handleWaitFailure(int error) {
    if (!m_wait_failed) {
        m_wait_failed = true;
        GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "waitChild", "error waiting for the end of children: %s",
            SystemErrorText(error).get());
    }
    lockOrAbort(SOURCE, mutex, "waitChild");
    auto const child = std::find_if(proc_obj_map.begin(), proc_obj_map.end(), [](auto const& entry) {
        return kill(entry.first, 0) != 0 && errno == ESRCH;
    });
    if (child == proc_obj_map.end()) {
        pause(WAIT_AGAIN_MS);
        return;
    }
    ProcessTNG* const process = child->second;
    proc_obj_map.erase(child);
    unlockOrAbort(SOURCE, mutex, "waitChild");
    ProcessTNG::processExited(process, false, ProcessTNG::ExitState().status);
    lockOrAbort(SOURCE, mutex, "waitChild");
}

void ProcessImpl::reap(int pid) {
    siginfo_t info{};
    waitForEnd(P_PID, pid, info, WNOHANG);
}

void ProcessImpl::stop() {
    lockOrAbort(SOURCE, mutex, "exit");
    collector_running = false;
    if (condition.signal()) {
        GlobalErrorHandler::doAbort(SOURCE, __LINE__, "exit", "error signaling condition");
    }
    unlockOrAbort(SOURCE, mutex, "exit");
    if (thread.join()) {
        GlobalErrorHandler::doAbort(SOURCE, __LINE__, "exit", "error joining");
    }
}

// ---- setup and shutdown ----

bool LazyProcessInit::doInit() {
    GlobalErrorHandler::doAssert(
        g_process_impl == nullptr, "! g_process_impl", SOURCE, __LINE__, "doInit", nullptr);
    keepEndsOfChildren();
    {
        // The collector's thread inherits the blocked signals: signals to the process are left to the
        // process's own threads.
        SignalsBlocked const signals_blocked;
        g_process_impl = new (std::nothrow) ProcessImpl;
    }
    if (g_process_impl == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::OUT_OF_MEMORY);
        return true;
    }
    Thread& thread = g_process_impl->thread;
    if (!thread.isValid()) {
        std::ErrorStorage::ack();
        report(SOURCE, Chain::NEW, Vesk::ErrorId::INIT_FAILED, "process impl. object is invalid");
    } else if (!thread.start()) {
        return false;
    } else if (thread.getThreadState() != Thread::CREATED) {
        return true; // `start` failed although the thread runs: keep the collector.
    }
    // Without the collector no exit state is ever reported: make each `start` fail instead.
    g_process_impl->discard();
    delete g_process_impl;
    g_process_impl = nullptr;
    return true;
}

bool LazyProcessStaticInit::doInit() {
    GlobalErrorHandler::doAssert(
        g_process_static_impl == nullptr, "! g_process_static_impl", SOURCE, __LINE__, "doInit", nullptr);
    g_process_static_impl = new (std::nothrow) ProcessStaticImpl;
    if (g_process_static_impl == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::OUT_OF_MEMORY);
        return true;
    }
    if (g_process_static_impl->lock.isValid()) {
        return false;
    }
    std::ErrorStorage::ack();
    report(SOURCE, Chain::NEW, Vesk::ErrorId::INIT_FAILED, "process static impl. object is invalid");
    delete g_process_static_impl;
    g_process_static_impl = nullptr;
    return true;
}

} // namespace vesk
