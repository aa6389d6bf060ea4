#include <vesk/ProcessTNG.h>

#include "ProcessImpl.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"
#include "vesk/posix/files/PrivateDirectory.h"

#include <vesk/PathParts.h>
#include <vesk/SysError.h>
#include <vesk/Vesk.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace vesk {

using namespace detail;
using std::GlobalErrorHandler;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ProcessQueries";

constexpr ErrnoRow KILL_ERRORS[] = {
    {{ESRCH}, ProcessTNG::ErrorId::NOT_FOUND},
    {{EINVAL, EPERM}, SysErrorId::PERMISSION_DENIED, ProcessTNG::ErrorId::KILL_FAILED},
    {OTHERS, ProcessTNG::ErrorId::KILL_FAILED},
};

constexpr ErrnoRow EXISTS_ERRORS[] = {
    {{EPERM}, NONE, NONE, Outcome::DONE}, // It exists; the caller lacks the permission.
    {{ESRCH}, NONE, NONE, Outcome::ABSENT},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

// Large enough for "/proc/", any number and the longest entry name.
using ProcPath = char[64];

struct CloseFile {
    void operator()(FILE* file) const noexcept {
        CancellationOff const cancellation_off;
        fclose(file);
    }
};
using File = std::unique_ptr<FILE, CloseFile>;

/// Reads the first argument of a process's command line. Leaves `command` empty if there is none or the
/// process is gone.
void readCommand(unsigned long pid, std::string& command) {
    command.clear();
    ProcPath path;
    snprintf(path, sizeof path, "/proc/%lu/cmdline", pid);
    File const file(fopen(path, "re"));
    if (file == nullptr) {
        return;
    }
    // The arguments are separated by null bytes, so that `strlen` ends each piece at the end of its argument,
    // however many bytes `fgets` read.
    char piece[80];
    size_t length = 0;
    do {
        if (fgets(piece, sizeof piece, file.get()) == nullptr) {
            return;
        }
        length = strlen(piece);
        command.append(piece, length);
    } while (length > sizeof piece - 2);
}

std::string reportInvalid() {
    report(SOURCE, Chain::NEW, Vesk::ErrorId::INIT_FAILED, "process static impl. object is invalid");
    return {};
}

void checkLock(bool locked, int line = __builtin_LINE()) {
    if (!locked) {
        GlobalErrorHandler::doAbort(SOURCE, line, "getOwnProcessName", "error locking");
    }
}

} // namespace

bool ProcessTNG::killProcess(int const& process_id, bool graceful) {
    if (::kill(process_id, graceful ? SIGTERM : SIGKILL) == 0) {
        return false;
    }
    int const error = errno;
    classify(SOURCE, KILL_ERRORS, error, SystemErrorText(error).get());
    return true;
}

signed char ProcessTNG::existsProcess(int const& process_id) {
    if (::kill(process_id, 0) == 0) {
        return 0;
    }
    return toResult(classify(SOURCE, EXISTS_ERRORS, errno));
}

void ProcessTNG::getProcessId(std::string const& name, std::vector<int>& pids, bool exact) {
    Directory directory = openPrivateDirectory("/proc");
    if (!directory.isValid()) {
        return;
    }
    std::string command;
    for (; !directory.atEnd(); directory.next()) {
        char* end = nullptr;
        unsigned long const pid = strtoul(directory.curName(), &end, 10);
        if (end == directory.curName() || *end != '\0') {
            continue;
        }
        readCommand(pid, command);
        if (!command.empty() && name == (exact ? command : PathParts(command).name)) {
            pids.push_back(static_cast<int>(pid));
        }
    }
}

int ProcessTNG::getOwnProcessId() {
    return getpid();
}

std::string ProcessTNG::getOwnProcessName() {
    if (g_lazy_process_static_init == nullptr) {
        return reportInvalid();
    }
    if (g_lazy_process_static_init->checkInit(nullptr)) {
        return {};
    }
    ProcessStaticImpl* const impl = g_process_static_impl;
    if (impl == nullptr) {
        return reportInvalid();
    }
    {
        RWLockForRead const lock(impl->lock);
        checkLock(lock.isLocked());
        if (impl->valid) {
            return impl->name;
        }
    }
    ProcPath path;
    snprintf(path, sizeof path, "/proc/%d/exe", getpid());
    char name[4096] = "";
    ssize_t const length = readlink(path, name, sizeof name);

    RWLockForWrite const lock(impl->lock);
    checkLock(lock.isLocked());
    if (length >= 0) {
        size_t const size = static_cast<size_t>(length);
        name[size < sizeof name ? size : sizeof name - 1] = '\0';
        impl->name = name;
    } else {
        impl->name.clear();
    }
    // A failed read is not repeated either.
    impl->valid = true;
    return name;
}

} // namespace vesk
