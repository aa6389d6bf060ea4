#include "processes/ProcessSupport.h"

#include "support/CleanEnd.h"

namespace {

// The result of readlink, and the directory that replaces "/proc".
std::string const* g_link = nullptr;
std::string const* g_proc = nullptr;
// The arguments of the last call of open and fopen.
int g_open_flags = 0;
std::string g_open_mode;

} // namespace

VESK_INJECT_NOTING(
    ssize_t, -1, readlink, (char const* path, char* buffer, size_t size), (path, buffer, size),
    if (g_link != nullptr) { return static_cast<ssize_t>(g_link->copy(buffer, size)); })
VESK_INJECT_OPEN(g_open_flags = flags;
                 path = g_proc != nullptr && strcmp(path, "/proc") == 0 ? g_proc->c_str() : path)

VESK_INJECT_NOTING(FILE*, nullptr, fopen, (char const* path, char const* mode), (real.c_str(), mode),
                   g_open_mode = mode;
                   bool const is_proc = g_proc != nullptr && strncmp(path, "/proc/", 6) == 0;
                   std::string const real = is_proc ? *g_proc + (path + 5) : std::string(path))

namespace {

using namespace support;
namespace SysErrorId = vesk::SysErrorId;
using Pids = std::vector<int>;

class ProcessQueries : public ProcessTest {
protected:
    void TearDown() override {
        g_link = nullptr;
        ProcessTest::TearDown();
    }
};

TEST_F(ProcessQueries, theOwnIdAndNameAreThoseOfTheProgramAndTheNameIsReadOnce) {
    EXPECT_EQ(getpid(), ProcessTNG::getOwnProcessId());
    std::string const path = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ('/', path[0]);
    EXPECT_TRUE(contains(path, "test_processes_ProcessQueries"));
    for (bool const fails : {true, false}) {
        SCOPED_TRACE(fails ? "the name cannot be read" : "the name is read");
        {
            Fault const fault(inject_readlink, fails ? EACCES : 0);
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(fails ? "" : path, ProcessTNG::getOwnProcessName());
            }
            EXPECT_EQ(1, fault.getCalls());
        }
        runInThreads(8, [&](int) {
            for (int round = 0; round < 100; ++round) {
                EXPECT_EQ(fails ? "" : path, ProcessTNG::getOwnProcessName());
            }
        });
        restart(); // Discards the name.
    }
}

TEST_F(ProcessQueries, anOwnNameThatFillsTheBufferLosesItsLastByte) {
    for (size_t const length : {4095U, 4096U, 5000U}) {
        std::string const link = std::string(4094, 'x') + std::string(length - 4094, 'y');
        g_link = &link;
        EXPECT_EQ(link.substr(0, 4095), ProcessTNG::getOwnProcessName()) << length;
        restart(); // Discards the name.
    }
}

TEST_F(ProcessQueries, theOwnNameIsTheSameForManyFirstCallers) {
    std::string const expected = std::filesystem::read_symlink("/proc/self/exe");
    runInThreads(8, [&](int) { EXPECT_EQ(expected, ProcessTNG::getOwnProcessName()); });
}

TEST_F(ProcessQueries, aProcessExistsUntilItIsReaped) {
    EXPECT_EQ(0, ProcessTNG::existsProcess(getpid()));
    Process process([] {});
    pid_t const pid = process.getId();
    EXPECT_EQ(0, ProcessTNG::existsProcess(pid));
    EXPECT_EQ(0, process.join());
    EXPECT_EQ(1, ProcessTNG::existsProcess(pid));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessQueries, aProcessOfAnotherUserExistsAndCannotBeKilled) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    expectInChild([] {
        EXPECT_EQ(0, setuid(65534));
        EXPECT_EQ(-1, kill(getppid(), 0));
        EXPECT_EQ(EPERM, errno);
        EXPECT_EQ(0, ProcessTNG::existsProcess(getppid()));
        EXPECT_TRUE(chainIs({}));
        EXPECT_TRUE(ProcessTNG::killProcess(getppid(), true));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
             {ProcessTNG::ErrorId::KILL_FAILED, "Failed to kill child process: " + systemText(EPERM)}}));
    });
}

