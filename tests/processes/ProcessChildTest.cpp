#include "processes/ChildCapture.h"

#include "support/Chain.h"
#include "support/Privileges.h"
#include "support/Processes.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <vesk/SysError.h>

#include <csignal>
#include <cstring>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

// What a child is made of, seen from the program that runs in it.
namespace {

using support::Capture;
using support::capture;
using support::ChildEnd;
using support::Go;
using support::hasExitedWith;
using support::HeldProbe;
using support::look;
using support::ProcessPipe;
using support::readFile;
using support::run;
using support::runInChild;
using support::setProbe;
using support::Sight;
using support::systemText;
using support::TempDir;
using support::waitFor;
using support::wasKilledBy;
using support::writeFile;
using vesk::ProcessTNG;
using vesk::sched::Attr;
using vesk::sched::Param;
using Texts = std::vector<std::string>;

class ProcessChild : public support::ProcessTest {};

mode_t getMode(std::string const& path) {
    struct stat data {};
    EXPECT_EQ(0, stat(path.c_str(), &data));
    return data.st_mode & 07777;
}

// ---- arguments and environment ----

TEST_F(ProcessChild, getsItsArgumentsAsTheyAre) {
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
}

TEST_F(ProcessChild, getsAnArgumentUpToItsFirstNullByte) {
    ProcessTNG process;
    EXPECT_EQ(Texts({"ab"}), look(process, {std::string("ab\0cd", 5)}).get("arg"));
}

TEST_F(ProcessChild, hasThePathOfItsProgramAsArgumentZero) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    int const pid = process.start();
    held.waitUntilBegun();
    std::string const command = readFile("/proc/" + std::to_string(pid) + "/cmdline");
    EXPECT_STREQ(support::getProbePath().c_str(), command.c_str());
    held.release();
    waitFor(process);
}

TEST_F(ProcessChild, inheritsTheEnvironmentWhenNoneIsSet) {
    setenv("VESK_TEST_INHERITED", "yes indeed", 1);
    ProcessTNG process;
    EXPECT_TRUE(look(process).has("env", "VESK_TEST_INHERITED=yes indeed"));
    unsetenv("VESK_TEST_INHERITED");
}

