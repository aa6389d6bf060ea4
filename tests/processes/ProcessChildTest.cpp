#include "processes/ChildCapture.h"
#include "support/Coverage.h"

// The properties of a child, seen from the program that runs in it.
namespace {

using namespace support;
using Texts = std::vector<std::string>;

class ProcessChild : public ProcessTest {};

TEST_F(ProcessChild, receivesItsArgumentsUnchanged) {
    Texts const arguments = {
        "plain",
        "",
        "two words",
        "  ",
        "\"quoted\" 'twice' \\",
        "line\nbreak\r\n",
        "tab\t",
        "$HOME `ls` *",
        "-x",
        "\xff\xfe not utf-8",
        std::string(100 * 1024, 'x')};
    ProcessTNG process;
    EXPECT_EQ(arguments, look(process, arguments).get("arg"));
    EXPECT_EQ(Texts({"ab"}), look(process, {std::string("ab\0cd", 5)}).get("arg")) << "up to a null byte";
}

TEST_F(ProcessChild, hasThePathOfItsProgramAsArgumentZero) {
    HeldChild child;
    std::string const command = contentOf("/proc/" + std::to_string(child.pid) + "/cmdline");
    EXPECT_STREQ(getProbePath().c_str(), command.c_str());
}

TEST_F(ProcessChild, inheritsTheEnvironmentUnlessOneIsSet) {
    setenv("VESK_TEST_INHERITED", "yes indeed", 1);
    ProcessTNG process;
    EXPECT_TRUE(look(process).has("env", "VESK_TEST_INHERITED=yes indeed"));
    process.setEnvironment({{"ONE", "a value"}});
    EXPECT_EQ(Texts({"ONE=a value"}), look(process).get("env"));
    process.setEnvironment({{"A", ""}, {"B", "x=y\nz"}});
    EXPECT_EQ(Texts({"A=", "B=x=y\nz"}), look(process).getEnvironment());
    process.setEnvironment({{"NAME=odd", "value"}}); // The child finds a name that ends at the first "=".
    EXPECT_EQ(Texts({"NAME=odd=value"}), look(process).get("env"));
    process.setEnvironment({});
    EXPECT_TRUE(look(process).has("env", "VESK_TEST_INHERITED=yes indeed"));
    unsetenv("VESK_TEST_INHERITED");
}

TEST_F(ProcessChild, hasANameTwiceIfItIsSetTwice) {
    if (IS_EMULATED) {
        GTEST_SKIP() << "user-mode QEMU hands each name on once";
    }
    ProcessTNG process;
    process.setEnvironment({{"B", "first"}, {"A", ""}, {"B", "again"}});
    EXPECT_EQ(Texts({"B=first", "A=", "B=again"}), look(process).get("env"));
}

struct OutputCase {
    char const* stream;
    char const* text; // Written by the probe.
    int fd;
    void (ProcessTNG::*set_file)(std::string const&, bool);
    void (ProcessTNG::*set_fd)(int);
    void (ProcessTNG::*set_null)(bool);
    void (ProcessTNG::*set_other_null)(bool);

    friend void PrintTo(OutputCase const& output, std::ostream* out) { *out << output.stream; }
};

OutputCase const OUTPUTS[] = {
    {"stdout", "out", STDOUT_FILENO, &ProcessTNG::setStdoutFile, &ProcessTNG::setStdoutFd,
     &ProcessTNG::setStdoutNull, &ProcessTNG::setStderrNull},
    {"stderr", "err", STDERR_FILENO, &ProcessTNG::setStderrFile, &ProcessTNG::setStderrFd,
     &ProcessTNG::setStderrNull, &ProcessTNG::setStdoutNull}};

class ProcessChildOutput : public ProcessTest, public testing::WithParamInterface<OutputCase> {
protected:
    void SetUp() override {
        setProbe(m_process, {"say", "out", "err"});
        (m_process.*GetParam().set_other_null)(true);
    }
    void setFile(std::string const& path, bool append) { (m_process.*GetParam().set_file)(path, append); }
    void setFd(int fd) { (m_process.*GetParam().set_fd)(fd); }
    void setNull(bool null) { (m_process.*GetParam().set_null)(null); }
    void expectSuccess() { EXPECT_TRUE(hasExitedWith(run(m_process), 0)); }