TEST_F(ProcessQueries, idsBelowOneAreThoseOfGroups) {
    EXPECT_EQ(0, ProcessTNG::existsProcess(0)); // The own group.
    EXPECT_EQ(0, ProcessTNG::existsProcess(-getpgid(0)));
    EXPECT_EQ(1, ProcessTNG::existsProcess(-0x7ffffff0));
}

TEST_F(ProcessQueries, killProcessEndsAProcessBySignal) {
    for (int const signal : {SIGTERM, SIGKILL}) {
        SCOPED_TRACE(strsignal(signal));
        Process process([] { pause(); });
        EXPECT_FALSE(ProcessTNG::killProcess(process.getId(), signal == SIGTERM));
        EXPECT_EQ(-1, process.join());
        EXPECT_EQ(signal, process.getSignal());
        EXPECT_TRUE(ProcessTNG::killProcess(0x7ffffff0, signal == SIGTERM));
        EXPECT_TRUE(causeIs(ProcessTNG::ErrorId::NOT_FOUND, ESRCH));
    }
}

TEST_F(ProcessQueries, killProcessOfTheIdZeroSignalsTheOwnGroup) {
    expectInChild([] {
        EXPECT_EQ(0, setpgid(0, 0));
        EXPECT_NE(SIG_ERR, signal(SIGTERM, SIG_IGN)); // Inherited by the other process, which resets it.
        Process other([] {
            signal(SIGTERM, SIG_DFL);
            EXPECT_FALSE(ProcessTNG::killProcess(0, true)); // Both are in the group.
        });
        EXPECT_EQ(-1, other.join());
    });
}

/// A process with any text as its first argument. Started without the library, which passes the path there.
class NamedProcess {
public:
    explicit NamedProcess(std::string const& name) {
        char const* const argv[] = {name.c_str(), "-c", "read -r line", "further", nullptr};
        ProcessPipe begun(ProcessPipe::ChildGets::READ_END);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(m_end.getReadEnd(), STDIN_FILENO);
            execv("/bin/sh", const_cast<char* const*>(argv));
            _exit(1);
        }
        EXPECT_EQ("", begun.readAll()); // Until exec, shortly before the process has its command line.
        std::string const path = "/proc/" + std::to_string(m_pid) + "/cmdline";
        while (std::ifstream(path).peek() == std::ifstream::traits_type::eof()) {
            sched_yield();
        }
    }
    ~NamedProcess() {
        m_end.closeWriteEnd();
        waitpid(m_pid, nullptr, 0);
    }
    int getPid() const noexcept { return m_pid; }

private:
    ProcessPipe m_end{ProcessPipe::ChildGets::READ_END};
    pid_t m_pid;
};

Pids find(std::string const& name, bool exact) {
    Pids pids;
    ProcessTNG::getProcessId(name, pids, exact);
    EXPECT_TRUE(chainIs({}));
    return pids;
}

/// Returns a name that no other test has at the same time.
std::string makeName(std::string const& name = "vesk-query") {
    return name + "-" + std::to_string(getpid());
}