TEST_F(ProcessChild, hasExactlyTheEnvironmentThatIsSet) {
    setenv("VESK_TEST_INHERITED", "yes", 1);
    ProcessTNG process;
    process.setEnvironment({{"ONE", "a value"}});
    EXPECT_EQ(Texts({"ONE=a value"}), look(process).get("env"));
    process.setEnvironment({{"A", ""}, {"B", "x=y\nz"}});
    EXPECT_EQ(Texts({"A=", "B=x=y\nz"}), look(process).getEnvironment());
    process.setEnvironment({});
    EXPECT_TRUE(look(process).has("env", "VESK_TEST_INHERITED=yes"));
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

TEST_F(ProcessChild, seesANameWithAnEqualsSignEndThere) {
    ProcessTNG process;
    process.setEnvironment({{"NAME=odd", "value"}});
    EXPECT_EQ(Texts({"NAME=odd=value"}), look(process).get("env"));
}

// ---- standard output and standard error ----

struct OutputCase {
    char const* stream;
    char const* text; // What the probe says there.
    int fd;
    void (ProcessTNG::*set_file)(std::string const&, bool);
    void (ProcessTNG::*set_fd)(int);
    void (ProcessTNG::*set_null)(bool);
};

void PrintTo(OutputCase const& output, std::ostream* out) {
    *out << output.stream;
}

OutputCase const STDOUT_CASE{
    "stdout",
    "out",
    STDOUT_FILENO,
    &ProcessTNG::setStdoutFile,
    &ProcessTNG::setStdoutFd,
    &ProcessTNG::setStdoutNull};
OutputCase const STDERR_CASE{
    "stderr",
    "err",
    STDERR_FILENO,
    &ProcessTNG::setStderrFile,
    &ProcessTNG::setStderrFd,
    &ProcessTNG::setStderrNull};

class ProcessChildOutput : public support::ProcessTest, public testing::WithParamInterface<OutputCase> {
protected:
    void SetUp() override { setProbe(m_process, {"say", "out", "err"}); }
    void setFile(std::string const& path, bool append) { (m_process.*GetParam().set_file)(path, append); }
    void setFd(int fd) { (m_process.*GetParam().set_fd)(fd); }
    void setNull(bool null) { (m_process.*GetParam().set_null)(null); }
    /// Silences the other stream.
    void silenceOther() {
        (m_process.*(GetParam().fd == STDOUT_FILENO ? STDERR_CASE : STDOUT_CASE).set_null)(true);
    }
    std::string getText() const { return GetParam().text; }

    TempDir m_dir;
    std::string m_path = m_dir / "file";
    ProcessTNG m_process;
};

INSTANTIATE_TEST_SUITE_P(
    Both, ProcessChildOutput, testing::Values(STDOUT_CASE, STDERR_CASE),
    [](auto const& test) { return test.param.stream; });

TEST_P(ProcessChildOutput, goesToAFileThatIsMadeWithItsOwnersRightsAlone) {
    silenceOther();
    setFile(m_path, false);
    mode_t const mask = umask(0);
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    umask(mask);
    EXPECT_EQ(getText(), readFile(m_path));
    EXPECT_EQ(0600U, getMode(m_path));
}

TEST_P(ProcessChildOutput, goesToAFileWhoseModeIsLessTheMask) {
    silenceOther();
    setFile(m_path, false);
    mode_t const mask = umask(0277);
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    umask(mask);
    EXPECT_EQ(0400U, getMode(m_path));
}

TEST_P(ProcessChildOutput, emptiesAFileOrGoesBehindWhatItHolds) {
    silenceOther();
    writeFile(m_path, "a longer text");
    setFile(m_path, false);
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ(getText(), readFile(m_path));
    setFile(m_path, true);
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ(getText() + getText(), readFile(m_path));
}

TEST_P(ProcessChildOutput, goesToADescriptorThatStaysOpenInTheProcess) {
    silenceOther();
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    setFd(pipe.getWriteEnd());
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ(1, write(pipe.getWriteEnd(), "+", 1));
    EXPECT_EQ(getText() + "+", pipe.readAll());
}

TEST_P(ProcessChildOutput, takesADescriptorAwayFromTheChild) {
    silenceOther();
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    std::string const fd = std::to_string(pipe.getWriteEnd());
    EXPECT_TRUE(look(m_process).has("fd", fd));
    setFd(pipe.getWriteEnd());
    EXPECT_FALSE(look(m_process).has("fd", fd));
}

TEST_P(ProcessChildOutput, takesADescriptorThatExecWouldClose) {
    silenceOther();
    ProcessPipe pipe(ProcessPipe::ChildGets::READ_END);
    setFd(pipe.getWriteEnd());
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ(getText(), pipe.readAll());
}

TEST_P(ProcessChildOutput, prefersAFileToADescriptor) {
    silenceOther();
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    setFile(m_path, false);
    setFd(pipe.getWriteEnd());
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ(getText(), readFile(m_path));
    EXPECT_EQ("", pipe.readAll());
}

TEST_P(ProcessChildOutput, prefersTheNullDeviceToBoth) {
    silenceOther();
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    writeFile(m_path, "untouched");
    setFile(m_path, false);
    setFd(pipe.getWriteEnd());
    setNull(true);
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ("untouched", readFile(m_path));
    EXPECT_EQ("", pipe.readAll());
    setNull(false);
    EXPECT_TRUE(hasExitedWith(run(m_process), 0));
    EXPECT_EQ(getText(), readFile(m_path));
}

TEST_P(ProcessChildOutput, leavesNothingOpenButTheStream) {
    silenceOther();
    setFile(m_path, false);
    Sight with_file = look(m_process);
    setFile("", false);
    setNull(true);
    Sight with_null = look(m_process);
    EXPECT_EQ(with_file.get("fd"), with_null.get("fd"));
    EXPECT_TRUE(with_file.has("fd", std::to_string(GetParam().fd)));
    setNull(false);
    EXPECT_EQ(with_file.get("fd"), look(m_process).get("fd"));
}

TEST_P(ProcessChildOutput, leadsToTheOpenedFile) {
    silenceOther();
    HeldProbe held;
    held.set(m_process);
    setFile(m_path, false);
    int const pid = m_process.start();
    held.waitUntilBegun();
    std::string const link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(GetParam().fd);
    EXPECT_EQ(m_path, support::readLink(link));
    held.release();
    waitFor(m_process);
}

/// Runs in a child process of the test, with its streams closed.
class ProcessChildLostOutput : public support::ProcessTest, public testing::WithParamInterface<OutputCase> {
protected:
    /// Runs a child that writes to both streams.
    static void say(std::function<void(ProcessTNG& process)> const& set) {
        ChildEnd const end = runInChild([&] {
            ProcessTNG process;
            setProbe(process, {"say", "out", "err"});
            set(process);
            EXPECT_TRUE(hasExitedWith(run(process), 0));
        });
        EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    }

    TempDir m_dir;
    std::string m_path = m_dir / "file";
};

INSTANTIATE_TEST_SUITE_P(
    Both, ProcessChildLostOutput, testing::Values(STDOUT_CASE, STDERR_CASE),
    [](auto const& test) { return test.param.stream; });

TEST_P(ProcessChildLostOutput, goesToAFileAllTheSame) {
    for (bool const with_input : {true, false}) {
        say([&](ProcessTNG& process) {
            if (!with_input) {
                close(STDIN_FILENO); // The file gets its number first then.
            }
            close(GetParam().fd);
            (process.*GetParam().set_file)(m_path, false);
        });
        EXPECT_EQ(GetParam().text, readFile(m_path));
    }
}

TEST_P(ProcessChildLostOutput, staysWhereItIsWhenItsOwnNumberIsGiven) {
    say([&](ProcessTNG& process) {
        int const fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(GetParam().fd, dup3(fd, GetParam().fd, O_CLOEXEC));
        (process.*GetParam().set_fd)(GetParam().fd);
    });
    EXPECT_EQ(GetParam().text, readFile(m_path));
}

TEST_F(ProcessChild, hasTheInputOfAFileOrItsOwnWhenTheProcessHasNone) {
    TempDir const dir;
    writeFile(dir / "in", "some input");
    for (bool const by_name : {true, false}) {
        ChildEnd const end = runInChild([&] {
            ProcessTNG process;
            setProbe(process, {"copy"});
            process.setStdoutFile(dir / "out", false);
            if (by_name) {
                close(STDIN_FILENO);
                process.setStdinFile(dir / "in");
            } else {
                int const fd = open((dir / "in").c_str(), O_RDONLY | O_CLOEXEC);
                EXPECT_EQ(STDIN_FILENO, dup3(fd, STDIN_FILENO, O_CLOEXEC));
                process.setStdinFd(STDIN_FILENO);
            }
            EXPECT_TRUE(hasExitedWith(run(process), 0));
        });
        EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
        EXPECT_EQ("some input", readFile(dir / "out"));
    }
}

TEST_F(ProcessChild, tellsOfAnOwnNumberThatIsNotOpen) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        close(STDOUT_FILENO);
        process.setStdoutFd(STDOUT_FILENO);
        go();
    });
    EXPECT_NE(
        std::string::npos,
        seen.errors.find(
            "stdout [" + std::to_string(seen.pid) + "]: Couldn't dup2 (1 to 1 ) new " + seen.program +
            "! Reason: Bad file descriptor\n"))
        << seen.errors;
}