    TempFolder m_dir;
    std::string m_path = m_dir / "file";
    std::string m_text = GetParam().text;
    ProcessPipe m_pipe{ProcessPipe::ChildGets::WRITE_END};
    std::string m_fd = std::to_string(m_pipe.getWriteEnd());
    ProcessTNG m_process;
};

auto const byStream = [](auto const& test) { return test.param.stream; };

INSTANTIATE_TEST_SUITE_P(Both, ProcessChildOutput, testing::ValuesIn(OUTPUTS), byStream);

TEST_P(ProcessChildOutput, goesToAFileWithTheRightsOfItsOwnerMinusTheMask) {
    setFile(m_path, false);
    for (mode_t const mask : {0000U, 0277U}) {
        mode_t const before = umask(mask);
        expectSuccess();
        umask(before);
        EXPECT_EQ(m_text, contentOf(m_path)) << mask;
        struct stat data {};
        EXPECT_EQ(0, stat(m_path.c_str(), &data));
        EXPECT_EQ(0600U & ~mask, data.st_mode & 07777);
        EXPECT_EQ(0, unlink(m_path.c_str()));
    }
    m_dir.makeFile("file", "a longer text"); // Is truncated.
    expectSuccess();
    EXPECT_EQ(m_text, contentOf(m_path));
    setFile(m_path, true);
    expectSuccess();
    EXPECT_EQ(m_text + m_text, contentOf(m_path));
}

TEST_P(ProcessChildOutput, goesToADescriptorThatStaysOpenInTheProcessOnly) {
    EXPECT_TRUE(look(m_process).has("fd", m_fd));
    setFd(m_pipe.getWriteEnd());
    EXPECT_FALSE(look(m_process).has("fd", m_fd));
    setProbe(m_process, {"say", "out", "err"});
    expectSuccess();
    EXPECT_EQ(1, write(m_pipe.getWriteEnd(), "+", 1));
    ProcessPipe closed(ProcessPipe::ChildGets::READ_END); // By exec.
    setFd(closed.getWriteEnd());
    expectSuccess();
    EXPECT_EQ(m_text, closed.readAll());
    EXPECT_EQ(m_text + "+", m_pipe.readAll());
}

TEST_P(ProcessChildOutput, prefersAFileToADescriptorAndTheNullDeviceToBoth) {
    m_dir.makeFile("file", "untouched");
    setFile(m_path, false);
    setFd(m_pipe.getWriteEnd());
    setNull(true);
    expectSuccess();
    EXPECT_EQ("untouched", contentOf(m_path));
    setNull(false);
    expectSuccess();
    EXPECT_EQ(m_text, contentOf(m_path));
    EXPECT_EQ("", m_pipe.readAll());
}

TEST_P(ProcessChildOutput, isTheOpenedFileAndLeavesNothingElseOpen) {
    setFile(m_path, false);
    {
        HeldProbe held;
        held.set(m_process);
        std::string const process = "/proc/" + std::to_string(m_process.start());
        held.waitUntilBegun();
        EXPECT_EQ(m_path, std::filesystem::read_symlink(process + "/fd/" + std::to_string(GetParam().fd)));
        held.release();
        waitFor(m_process);
    }
    Sight with_file = look(m_process);
    setFile("", false);
    setNull(true);
    EXPECT_EQ(with_file.get("fd"), look(m_process).get("fd"));
    EXPECT_TRUE(with_file.has("fd", std::to_string(GetParam().fd)));
    setNull(false);
    EXPECT_EQ(with_file.get("fd"), look(m_process).get("fd"));
}

/// Children of a separate process, which can lack a stream.
class ProcessChildApart : public ProcessTest {
protected:
    static void runApart(Texts const& arguments, std::function<void(ProcessTNG& process)> const& set) {
        expectInChild([&] {
            ProcessTNG process;
            setProbe(process, arguments);
            set(process);
            EXPECT_TRUE(hasExitedWith(run(process), 0));
        });
    }

