#include "processes/ProcessSupport.h"

#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/wait.h>
#include <thread>

namespace {

// What readlink says to be the own program.
std::string const* g_link = nullptr;
// The directory that stands for "/proc".
std::string const* g_proc = nullptr;

} // namespace

support::Injected inject_readlink("readlink");
extern "C" VESK_UNWATCHED ssize_t readlink(char const* path, char* buffer, size_t size) noexcept {
    int error = 0;
    if (inject_readlink.fails(error)) {
        errno = error;
        return -1;
    }
    if (g_link != nullptr) {
        size_t const length = std::min(size, g_link->size());
        memcpy(buffer, g_link->data(), length);
        return static_cast<ssize_t>(length);
    }
    return reinterpret_cast<ssize_t (*)(char const*, char*, size_t)>(inject_readlink.getReal())(
        path, buffer, size);
}

namespace {
int g_open_flags = 0; // Of the last call of each.
std::string g_open_mode;
} // namespace

VESK_INJECT_OPEN(g_open_flags = flags;
                 path = g_proc != nullptr && strcmp(path, "/proc") == 0 ? g_proc->c_str() : path)

support::Injected inject_fopen("fopen");
extern "C" VESK_UNWATCHED FILE* fopen(char const* path, char const* mode) {
    int error = 0;
    if (inject_fopen.fails(error)) {
        errno = error;
        return nullptr;
    }
    g_open_mode = mode;
    std::string const real =
        g_proc != nullptr && strncmp(path, "/proc/", 6) == 0 ? *g_proc + (path + 5) : std::string(path);
    return reinterpret_cast<FILE* (*)(char const*, char const*)>(inject_fopen.getReal())(real.c_str(), mode);
}