TEST_F(ProcessChild, inheritsItsStreamsWhenNothingIsSet) {
    Capture const seen = capture([](ProcessTNG&, Go const& go) { go(); });
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ("err\n", seen.errors);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, canHaveBothOutputsInOneFileThatIsAppendedTo) {
    TempDir const dir;
    ProcessTNG process;
    setProbe(process, {"say", "out", "err"});
    process.setStdoutFile(dir / "both", true);
    process.setStderrFile(dir / "both", true);
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("outerr", readFile(dir / "both"));
}

// ---- redirections that fail ----

TEST_F(ProcessChild, goesOnWithItsOutputWhenTheFileCannotBeOpened) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStdoutFile("/no/such/directory/file", false);
        go();
    });
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ(
        seen.program + " [" + std::to_string(seen.pid) +
            "]: Couldn't open new stdout \"/no/such/directory/file\". Reason: No such file or "
            "directory\nerr\n",
        seen.errors);
    EXPECT_FALSE(seen.killed);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, goesOnWithItsErrorOutputWhenTheFileCannotBeOpened) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStderrFile("/", true);
        go();
    });
    EXPECT_EQ(
        seen.program + " [" + std::to_string(seen.pid) +
            "]: Couldn't open new stderr \"/\". Reason: Is a directory\nerr\n",
        seen.errors);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, goesOnWithItsInputWhenTheFileCannotBeOpened) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStdinFile("/no/such/file");
        go();
    });
    EXPECT_EQ(
        "stdin [" + std::to_string(seen.pid) + "]: Couldn't open new " + seen.program +
            " \"/no/such/file\". Reason: No such file or directory\nerr\n",
        seen.errors);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, goesOnWithItsOutputWhenTheDescriptorIsBad) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStdoutFd(777);
        go();
    });
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ(
        "stdout [" + std::to_string(seen.pid) + "]: Couldn't dup2 (777 to 1 ) new " + seen.program +
            "! Reason: Bad file descriptor\nerr\n",
        seen.errors);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, goesOnWithItsErrorOutputWhenTheDescriptorIsBad) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStderrFd(777);
        go();
    });
    EXPECT_EQ(
        seen.program + " [" + std::to_string(seen.pid) +
            "]: Couldn't dup2 (777 to 2 ) new stderr! Reason: Bad file descriptor\nerr\n",
        seen.errors);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, tellsOfAnInputDescriptorThatIsBad) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    std::string const bad = std::to_string(limit.rlim_cur);
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        process.setStdinFd(static_cast<int>(limit.rlim_cur));
        go();
    });
    EXPECT_EQ(
        seen.program + " [" + std::to_string(seen.pid) + "]: Couldn't dup2 (0 to " + bad +
            " ) new stdin! Reason: Bad file descriptor\nerr\n",
        seen.errors);
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChild, cannotHaveOneDescriptorForBothOutputs) {
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    std::string const fd = std::to_string(pipe.getWriteEnd());
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        process.setStdoutFd(pipe.getWriteEnd());
        process.setStderrFd(pipe.getWriteEnd()); // Moved away by then.
        go();
    });
    EXPECT_EQ("out\n", pipe.readAll());
    EXPECT_EQ(
        seen.program + " [" + std::to_string(seen.pid) + "]: Couldn't dup2 (" + fd +
            " to 2 ) new stderr! Reason: Bad file descriptor\nerr\n",
        seen.errors);
}