    TempFolder m_dir;
    std::string m_path = m_dir / "file";
};

class ProcessChildLostOutput : public ProcessChildApart, public testing::WithParamInterface<OutputCase> {};

INSTANTIATE_TEST_SUITE_P(Both, ProcessChildLostOutput, testing::ValuesIn(OUTPUTS), byStream);

TEST_P(ProcessChildLostOutput, goesToAFile) {
    for (bool const with_input : {true, false}) {
        SCOPED_TRACE(with_input ? "with input" : "without input");
        runApart({"say", "out", "err"}, [&](ProcessTNG& process) {
            if (!with_input) {
                close(STDIN_FILENO); // The file is opened with its number.
            }
            close(GetParam().fd);
            (process.*GetParam().set_file)(m_path, false);
        });
        EXPECT_EQ(GetParam().text, contentOf(m_path));
    }
}

TEST_P(ProcessChildLostOutput, keepsItsDescriptorIfItsOwnNumberIsGiven) {
    runApart({"say", "out", "err"}, [&](ProcessTNG& process) {
        int const fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(GetParam().fd, dup3(fd, GetParam().fd, O_CLOEXEC));
        (process.*GetParam().set_fd)(GetParam().fd);
    });
    EXPECT_EQ(GetParam().text, contentOf(m_path));
}

TEST_F(ProcessChild, canAppendBothOutputsToOneFile) {
    TempFolder const dir;
    ProcessTNG process;
    setProbe(process, {"say", "out", "err"});
    process.setStdoutFile(dir / "both", true);
    process.setStderrFile(dir / "both", true);
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("outerr", contentOf(dir / "both"));
}

TEST_F(ProcessChild, reportsItsOwnNumberIfThatIsNotOpen) {
    Capture const seen = captureWith([](ProcessTNG& process) {
        close(STDOUT_FILENO);
        process.setStdoutFd(STDOUT_FILENO);
    });
    EXPECT_TRUE(contains(
        seen.errors,
        seen.fill("stdout [PID]: Couldn't dup2 (1 to 1 ) new PROGRAM! Reason: Bad file descriptor\n")));
}

TEST_F(ProcessChild, cannotHaveOneDescriptorForBothOutputs) {
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    Capture const seen = captureWith([&](ProcessTNG& process) {
        process.setStdoutFd(pipe.getWriteEnd());
        process.setStderrFd(pipe.getWriteEnd()); // Closed by then.
    });
    int const fd = pipe.getWriteEnd();
    EXPECT_EQ("out\n", pipe.readAll());
    EXPECT_EQ(
        seen.fill(
            "PROGRAM [PID]: Couldn't dup2 (FD to 2 ) new stderr! Reason: Bad file descriptor\nerr\n", fd),
        seen.errors);
}

TEST_F(ProcessChild, reportsItsInputOnItsNewErrorOutput) {
    TempFolder const dir;
    Capture const seen = captureWith([&](ProcessTNG& process) {
        process.setStdinFile("/no/such/file");
        process.setStderrFile(dir / "errors", false);
    });
    EXPECT_EQ("", seen.errors);
    EXPECT_EQ(
        seen.fill("stdin [PID]: Couldn't open new PROGRAM \"/no/such/file\". Reason: No such file or "
                  "directory\nerr\n"),
        contentOf(dir / "errors"));
}

class ProcessChildInput : public ProcessChildApart {
protected:
    /// Expects that a child copies this input.
    void expectInput(
        std::string const& input, std::function<void(ProcessTNG& process)> const& set,
        Texts const& arguments = {"copy"}) {
        runApart(arguments, [&](ProcessTNG& process) {
            process.setStdoutFile(m_dir / "out", false);
            process.setStderrFile(m_dir / "errors", false);
            set(process);
        });
        EXPECT_EQ(input, contentOf(m_dir / "out"));
        EXPECT_EQ("", contentOf(m_dir / "errors"));
    }

