#include "LoopSupport.h"
#include "support/Descriptors.h"
#include "support/Inject.h"
#include "support/SyscallFault.h"
#include "support/TempFolder.h"

#include <vesk/loop/Command.h>

#include <fstream>
#include <sstream>
#include <sys/resource.h>

/// Programs that are started well: what they get, what they report, and how they end.

VESK_INJECT_ERRNO(int, -1, pipe2, (int* ends, int flags) noexcept, (ends, flags))

support::Injected inject_clone("clone");
extern "C" VESK_UNWATCHED int
clone(int (*function)(void*), void* stack, int flags, void* argument, ...) noexcept {
    return inject_clone.fails() ? -1 : inject_clone.getReal(clone)(function, stack, flags, argument);
}

namespace {

using namespace support;
using vesk::loop::Child;
using vesk::loop::Command;
using vesk::loop::Output;
using vesk::loop::Process;
using vesk::loop::Stream;

Command shell(std::string const& script) {
    return Command("sh")
        .arg("-c")
        .arg(script)
        .in(Stream::null())
        .out(Stream::capture())
        .err(Stream::capture());
}

/// Returns what a command writes to its output. It must succeed.
std::string outputOf(Command const& command) {
    Output const output = valueOf(command.output());
    EXPECT_TRUE(output.ok()) << output.code << ' ' << output.signal << output.err;
    return output.out;
}

std::string contentOf(std::string const& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// ---- what a program gets ----

struct Setting {
    char const* name;
    std::function<Command()> command;
    std::string expected;
};
Setting const SETTINGS[] = {
    {"argumentsAsTheyAre",
     [] {
         return Command("printf").args({"[%s]", "a b", "", "*", "$x\n"});
     },
     "[a b][][*][$x\n]"},
    {"name", [] { return shell("echo $0").name("other"); }, "other\n"},
    {"searchInItsOwnPath",
     [] {
         return Command("sh").args({"-c", "echo $PATH"}).env("PATH", "/none::/bin");
     },
     "/none::/bin\n"},
    {"path", [] { return Command("/bin/echo").arg("x"); }, "x\n"},
    {"environment",
     [] { return shell("echo $A,$B,${HOME-none}").env("A", "1").env("B", "").unsetEnv("HOME"); },
     "1,,none\n"},
    {"emptyEnvironment", [] { return Command("/usr/bin/env").clearEnv().env("ONLY", "this"); },
     "ONLY=this\n"},
    {"folder", [] { return Command("pwd").folder("/proc"); }, "/proc\n"},
    {"limit", [] { return shell("ulimit -n").limit(RLIMIT_NOFILE, 77); }, "77\n"},
    {"text", [] { return Command("cat").in(Stream::text(std::string(300000, 'x'))); },
     std::string(300000, 'x')},
    {"textThatIsNotRead", [] { return Command("true").in(Stream::text(std::string(300000, 'x'))); }, ""},
    {"errorsWithTheOutput", [] { return shell("echo a; echo b >&2").err(Stream::sameAsOut()); }, "a\nb\n"},
    {"pipeline", [] { return Command("printf").arg("b\\na\\nb\\n") | Command("sort") | Command("uniq"); },
     "a\nb\n"},
    {"noSignalBlockedOrIgnored", [] { return shell("grep -E 'Sig(Blk|Ign)' /proc/$$/status | cut -f2"); },
     "0000000000000000\n0000000000000000\n"},
    {"session", [] { return shell("set -- $(cat /proc/$$/stat); [ $6 = $$ ] && echo yes").session(); },
     "yes\n"},
    {"group", [] { return shell("set -- $(cat /proc/$$/stat); [ $5 = $$ ] && echo yes").group(); }, "yes\n"},
};

class CommandSetting : public testing::TestWithParam<Setting> {};

TEST_P(CommandSetting, reachesTheProgram) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    auto const before = signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(GetParam().expected, outputOf(GetParam().command().out(Stream::capture())));
    signal(SIGPIPE, before);
}

INSTANTIATE_TEST_SUITE_P(All, CommandSetting, testing::ValuesIn(SETTINGS), [](auto const& row) {
    return std::string(row.param.name);
});

constexpr long CLOSE_RANGE = 436;

TEST(Command, givesTheProgramNoDescriptorButTheNamedOnes) {
    TestPipe pipe;
    int const inheritable = dup(pipe.getReader());
    int const high = fcntl(inheritable, F_DUPFD, 900);
    for (int const error : {0, ENOSYS}) {
        // Before Linux 5.11 the descriptors are listed.
        g_failing_syscall = CLOSE_RANGE;
        Fault const old(inject_syscall, error, 1, error == 0 ? 0 : Fault::FOREVER);
        std::string const list = outputOf(
            shell("n=0; while [ $n -lt 999 ]; do [ -e /proc/$$/fd/$n ] && echo $n; n=$((n+1)); done; true")
                .fd(5, pipe.getWriter())
                .fd(7, 0));
        EXPECT_EQ("0\n1\n2\n5\n7\n", list);
    }
    EXPECT_EQ("", outputOf(shell("echo written >&5").fd(5, pipe.getWriter())));
    EXPECT_EQ("written\n", pipe.read());
    close(inheritable);
    close(high);
}

TEST(Command, mayExchangeItsStreams) {
    TestPipe first;
    TestPipe second;
    dup2(first.getWriter(), 8);
    dup2(second.getWriter(), 9);
    EXPECT_EQ("", outputOf(shell("echo nine >&8; echo eight >&9").fd(8, 9).fd(9, 8)));
    EXPECT_EQ("eight\n", first.read());
    EXPECT_EQ("nine\n", second.read());
    close(8);
    close(9);
}

TEST(Command, readsAndWritesFiles) {
    TempFolder const folder;
    std::string const path = folder / "file";
    EXPECT_TRUE(shell("echo one").out(path).output());
    EXPECT_TRUE(shell("echo two").out(Stream::append(path)).output());
    EXPECT_EQ("one\ntwo\n", contentOf(path));
    EXPECT_EQ("one\ntwo\n", outputOf(Command("cat").in(path).out(Stream::capture())));
    EXPECT_TRUE(shell("echo three").out(path).output());
    EXPECT_EQ("three\n", contentOf(path));
}

TEST(Command, capturesUpToItsLimitAndLetsTheProgramGoOn) {
    Output const output =
        valueOf(shell("head -c 500000 /dev/zero; echo done >&2").out(Stream::capture(1000)).output());
    EXPECT_TRUE(output.ok());
    EXPECT_EQ(1000u, output.out.size());
    EXPECT_TRUE(output.is_cut);
    EXPECT_EQ("done\n", output.err);
    EXPECT_FALSE(valueOf(shell("printf xxx").out(Stream::capture(3)).output()).is_cut);
}

TEST(Command, setsTheUserWithItsGroups) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "setting the user needs the right to";
    }
    EXPECT_EQ(
        "1234 77 77 5",
        outputOf(shell("printf '%s %s %s' $(id -u) $(id -g) \"$(id -G)\"").user(1234, 77, {5})));
    EXPECT_EQ(0u, geteuid());
}