namespace {

using support::chainIs;
using support::Fault;
using support::HeldProbe;
using support::rowText;
using support::systemText;
using support::TempDir;
using support::waitFor;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::ProcessTNG;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using Pids = std::vector<int>;

class ProcessQueries : public support::ProcessTest {
protected:
    void SetUp() override {
        g_link = nullptr;
        g_proc = nullptr;
    }
    void TearDown() override {
        g_link = nullptr;
        g_proc = nullptr;
        ProcessTest::TearDown();
    }
};

// ---- the own process ----

TEST_F(ProcessQueries, theOwnIdIsThatOfTheSystem) {
    EXPECT_EQ(getpid(), ProcessTNG::getOwnProcessId());
}

TEST_F(ProcessQueries, theOwnNameIsTheAbsolutePathOfTheProgram) {
    EXPECT_EQ(support::readLink("/proc/self/exe"), ProcessTNG::getOwnProcessName());
    EXPECT_EQ('/', ProcessTNG::getOwnProcessName()[0]);
    EXPECT_NE(std::string::npos, ProcessTNG::getOwnProcessName().find("test_processes_ProcessQueries"));
}

TEST_F(ProcessQueries, theOwnNameIsReadOnce) {
    Fault const fault(inject_readlink, 0);
    std::string const name = ProcessTNG::getOwnProcessName();
    EXPECT_EQ(name, ProcessTNG::getOwnProcessName());
    EXPECT_EQ(name, ProcessTNG::getOwnProcessName());
    EXPECT_EQ(1, fault.getCalls());
}

TEST_F(ProcessQueries, anOwnNameThatCannotBeReadIsKeptAsEmpty) {
    Fault const fault(inject_readlink, EACCES);
    EXPECT_EQ("", ProcessTNG::getOwnProcessName());
    EXPECT_EQ("", ProcessTNG::getOwnProcessName());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessQueries, anOwnNameThatFillsTheBufferLosesItsLastByte) {
    for (size_t const length : {4095U, 4096U, 5000U}) {
        std::string const link = std::string(4094, 'x') + std::string(length - 4094, 'y');
        g_link = &link;
        EXPECT_EQ(link.substr(0, 4095), ProcessTNG::getOwnProcessName()) << length;
        ProcessTNG::exit(); // Forgets it.
        EXPECT_FALSE(ProcessTNG::init(true));
    }
}

TEST_F(ProcessQueries, theOwnNameIsTheSameToManyThreads) {
    std::string const expected = support::readLink("/proc/self/exe");
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            ++ready;
            while (ready < 8) {
                sched_yield();
            }
            for (int round = 0; round < 100; ++round) {
                EXPECT_EQ(expected, ProcessTNG::getOwnProcessName());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- whether a process exists ----

TEST_F(ProcessQueries, theOwnProcessExistsAndOneThatHasGoneDoesNot) {
    EXPECT_EQ(0, ProcessTNG::existsProcess(getpid()));
    pid_t const pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    EXPECT_EQ(0, ProcessTNG::existsProcess(pid)); // Also after its end, which nobody has fetched.
    EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
    EXPECT_EQ(1, ProcessTNG::existsProcess(pid));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessQueries, aProcessOfAnotherUserExists) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    support::ChildEnd const end = support::runInChild([] {
        EXPECT_EQ(0, setuid(65534));
        EXPECT_EQ(-1, kill(getppid(), 0));
        EXPECT_EQ(EPERM, errno);
        EXPECT_EQ(0, ProcessTNG::existsProcess(getppid()));
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST_F(ProcessQueries, theIdsBelowOneAreThoseOfGroups) {
    EXPECT_EQ(0, ProcessTNG::existsProcess(0)); // The own group.
    EXPECT_EQ(0, ProcessTNG::existsProcess(-getpgid(0)));
    EXPECT_EQ(1, ProcessTNG::existsProcess(-0x7ffffff0));
}

// ---- signalling any process ----

TEST_F(ProcessQueries, killProcessEndsAProcessGracefullyOrNot) {
    for (bool const graceful : {true, false}) {
        support::Process process([] {
            for (;;) {
                pause();
            }
        });
        EXPECT_FALSE(ProcessTNG::killProcess(process.getId(), graceful));
        int status = 0;
        EXPECT_EQ(process.getId(), waitpid(process.getId(), &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(graceful ? SIGTERM : SIGKILL, WTERMSIG(status));
    }
}

TEST_F(ProcessQueries, killProcessOfAStrangerThatIsNotThereFails) {
    EXPECT_TRUE(ProcessTNG::killProcess(0x7ffffff0, true));
    EXPECT_TRUE(
        chainIs({{ProcessTNG::ErrorId::NOT_FOUND, "Process could not be found: " + systemText(ESRCH)}}));
}

TEST_F(ProcessQueries, killProcessOfAStrangerWithoutTheRightFails) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    support::ChildEnd const end = support::runInChild([] {
        EXPECT_EQ(0, setuid(65534));
        EXPECT_TRUE(ProcessTNG::killProcess(getppid(), true));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
             {ProcessTNG::Error, ProcessTNG::ErrorId::KILL_FAILED,
              "Failed to kill child process: " + systemText(EPERM)}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST_F(ProcessQueries, killProcessOfTheIdZeroSignalsTheOwnGroup) {
    support::ChildEnd const end = support::runInChild([] {
        EXPECT_EQ(0, setpgid(0, 0));
        EXPECT_NE(SIG_ERR, signal(SIGTERM, SIG_IGN)); // Inherited below, but for the one that takes it.
        support::Process other([] {
            signal(SIGTERM, SIG_DFL);
            EXPECT_FALSE(ProcessTNG::killProcess(0, true)); // Both are in it.
        });
        EXPECT_EQ(-1, other.join());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

// ---- finding processes ----

/// A process whose first text is what the test wants. Started without the library, which gives its path as that text.
class NamedProcess {
public:
    explicit NamedProcess(std::string const& name) {
        char const* const argv[] = {name.c_str(), "-c", "read -r line", "further", nullptr};
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        int begun[2];
        EXPECT_EQ(0, pipe2(begun, O_CLOEXEC));
        m_pid = fork();
        if (m_pid == 0) {
            dup2(ends[0], STDIN_FILENO);
            execv("/bin/sh", const_cast<char* const*>(argv));
            _exit(1);
        }
        close(ends[0]);
        m_end = ends[1];
        close(begun[1]);
        char byte = 0;
        EXPECT_EQ(
            0, read(begun[0], &byte, 1)); // Closed by exec, a moment before the process has its command line.
        close(begun[0]);
        std::string const path = "/proc/" + std::to_string(m_pid) + "/cmdline";
        while (std::ifstream(path).peek() == std::ifstream::traits_type::eof()) {
            sched_yield();
        }
    }
    ~NamedProcess() {
        close(m_end);
        waitpid(m_pid, nullptr, 0);
    }
    NamedProcess(NamedProcess const&) = delete;
    NamedProcess& operator=(NamedProcess const&) = delete;

    int getPid() const noexcept { return m_pid; }

private:
    pid_t m_pid;
    int m_end;
};

Pids find(std::string const& name, bool exact) {
    Pids pids;
    ProcessTNG::getProcessId(name, pids, exact);
    EXPECT_TRUE(chainIs({}));
    return pids;
}

/// A name that no other test has at the same moment.
std::string makeName(std::string const& name) {
    return name + "-" + std::to_string(getpid());
}

TEST_F(ProcessQueries, aBareNameFindsAProcessThatWasStartedByItsPathUnlessExact) {
    std::string const name = makeName("vesk-query");
    NamedProcess const process("/some/where/" + name);
    Pids const expected = {process.getPid()};
    EXPECT_EQ(expected, find(name, false));
    EXPECT_EQ(Pids(), find(name, true));
    EXPECT_EQ(expected, find("/some/where/" + name, true));
    EXPECT_EQ(Pids(), find("/some/where/" + name, false));
}

TEST_F(ProcessQueries, aProcessThatWasStartedByItsBareNameIsFoundBothWays) {
    std::string const name = makeName("vesk-query");
    NamedProcess const process(name);
    Pids const expected = {process.getPid()};
    EXPECT_EQ(expected, find(name, false));
    EXPECT_EQ(expected, find(name, true));
}

TEST_F(ProcessQueries, namesAreComparedByteForByteAndAsAWhole) {
    std::string const name = makeName("vesk-Query");
    NamedProcess const process(name);
    EXPECT_EQ(Pids(), find(makeName("vesk-query"), false));
    EXPECT_EQ(Pids(), find(name.substr(0, name.size() - 1), false));
    EXPECT_EQ(Pids(), find(name + "x", false));
    EXPECT_EQ(Pids(), find("", false));
    EXPECT_EQ(Pids(), find("", true));
}

TEST_F(ProcessQueries, oddNamesAreFound) {
    for (std::string const odd : {") (", "a b", "\xff\xfe", "x(y) S 1 1", "-sh"}) {
        std::string const name = odd + std::to_string(getpid());
        NamedProcess const process("/tmp/" + name);
        EXPECT_EQ(Pids({process.getPid()}), find(name, false)) << odd;
    }
}

TEST_F(ProcessQueries, aNameIsKnownUpToItsFirstLineBreak) {
    std::string const name = makeName("vesk");
    NamedProcess const process(name + "\nrest");
    EXPECT_EQ(Pids({process.getPid()}), find(name + "\n", true));
    EXPECT_EQ(Pids(), find(name + "\nrest", true));
}

TEST_F(ProcessQueries, longNamesAreReadInPieces) {
    for (size_t const length : {77U, 78U, 79U, 80U, 81U, 157U, 158U, 159U, 237U, 1000U}) {
        std::string name = makeName("vesk");
        name.resize(length, 'n');
        NamedProcess const process(name);
        EXPECT_EQ(Pids({process.getPid()}), find(name, true)) << length;
    }
}

TEST_F(ProcessQueries, aTrailingSeparatorIsNoPartOfTheFileName) {
    std::string const name = makeName("vesk-query");
    NamedProcess const process("/dir/" + name + "//");
    EXPECT_EQ(Pids({process.getPid()}), find(name, false));
    EXPECT_EQ(Pids({process.getPid()}), find("/dir/" + name + "//", true));
}

TEST_F(ProcessQueries, allOfANameAreAppended) {
    std::string const name = makeName("vesk-query");
    NamedProcess const first(name);
    NamedProcess const second("/x/" + name);
    Pids pids = {-7};
    ProcessTNG::getProcessId(name, pids, false);
    ASSERT_EQ(3U, pids.size());
    EXPECT_EQ(-7, pids[0]);
    std::sort(pids.begin() + 1, pids.end());
    Pids expected = {first.getPid(), second.getPid()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, Pids(pids.begin() + 1, pids.end()));
}

TEST_F(ProcessQueries, theCallerIsNotLeftOut) {
    std::string own = support::readFile("/proc/self/cmdline");
    own.resize(strlen(own.c_str()));
    Pids const pids = find(own, true);
    EXPECT_NE(pids.end(), std::find(pids.begin(), pids.end(), getpid()));
}

TEST_F(ProcessQueries, aChildOfTheLibraryIsFoundByItsProgram) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    int const pid = process.start();
    held.waitUntilBegun();
    Pids const pids = find(support::getProbePath(), true);
    EXPECT_NE(pids.end(), std::find(pids.begin(), pids.end(), pid));
    held.release();
    waitFor(process);
}

TEST_F(ProcessQueries, aProcessThatHasEndedIsNotFound) {
    std::string const name = makeName("vesk-query");
    int pid = 0;
    {
        NamedProcess const process(name);
        pid = process.getPid();
    }
    EXPECT_EQ(Pids(), find(name, false));
    EXPECT_EQ(1, ProcessTNG::existsProcess(pid));
}

/// A directory that looks like "/proc".
class FakeProc {
public:
    FakeProc() : m_path(m_dir / "proc") {
        EXPECT_EQ(0, mkdir(m_path.c_str(), 0700));
        g_proc = &m_path;
    }
    ~FakeProc() {
        g_proc = nullptr;
        for (std::string const& entry : m_entries) {
            unlink((m_path + "/" + entry + "/cmdline").c_str());
            rmdir((m_path + "/" + entry).c_str());
        }
        rmdir(m_path.c_str());
    }
    void add(std::string const& entry, std::string const& command, bool with_command = true) {
        EXPECT_EQ(0, mkdir((m_path + "/" + entry).c_str(), 0700));
        m_entries.push_back(entry);
        if (with_command) {
            support::writeFile(m_path + "/" + entry + "/cmdline", command);
        }
    }

private:
    // In memory, where entries have offsets that a 32-bit program under an emulator can read as well.
    TempDir m_dir{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp"};
    std::string m_path;
    std::vector<std::string> m_entries;
};

TEST_F(ProcessQueries, onlyEntriesThatAreWhollyNumbersAreLookedAt) {
    FakeProc proc;
    std::string const command("same\0more\0", 10);
    for (char const* const entry : {"12", "007", "self", "1x", "x1", "9 9", "0x10", "3.5"}) {
        proc.add(entry, command);
    }
    Pids pids = find("same", true);
    // The number is what counts from there on: there is no directory "7".
    EXPECT_EQ(Pids({12}), pids);
}

TEST_F(ProcessQueries, entriesWithoutACommandAreSkipped) {
    FakeProc proc;
    proc.add("1", "");                         // As that of the kernel.
    proc.add("2", std::string("\0same\0", 6)); // Its first text is empty.
    proc.add("3", "", false);                  // Gone.
    proc.add("4", "same");                     // Without a null byte at its end.
    EXPECT_EQ(Pids({4}), find("same", true));
    EXPECT_EQ(Pids({4}), find("same", false));
    EXPECT_EQ(Pids(), find("", true));
}

TEST_F(ProcessQueries, whatIsReadForThemIsOpenForNoChild) {
    FakeProc proc;
    proc.add("1", "same");
    EXPECT_EQ(Pids({1}), find("same", true));
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, g_open_flags);
    EXPECT_EQ("re", g_open_mode);
}

TEST_F(ProcessQueries, aCommandThatCannotBeOpenedIsSkipped) {
    FakeProc proc;
    proc.add("1", "same");
    {
        Fault const fault(inject_fopen, EACCES);
        EXPECT_EQ(Pids(), find("same", true));
    }
    EXPECT_EQ(Pids({1}), find("same", true));
}

TEST_F(ProcessQueries, withoutTheDirectoryNothingIsFoundAndTheReportStays) {
    Pids pids = {1, 2};
    {
        Fault const fault(inject_open, EACCES);
        ProcessTNG::getProcessId("any", pids, false);
    }
    EXPECT_EQ(Pids({1, 2}), pids);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EACCES))},
         {FileAccessError, FileAccessErrorId::ACCESS_DENIED, "Access to path '/proc' denied"}}));
}

} // namespace