    std::string m_in = m_dir.makeFile("in", "some input");
};

TEST_F(ProcessChildInput, comesFromAFileEvenIfTheProcessHasNone) {
    for (bool const has_input : {true, false}) {
        SCOPED_TRACE(has_input ? "with input" : "without input");
        expectInput("some input", [&](ProcessTNG& process) {
            has_input ? process.setStdinFd(777) : void(close(STDIN_FILENO)); // The descriptor is ignored.
            process.setStdinFile(m_in);
        });
    }
}

TEST_F(ProcessChildInput, keepsItsDescriptorIfItsOwnNumberIsGiven) {
    expectInput("some input", [&](ProcessTNG& process) {
        EXPECT_EQ(STDIN_FILENO, dup3(open(m_in.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO, O_CLOEXEC));
        process.setStdinFd(STDIN_FILENO);
    });
}

TEST_F(ProcessChildInput, movesToTheGivenDescriptor) {
    auto const set = [&](ProcessTNG& process) {
        EXPECT_EQ(STDIN_FILENO, dup2(open(m_in.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO));
        process.setStdinFd(50); // Need not be open in the process.
    };
    expectInput("some input", set, {"copyFrom", "50"});
    expectInChild([&] {
        ProcessTNG process;
        set(process);
        Sight sight = look(process);
        EXPECT_FALSE(sight.has("fd", "0"));
        EXPECT_TRUE(sight.has("fd", "50"));
        EXPECT_EQ(-1, fcntl(50, F_GETFD));
        EXPECT_EQ(0, fcntl(STDIN_FILENO, F_GETFD));
    });
}

TEST_F(ProcessChildInput, replacesTheFileOfTheGivenDescriptor) {
    int const fd = open(m_in.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, fd);
    expectInput(
        "",
        [&](ProcessTNG& process) {
            EXPECT_EQ(STDIN_FILENO, dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO));
            process.setStdinFd(fd);
        },
        {"copyFrom", std::to_string(fd)});
    close(fd);
}

TEST_F(ProcessChild, inheritsDescriptorsUnlessTheyAreCloseOnExec) {
    int const kept = open("/dev/null", O_RDONLY);
    int const closed = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ProcessTNG process;
    Sight sight = look(process);
    EXPECT_TRUE(sight.has("fd", std::to_string(kept)));
    EXPECT_FALSE(sight.has("fd", std::to_string(closed)));
    close(kept);
    close(closed);
}

TEST_F(ProcessChild, hasNoSignalBlockedAndKeepsTheIgnoredOnes) {
    sigset_t set;
    sigset_t before;
    sigfillset(&set);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, &before));
    auto* const old_ignored = signal(SIGUSR2, SIG_IGN);
    auto* const old_handled = signal(SIGUSR1, [](int) {});
    ProcessTNG process;
    Sight sight = look(process);
    signal(SIGUSR2, old_ignored);
    signal(SIGUSR1, old_handled);
    EXPECT_EQ(0, pthread_sigmask(SIG_SETMASK, &before, nullptr));
    EXPECT_EQ(Texts(), sight.get("blocked"));
    EXPECT_TRUE(sight.has("ignored", std::to_string(SIGUSR2)));
    EXPECT_TRUE(sight.has("ignored", std::to_string(SIGPIPE))); // By the start-up.
    EXPECT_FALSE(sight.has("ignored", std::to_string(SIGUSR1)));
}

TEST_F(ProcessChild, isInTheGroupOfTheProcessOrInASeparateOne) {
    ProcessTNG process;
    EXPECT_EQ(getpgid(0), look(process).getNumber("group"));
    process.setNewGroup(true);
    Sight sight = look(process);
    EXPECT_EQ(sight.getNumber("pid"), sight.getNumber("group"));
    process.setNewGroup(false);
    EXPECT_EQ(getpgid(0), look(process).getNumber("group"));
}

/// Expects the policy, and the priority and the nice value if given, of an object's child.
void expectScheduling(ProcessTNG& process, int policy, std::optional<int> priority, std::optional<int> nice) {
    Sight sight = look(process);
    EXPECT_EQ(policy, sight.getNumber("policy"));
    EXPECT_EQ(priority.value_or(sight.getNumber("priority")), sight.getNumber("priority"));
    EXPECT_EQ(nice.value_or(sight.getNumber("nice")), sight.getNumber("nice"));
}

TEST_F(ProcessChild, isScheduledAsTheCallingThreadWithoutASettingOrWithAClass) {
    ProcessTNG process;
    expectScheduling(process, sched_getscheduler(0), {}, getpriority(PRIO_PROCESS, 0));
    process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_CLASS_REALTIME, 3, 3));
    expectScheduling(process, sched_getscheduler(0), {}, getpriority(PRIO_PROCESS, 0));
}

TEST_F(ProcessChild, hasTheNiceValueOfItsAttributesOrThatWasSetAsItsPriority) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(9);
    ProcessTNG process;
    process.setPriority(false, 9);
    EXPECT_EQ(9, look(process).getNumber("nice"));
    process.setPriority(true, 9);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), look(process).getNumber("nice"));
    process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_POLICY_NORMAL, 0, 7));
    expectScheduling(process, SCHED_OTHER, {}, 7);
}

TEST_F(ProcessChild, hasTheRealTimePolicyOfItsAttributesOrOfTheCallingThreadWithAnotherPriority) {
    sched_param param{1};
    if (sched_setscheduler(0, SCHED_RR, &param) != 0) {
        GTEST_SKIP() << "no right to real-time scheduling";
    }
    param = {0};
    EXPECT_EQ(0, sched_setscheduler(0, SCHED_OTHER, &param));
    ProcessTNG process;
    process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_POLICY_FIFO, 3, 0));
    expectScheduling(process, SCHED_FIFO, 3, {});
    process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_POLICY_RR, 3, 0));
    expectScheduling(process, SCHED_RR, 3, {});
    ProcessTNG other;
    other.setPriority(false, 5);
    std::thread([&] {
        param = {2};
        EXPECT_EQ(0, pthread_setschedparam(pthread_self(), SCHED_RR, &param));
        expectScheduling(other, SCHED_RR, 5, {});
    }).join();
}