// ---- failures ----

struct BadStart {
    char const* name;
    std::function<Command()> command;
    std::errc number;
    char const* what;
};
BadStart const BAD_STARTS[] = {
    {"noProgram", [] { return Command("no-such-program"); }, std::errc::no_such_file_or_directory,
     "Program \"no-such-program\" cannot be started: program"},
    {"emptyName", [] { return Command(""); }, std::errc::no_such_file_or_directory, "program"},
    {"noPermission", [] { return Command("/etc/passwd"); }, std::errc::permission_denied, "program"},
    {"noFolder", [] { return Command("true").folder("/none"); }, std::errc::no_such_file_or_directory,
     "folder \"/none\""},
    {"noFile", [] { return Command("true").in("/none"); }, std::errc::no_such_file_or_directory,
     "file \"/none\""},
    {"badDescriptor", [] { return Command("true").fd(4, 999); }, std::errc::bad_file_descriptor,
     "descriptors"},
    {"badNumber", [] { return Command("true").fd(1, 0); }, std::errc::invalid_argument, "descriptor 1"},
    {"badLimit", [] { return Command("true").limit(99, 1); }, std::errc::invalid_argument, "limits"},
    {"badGroup", [] { return Command("true").group(1 << 30); }, std::errc::operation_not_permitted,
     "process group"},
    {"nullCharacter", [] { return Command("true").arg(std::string("a\0b", 3)); }, std::errc::invalid_argument,
     "null character"},
    {"captureInAPipeline", [] { return Command("true").err(Stream::capture()) | Command("true"); },
     std::errc::invalid_argument, "earlier program"},
    {"endOfAPipeline", [] { return Command("cat") | Command("no-such-program"); },
     std::errc::no_such_file_or_directory, "no-such-program"},
};

class CommandFailure : public testing::TestWithParam<BadStart> {};

TEST_P(CommandFailure, isTheResultOfTheStart) {
    int const descriptors = countDescriptors();
    Result<Child> const result = GetParam().command().start();
    ASSERT_FALSE(result);
    EXPECT_TRUE(result.error() == GetParam().number) << result.error();
    EXPECT_NE(std::string::npos, result.error().text().find(GetParam().what)) << result.error();
    EXPECT_NE(std::string::npos, result.error().text().find("(errno = ")) << result.error();
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) < 0; })) << "no child is left";
}

INSTANTIATE_TEST_SUITE_P(All, CommandFailure, testing::ValuesIn(BAD_STARTS), [](auto const& row) {
    return std::string(row.param.name);
});