TEST_F(ProcessChild, tellsOfItsInputOnItsNewErrorOutput) {
    TempDir const dir;
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        process.setStdinFile("/no/such/file");
        process.setStderrFile(dir / "errors", false);
        go();
    });
    EXPECT_EQ("", seen.errors);
    EXPECT_EQ(
        "stdin [" + std::to_string(seen.pid) + "]: Couldn't open new " + seen.program +
            " \"/no/such/file\". Reason: No such file or directory\nerr\n",
        readFile(dir / "errors"));
}

// ---- standard input ----

TEST_F(ProcessChild, readsItsInputFromAFile) {
    TempDir const dir;
    writeFile(dir / "in", "some input");
    ProcessTNG process;
    setProbe(process, {"copy"});
    process.setStdinFile(dir / "in");
    process.setStdoutFile(dir / "out", false);
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("some input", readFile(dir / "out"));
}

TEST_F(ProcessChild, prefersAFileToADescriptorForItsInput) {
    TempDir const dir;
    writeFile(dir / "in", "from the file");
    ProcessTNG process;
    setProbe(process, {"copy"});
    process.setStdinFile(dir / "in");
    process.setStdinFd(777); // Not even looked at.
    process.setStderrFile(dir / "errors", false);
    process.setStdoutFile(dir / "out", false);
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("from the file", readFile(dir / "out"));
    EXPECT_EQ("", readFile(dir / "errors"));
}