TEST_F(ProcessChild, runsOnTheProcessorsOfTheProcessUnlessSomeAreSet) {
    cpu_set_t set;
    CPU_ZERO(&set);
    ASSERT_EQ(0, sched_getaffinity(0, sizeof set, &set));
    if (vesk::Vesk::s_sys_info.processor_count < 2 || !CPU_ISSET(0, &set) || !CPU_ISSET(1, &set)) {
        GTEST_SKIP() << "needs the first two processors";
    }
    Texts mine;
    for (size_t i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &set)) {
            mine.push_back(std::to_string(i));
        }
    }
    ProcessTNG process;
    EXPECT_EQ(mine, look(process).get("processor"));
    std::vector<bool> not_the_first(5000, true); // Those that the machine does not have are ignored.
    not_the_first[0] = false;
    std::pair<std::vector<bool>, Texts> const rows[] = {
        {{true}, {"0"}},
        {{false, true}, {"1"}},
        {{true, true}, {"0", "1"}},
        {{}, mine},
        {not_the_first, Texts(mine.begin() + 1, mine.end())}};
    for (auto const& [processors, expected] : rows) {
        SCOPED_TRACE(testing::PrintToString(expected));
        process.setAffinity(processors);
        EXPECT_EQ(expected, look(process).get("processor"));
    }
}

TEST_F(ProcessChild, runsAScriptByItsShell) {
    TempFolder const dir("/tmp"); // Other file systems may be mounted without the right to execute.
    ProcessTNG process(dir.makeFile("file", "#!/bin/sh\nexit $1\n", 0700), {"12"});
    EXPECT_TRUE(hasExitedWith(run(process), 12));
}

TEST_F(ProcessChild, endsAndReportsAFailedExecEvenIfAnAbortReturns) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        EventWriter const writer;
        process.setExecutable("/no/such/program");
        std::ErrorStorage::ack();
        go();
    });
    EXPECT_FALSE(seen.killed);
    EXPECT_EQ(1, seen.status);
    EXPECT_EQ(0U, seen.errors.find("error calling exec() after fork(): ")) << seen.errors;
    EXPECT_TRUE(contains(seen.errors, ": Bad path '/no/such/program'\n  caused by "));
    EXPECT_TRUE(contains(seen.errors, ": Failed to start child process: " + systemText(ENOENT) + "\n"));
}

TEST_F(ProcessChild, doesNotWriteTheBufferedOutputOfTheProcess) {
    Capture const seen = captureWith([](ProcessTNG& process) {
        fputs("only once\n", stdout);
        process.setStdoutFile("/no/such/directory/file", false); // Makes it write to standard error.
    });
    EXPECT_EQ("out\nonly once\n", seen.output);
}

TEST_F(ProcessChild, doesNotReportTheErrorsOfTheProcess) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        std::ErrorStorage const errors(std::ErrorStorage::action_dump_to_stdout);
        std::ErrorOutput("mine", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
        process.setAffinity({false}); // Makes it report.
        go();
        EXPECT_TRUE(chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}}));
    });
    EXPECT_EQ("out\n", seen.output);
}

// ---- the texts of the lines that a child writes ----

/// Returns the path of the loaded library, or an empty text.
std::string findLibrary() {
#ifdef VESK_STATIC_LIBRARIES
    return "/proc/self/exe";
#else
    std::istringstream maps(contentOf("/proc/self/maps"));
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/libvesk.so") != std::string::npos) {
            return line.substr(line.find('/'));
        }
    }
    return {};
#endif
}

// Developers search the sources for pieces of a log line, so the library must contain them in one piece.
char const* const LOG_TEXTS[] = {
    "unknown policy (", "unknown thread priority (", " or ",      "]: Couldn't open new ",
    "\". Reason: ",     "]: Couldn't dup2 (",        "! Reason: "};

VESK_TEST_TABLE(LogTexts, areInTheLibraryInOnePiece, testing::Test, LOG_TEXTS) {
    if (isCounting()) {
        GTEST_SKIP() << "a counter for each piece of code makes the compiler split the texts";
    }
    std::string const library = contentOf(findLibrary());
    EXPECT_NE(std::string::npos, library.find(std::string(GetParam()) + '\0')) << findLibrary();
}

} // namespace