TEST(CommandFailures, ofTheSystemAreReported) {
    {
        Fault const fault(inject_pipe2, EMFILE);
        EXPECT_TRUE(Command("true").start().error() == std::errc::too_many_files_open);
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    Fault const fault(inject_clone, EAGAIN);
    EXPECT_TRUE(Command("true").start().error() == std::errc::resource_unavailable_try_again);
#endif
}

// ---- children ----

TEST(Child, isWaitedForOnceAndSignaledBefore) {
    Child child = valueOf(Command("sleep").arg("100").start());
    EXPECT_EQ(0, kill(child.pid(), 0));
    EXPECT_TRUE(child.kill(SIGTERM));
    Exit const exit = valueOf(child.wait());
    EXPECT_EQ(SIGTERM, exit.signal);
    EXPECT_TRUE(child.wait().error() == std::errc::no_child_process);
    EXPECT_TRUE(child.kill(SIGTERM).error() == std::errc::no_such_process);
}

TEST(Child, hasTheOtherEndsOfItsPipes) {
    Child child = valueOf(Command("cat").in(Stream::pipe()).out(Stream::pipe()).start());
    EXPECT_EQ(4, write(child.in.get(), "text", 4));
    child.in.close();
    char text[10];
    EXPECT_EQ(4, read(child.out.get(), text, sizeof text));
    EXPECT_EQ(0, read(child.out.get(), text, sizeof text));
    EXPECT_TRUE(valueOf(child.wait()).ok());
}

TEST(Child, isReapedAfterItsOwnerIsGone) {
    pid_t pid = 0;
    {
        Child const child = valueOf(shell("sleep 0.02").out(Stream::null()).err(Stream::null()).start());
        pid = child.pid();
    }
    EXPECT_TRUE(eventually([pid] { return kill(pid, 0) != 0; }));
}

TEST(Command, tellsHowEachProgramOfAPipelineEnded) {
    Output const output = valueOf(
        (shell("exit 3").err(Stream::null()) | shell("kill -9 $$").err(Stream::null()) | shell("exit 5"))
            .output());
    EXPECT_EQ(5, output.code);
    ASSERT_EQ(2u, output.upstream.size());
    EXPECT_EQ(3, output.upstream[0].code);
    EXPECT_EQ(SIGKILL, output.upstream[1].signal);
}

// ---- on a loop ----

class ProcessTest : public testing::Test {
protected:
    Loop loop;
    std::vector<Output> ends;
    auto add() {
        return [this](Output output) { ends.push_back(std::move(output)); };
    }
};

TEST_F(ProcessTest, callsBackOnceWithAllThatWasCaptured) {
    Process const process = valueOf(loop.start(
        Command("cat").in(Stream::text(std::string(200000, 'x'))).out(Stream::capture()) |
            shell("cat; echo error >&2; exit 2"),
        add()));
    EXPECT_TRUE(process.isActive());
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_FALSE(process.isActive());
    ASSERT_EQ(1u, ends.size());
    EXPECT_EQ(process.pid(), ends[0].pid);
    EXPECT_EQ(2, ends[0].code);
    EXPECT_EQ(200000u, ends[0].out.size());
    EXPECT_EQ("error\n", ends[0].err);
    ASSERT_EQ(1u, ends[0].upstream.size());
    EXPECT_TRUE(ends[0].upstream[0].ok());
}

TEST_F(ProcessTest, canBeSignaledUntilItHasEnded) {
    Process process = valueOf(loop.start(Command("sleep").arg("100"), add()));
    EXPECT_TRUE(process.kill(SIGTERM));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(SIGTERM, ends.at(0).signal);
    EXPECT_TRUE(process.kill(SIGTERM).error() == std::errc::no_such_process);
}

TEST_F(ProcessTest, reportsAProgramThatCannotBeStarted) {
    EXPECT_TRUE(
        loop.start(Command("no-such-program"), add()).error() == std::errc::no_such_file_or_directory);
    EXPECT_TRUE(loop.runToEnd()) << "nothing is left to wait for";
}

TEST_F(ProcessTest, isSilentAndReapedWhenItsOwnerIsGone) {
    pid_t pid = 0;
    {
        Process const process = valueOf(loop.start(shell("sleep 0.01; echo x"), add()));
        pid = process.pid();
    }
    EXPECT_TRUE(eventually([pid] { return kill(pid, 0) != 0; }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_TRUE(ends.empty());
}

TEST_F(ProcessTest, mayBeDestroyedInItsOwnCallback) {
    std::unique_ptr<Process> process;
    bool called = false;
    process = std::make_unique<Process>(valueOf(loop.start(shell("echo x"), [&](Output const& output) {
        process.reset();
        called = output.out == "x\n";
    })));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_TRUE(called);
}

TEST_F(ProcessTest, mayBeStartedAndDestroyedInOtherThreads) {
    std::atomic<bool> is_over{false};
    std::atomic<int> calls{0};
    std::thread other([&] {
        for (int i = 0; i < 30; ++i) {
            auto process = std::make_unique<Process>(
                valueOf(loop.start(shell("echo x"), [&calls](Output const&) { ++calls; })));
            if (i % 2 == 0) {
                EXPECT_TRUE(eventually([&process] { return !process->isActive(); }));
            }
        }
        is_over = true;
        loop.stop();
    });
    while (!is_over) {
        EXPECT_TRUE(loop.run());
    }
    other.join();
    EXPECT_LE(15, calls);
}

} // namespace