TEST_F(ProcessChild, findsItsInputOnTheGivenDescriptorAndNotOnItsInput) {
    TempDir const dir;
    ProcessPipe pipe(ProcessPipe::ChildGets::READ_END);
    EXPECT_EQ(4, write(pipe.getWriteEnd(), "text", 4));
    pipe.closeWriteEnd();
    ChildEnd const end = runInChild([&] {
        EXPECT_EQ(STDIN_FILENO, dup2(pipe.getReadEnd(), STDIN_FILENO));
        ProcessTNG process;
        process.setStdinFd(50); // Need not be open in the process.
        Sight sight = look(process);
        EXPECT_FALSE(sight.has("fd", "0"));
        EXPECT_TRUE(sight.has("fd", "50"));
        setProbe(process, {"copyFrom", "50"});
        process.setStdoutFile(dir / "out", false);
        EXPECT_TRUE(hasExitedWith(run(process), 0));
        EXPECT_EQ(-1, fcntl(50, F_GETFD));
        EXPECT_EQ(0, fcntl(STDIN_FILENO, F_GETFD));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
    EXPECT_EQ("text", readFile(dir / "out"));
}

TEST_F(ProcessChild, losesTheFileBehindAGivenInputDescriptor) {
    TempDir const dir;
    writeFile(dir / "in", "never read");
    int const fd = open((dir / "in").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, fd);
    ChildEnd const end = runInChild([&] {
        int const null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(STDIN_FILENO, dup2(null, STDIN_FILENO));
        ProcessTNG process;
        setProbe(process, {"copyFrom", std::to_string(fd)});
        process.setStdinFd(fd);
        process.setStdoutFile(dir / "out", false);
        EXPECT_TRUE(hasExitedWith(run(process), 0));
    });
    close(fd);
    EXPECT_EQ(0, end.exit_code) << end.output;
    EXPECT_EQ("", readFile(dir / "out"));
}

// ---- what it inherits ----

TEST_F(ProcessChild, inheritsDescriptorsUnlessTheyAreMarkedForExec) {
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
    struct sigaction ignored {};
    struct sigaction old {};
    ignored.sa_handler = SIG_IGN;
    ASSERT_EQ(0, sigaction(SIGUSR2, &ignored, &old));
    struct sigaction handled {};
    struct sigaction old_handled {};
    handled.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &handled, &old_handled));
    ProcessTNG process;
    Sight sight = look(process);
    sigaction(SIGUSR2, &old, nullptr);
    sigaction(SIGUSR1, &old_handled, nullptr);
    EXPECT_EQ(0, pthread_sigmask(SIG_SETMASK, &before, nullptr));
    EXPECT_EQ(Texts(), sight.get("blocked"));
    EXPECT_TRUE(sight.has("ignored", std::to_string(SIGUSR2)));
    EXPECT_TRUE(sight.has("ignored", std::to_string(SIGPIPE))); // As the start-up has left it.
    EXPECT_FALSE(sight.has("ignored", std::to_string(SIGUSR1)));
}

TEST_F(ProcessChild, isInTheGroupOfTheProcessOrInOneOfItsOwn) {
    ProcessTNG process;
    EXPECT_EQ(getpgid(0), look(process).getNumber("group"));
    process.setNewGroup(true);
    Sight sight = look(process);
    EXPECT_EQ(sight.getNumber("pid"), sight.getNumber("group"));
    process.setNewGroup(false);
    EXPECT_EQ(getpgid(0), look(process).getNumber("group"));
}

// ---- scheduling and processors ----

bool mayUseRealTime() {
    sched_param param{};
    param.sched_priority = 1;
    bool const may = sched_setscheduler(0, SCHED_RR, &param) == 0;
    param.sched_priority = 0;
    sched_setscheduler(0, SCHED_OTHER, &param);
    return may;
}

TEST_F(ProcessChild, isScheduledAsTheCallingThreadWhenNothingIsSet) {
    ProcessTNG process;
    Sight sight = look(process);
    EXPECT_EQ(sched_getscheduler(0), sight.getNumber("policy"));
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), sight.getNumber("nice"));
}

TEST_F(ProcessChild, hasTheNiceValueOfItsAttributes) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(7);
    ProcessTNG process;
    Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    attributes.param.nice = 7;
    process.setSchedAttrs(attributes);
    Sight sight = look(process);
    EXPECT_EQ(SCHED_OTHER, sight.getNumber("policy"));
    EXPECT_EQ(7, sight.getNumber("nice"));
}

TEST_F(ProcessChild, hasTheNiceValueThatWasSetAsItsPriority) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(9);
    ProcessTNG process;
    process.setPriority(false, 9);
    EXPECT_EQ(9, look(process).getNumber("nice"));
    process.setPriority(true, 9);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), look(process).getNumber("nice"));
}