bool isFoundByProgram(std::string const& name, int pid) {
    Pids const pids = find(name, true);
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

/// The first argument of a process, and the names by which it is found.
struct NameRow {
    std::string argument;
    std::vector<std::string> exact;
    std::vector<std::string> bare; ///< Unless exact.
    std::vector<std::string> others{};
};

TEST_F(ProcessQueries, aProcessIsFoundByItsPathAndByItsBareNameUnlessExact) {
    std::string const name = makeName("vesk-Query");
    std::string const shorter = name.substr(0, name.size() - 1);
    std::vector<NameRow> rows = {
        {"/some/where/" + name, {"/some/where/" + name}, {name}},
        {name, {name}, {name}, {makeName("vesk-query"), shorter, name + "x", ""}},
        {name + "\nrest", {name + "\n"}, {}, {name + "\nrest"}},
        {"/dir/" + name + "//", {"/dir/" + name + "//"}, {name}}};
    for (std::string const odd : {") (", "a b", "\xff\xfe", "x(y) S 1 1", "-sh"}) {
        rows.push_back({"/tmp/" + odd + name, {}, {odd + name}});
    }
    // A name is read in pieces.
    for (size_t const length : {77U, 78U, 79U, 80U, 81U, 157U, 158U, 159U, 237U, 1000U}) {
        rows.push_back({name + std::string(length - name.size(), 'n'), {}, {}});
        rows.back().exact = {rows.back().argument};
    }
    for (NameRow const& row : rows) {
        SCOPED_TRACE(row.argument);
        NamedProcess const process(row.argument);
        for (std::string const& exact : row.exact) {
            EXPECT_EQ(Pids{process.getPid()}, find(exact, true)) << exact;
            EXPECT_TRUE(exact[0] != '/' || find(exact, false).empty()) << exact;
        }
        for (std::string const& bare : row.bare) {
            EXPECT_EQ(Pids{process.getPid()}, find(bare, false)) << bare;
            bool const is_exact = std::find(row.exact.begin(), row.exact.end(), bare) != row.exact.end();
            EXPECT_EQ(is_exact ? Pids{process.getPid()} : Pids(), find(bare, true)) << bare;
        }
        for (std::string const& other : row.others) {
            EXPECT_EQ(Pids(), find(other, true)) << other;
            EXPECT_EQ(Pids(), find(other, false)) << other;
        }
    }
}

TEST_F(ProcessQueries, allProcessesOfANameAreAppended) {
    NamedProcess const first(makeName());
    NamedProcess const second("/x/" + makeName());
    Pids pids = {-7};
    ProcessTNG::getProcessId(makeName(), pids, false);
    ASSERT_EQ(3U, pids.size());
    EXPECT_EQ(-7, pids[0]);
    std::sort(pids.begin() + 1, pids.end());
    Pids expected = {-7, first.getPid(), second.getPid()};
    std::sort(expected.begin() + 1, expected.end());
    EXPECT_EQ(expected, pids);
}

TEST_F(ProcessQueries, theCallerAndAChildOfTheLibraryAreFoundByTheirPrograms) {
    std::string own = contentOf("/proc/self/cmdline");
    own.resize(strlen(own.c_str()));
    EXPECT_TRUE(isFoundByProgram(own, getpid()));
    HeldChild const child;
    EXPECT_TRUE(isFoundByProgram(getProbePath(), child.pid));
}

TEST_F(ProcessQueries, aProcessThatHasEndedIsNotFound) {
    int pid = 0;
    {
        NamedProcess const process(makeName());
        pid = process.getPid();
    }
    EXPECT_EQ(Pids(), find(makeName(), false));
    EXPECT_EQ(1, ProcessTNG::existsProcess(pid));
}

/// A directory that replaces "/proc".
class FakeProc {
public:
    FakeProc() { g_proc = &m_path; }
    ~FakeProc() { g_proc = nullptr; }

    void add(std::string const& entry, std::string const& command, bool with_command = true) {
        m_dir.makeFolder(entry);
        if (with_command) {
            m_dir.makeFile(entry + "/cmdline", command);
        }
    }

private:
    TempFolder m_dir;
    std::string m_path = m_dir / "";
};

TEST_F(ProcessQueries, onlyWhollyNumericEntriesAreRead) {
    FakeProc proc;
    std::string const command("same\0more\0", 10);
    for (char const* const entry : {"12", "007", "self", "1x", "x1", "9 9", "0x10", "3.5"}) {
        proc.add(entry, command);
    }
    // There is no directory with the number 7.
    EXPECT_EQ(Pids({12}), find("same", true));
}

TEST_F(ProcessQueries, entriesWithoutACommandAreSkipped) {
    FakeProc proc;
    proc.add("1", "");                         // Like a thread of the kernel.
    proc.add("2", std::string("\0same\0", 6)); // Its first text is empty.
    proc.add("3", "", false);                  // It has ended.
    proc.add("4", "same");                     // Without a null byte at its end.
    EXPECT_EQ(Pids({4}), find("same", true));
    EXPECT_EQ(Pids({4}), find("same", false));
    EXPECT_EQ(Pids(), find("", true));
}

TEST_F(ProcessQueries, theFilesAreCloseOnExecAndOneThatCannotBeOpenedIsSkipped) {
    FakeProc proc;
    proc.add("1", "same");
    {
        Fault const fault(inject_fopen, EACCES);
        EXPECT_EQ(Pids(), find("same", true));
    }
    EXPECT_EQ(Pids({1}), find("same", true));
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, g_open_flags);
    EXPECT_EQ("re", g_open_mode);
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
         {vesk::FileAccessErrorId::ACCESS_DENIED, "Access to path '/proc' denied"}}));
}

} // namespace