TEST_F(ProcessChild, hasTheRealTimePolicyOfItsAttributes) {
    if (!mayUseRealTime()) {
        GTEST_SKIP() << "no right to real-time scheduling";
    }
    ProcessTNG process;
    Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_FIFO;
    attributes.param.priority = 3;
    process.setSchedAttrs(attributes);
    Sight fifo = look(process);
    EXPECT_EQ(SCHED_FIFO, fifo.getNumber("policy"));
    EXPECT_EQ(3, fifo.getNumber("priority"));
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_RR;
    process.setSchedAttrs(attributes);
    Sight rr = look(process);
    EXPECT_EQ(SCHED_RR, rr.getNumber("policy"));
    EXPECT_EQ(3, rr.getNumber("priority"));
}

TEST_F(ProcessChild, keepsTheRealTimePolicyOfTheCallingThreadWithAnotherPriority) {
    if (!mayUseRealTime()) {
        GTEST_SKIP() << "no right to real-time scheduling";
    }
    ProcessTNG process;
    process.setPriority(false, 5);
    std::thread([&] {
        sched_param param{};
        param.sched_priority = 2;
        EXPECT_EQ(0, pthread_setschedparam(pthread_self(), SCHED_RR, &param));
        Sight sight = look(process);
        EXPECT_EQ(SCHED_RR, sight.getNumber("policy"));
        EXPECT_EQ(5, sight.getNumber("priority"));
    }).join();
}

TEST_F(ProcessChild, isNotRescheduledByAClass) {
    ProcessTNG process;
    Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_CLASS_REALTIME;
    attributes.param.priority = 3;
    attributes.param.nice = 3;
    process.setSchedAttrs(attributes);
    Sight sight = look(process);
    EXPECT_EQ(sched_getscheduler(0), sight.getNumber("policy"));
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), sight.getNumber("nice"));
}

TEST_F(ProcessChild, goesOnWithAWarningWhenItMayNotBeScheduledAsAsked) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        Attr attributes;
        attributes.policy = vesk::sched::VESK_SCHED_POLICY_FIFO;
        attributes.param.priority = 100000;
        process.setSchedAttrs(attributes);
        go();
    });
    EXPECT_NE(
        std::string::npos,
        seen.errors.find(
            ": startChild: warning: ProcessTNG::startChild (forked): Error applying scheduling "
            "policy/parameters: " +
            systemText(EINVAL) + "\nerr\n"))
        << seen.errors;
    EXPECT_EQ(0, seen.status);
}

class ProcessChildAffinity : public ProcessChild {
protected:
    void SetUp() override {
        CPU_ZERO(&m_before);
        ASSERT_EQ(0, sched_getaffinity(0, sizeof m_before, &m_before));
        if (vesk::Vesk::s_sys_info.processor_count < 2 || !CPU_ISSET(0, &m_before) ||
            !CPU_ISSET(1, &m_before)) {
            GTEST_SKIP() << "needs the first two processors";
        }
    }

    Texts getMine() const {
        Texts mine;
        for (size_t i = 0; i < CPU_SETSIZE; ++i) {
            if (CPU_ISSET(i, &m_before)) {
                mine.push_back(std::to_string(i));
            }
        }
        return mine;
    }

    cpu_set_t m_before;
};

TEST_F(ProcessChildAffinity, keepsTheProcessorsWhenNoneAreSet) {
    ProcessTNG process;
    EXPECT_EQ(getMine(), look(process).get("processor"));
}

TEST_F(ProcessChildAffinity, runsOnTheProcessorsThatAreSet) {
    ProcessTNG process;
    process.setAffinity({true});
    EXPECT_EQ(Texts({"0"}), look(process).get("processor"));
    process.setAffinity({false, true});
    EXPECT_EQ(Texts({"1"}), look(process).get("processor"));
    process.setAffinity({true, true});
    EXPECT_EQ(Texts({"0", "1"}), look(process).get("processor"));
    process.setAffinity({});
    EXPECT_EQ(getMine(), look(process).get("processor"));
}

TEST_F(ProcessChildAffinity, ignoresProcessorsThatTheMachineDoesNotHave) {
    std::vector<bool> processors(5000, true);
    processors[0] = false;
    ProcessTNG process;
    process.setAffinity(processors);
    Texts expected = getMine();
    expected.erase(expected.begin());
    EXPECT_EQ(expected, look(process).get("processor"));
}

TEST_F(ProcessChildAffinity, goesOnWithAWarningWhenNoProcessorIsSet) {
    for (size_t const size : {size_t{1}, size_t{2}, size_t{5000}}) {
        Capture const seen = capture([size](ProcessTNG& process, Go const& go) {
            process.setAffinity(std::vector<bool>(size, false));
            go();
        });
        EXPECT_NE(
            std::string::npos,
            seen.errors.find(": startChild: warning: after fork(): Error setting affinity\nerr\n"))
            << seen.errors;
        EXPECT_EQ(0, seen.status);
    }
}

// ---- programs that cannot be executed ----

class ProcessChildProgram : public ProcessChild {
protected:
    static void expectAbort(std::string const& path) {
        Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
            process.setExecutable(path);
            std::ErrorStorage::ack();
            go();
        });
        EXPECT_GT(seen.pid, 0); // The start itself succeeds.
        EXPECT_TRUE(seen.killed);
        EXPECT_EQ(SIGABRT, seen.status);
        EXPECT_EQ("", seen.output);
        EXPECT_EQ(0U, seen.errors.find("framework/src/vesk/posix/ProcessTNG_fork:")) << seen.errors;
        EXPECT_NE(
            std::string::npos, seen.errors.find(": startChild: fatal: error calling exec() after fork()\n"))
            << seen.errors;
    }

    TempDir m_dir;
};

TEST_F(ProcessChildProgram, thatIsMissingEndsTheChildWithAnAbort) {
    expectAbort("/no/such/program");
    expectAbort("");
}

TEST_F(ProcessChildProgram, thatIsADirectoryEndsTheChildWithAnAbort) {
    expectAbort("/tmp");
}

TEST_F(ProcessChildProgram, thatIsNotExecutableEndsTheChildWithAnAbort) {
    writeFile(m_dir / "file", "#!/bin/sh\n");
    expectAbort(m_dir / "file");
}

TEST_F(ProcessChildProgram, thatIsNoProgramEndsTheChildWithAnAbort) {
    writeFile(m_dir / "file", "no program at all");
    ASSERT_EQ(0, chmod((m_dir / "file").c_str(), 0700));
    expectAbort(m_dir / "file");
}

TEST_F(ProcessChildProgram, isNotSearchedFor) {
    expectAbort("sh");
}

TEST_F(ProcessChildProgram, thatIsAScriptIsRunByItsShell) {
    writeFile(m_dir / "script", "#!/bin/sh\nexit $1\n");
    ASSERT_EQ(0, chmod((m_dir / "script").c_str(), 0700));
    ProcessTNG process(m_dir / "script", {"12"});
    EXPECT_TRUE(hasExitedWith(run(process), 12));
}

TEST_F(ProcessChildProgram, thatCannotBeExecutedIsReportedInTheChildAndEndsItEvenIfAnAbortReturns) {
    using Handler = std::GlobalErrorHandler;
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        Handler::Hook const hook{
            [](Handler::Event const& event, void*) {
                dprintf(STDERR_FILENO, "%s\n%s\n", event.message, tarn_error.getReasonList().c_str());
                return true;
            },
            nullptr};
        Handler::Hook const* const before = Handler::setHook(&hook);
        process.setExecutable("/no/such/program");
        std::ErrorStorage::ack();
        go();
        Handler::setHook(before);
    });
    EXPECT_FALSE(seen.killed);
    EXPECT_EQ(1, seen.status);
    EXPECT_EQ(0U, seen.errors.find("error calling exec() after fork()\n")) << seen.errors;
    EXPECT_NE(std::string::npos, seen.errors.find(": Bad path '/no/such/program'\n  caused by "))
        << seen.errors;
    EXPECT_NE(
        std::string::npos, seen.errors.find(": Failed to start child process: " + systemText(ENOENT) + "\n"))
        << seen.errors;
}

// ---- what is the process's own ----

TEST_F(ProcessChild, doesNotWriteTheOutputThatTheProcessHasNotWrittenYet) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        fputs("only once\n", stdout);
        process.setStdoutFile("/no/such/directory/file", false); // Makes it write to standard error.
        go();
    });
    EXPECT_EQ("out\nonly once\n", seen.output);
}

TEST_F(ProcessChild, doesNotTellTheErrorsOfTheProcess) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        std::ErrorStorage const errors(std::ErrorStorage::action_dump_to_stdout);
        std::ErrorOutput("mine", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
        process.setAffinity({false}); // Makes it report.
        go();
        EXPECT_TRUE(support::chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}}));
    });
    EXPECT_EQ("out\n", seen.output);
}

} // namespace
