#include "LoopSupport.h"
#include "support/EventRecorder.h"

#include <vesk/KeptChildren.h>
#include <vesk/ProcessTNG.h>
#include <vesk/Vesk.h>
#include <vesk/loop/Command.h>

/// Children of a loop, of `Command` and of `ProcessTNG` in one process: each starter learns how its own ended.

namespace {

using namespace support;
using vesk::KeptChildren;
using vesk::ProcessTNG;
using vesk::loop::Command;
using vesk::loop::Output;
using vesk::loop::Process;

class BesideProcess : public testing::Test {
protected:
    /// Starts a child of `ProcessTNG` that runs until it is killed.
    void startOwn(ProcessTNG& process) {
        EXPECT_FALSE(process.setExecutable("/bin/sleep"));
        process.setArguments({"60"});
        EXPECT_LT(0, process.start());
    }

    vesk::Vesk const vesk{true, false};
    EventRecorder recorder;
    Loop loop;
};

TEST_F(BesideProcess, collectorLeavesTheChildrenOfALoopAlone) {
    ProcessTNG own;
    startOwn(own);
    int ends = 0;
    std::vector<Process> processes;
    std::vector<Watch> watches;
    for (int i = 0; i < 20; ++i) {
        std::string const code = std::to_string(i);
        processes.push_back(
            valueOf(loop.start(Command("sh").arg("-c").arg("exit " + code), [&ends, i](Output const& output) {
                EXPECT_EQ(i, output.code);
                ++ends;
            })));
        KeptChildren::Start start;
        pid_t const child = startChild(i);
        start.keep(child);
        watches.push_back(valueOf(loop.onExit(child, [&ends, i, child](Exit const& exit) {
            EXPECT_EQ(i, exit.code);
            KeptChildren::release(child);
            ++ends;
        })));
        auto started = valueOf(Command("sh").arg("-c").arg("exit " + code).start());
        EXPECT_EQ(i, valueOf(started.wait()).code);
        EXPECT_EQ(i, valueOf(Command("sh").arg("-c").arg("exit " + code).output()).code);
    }
    EXPECT_TRUE(runUntil(loop, [&ends] { return ends == 40; }));
    EXPECT_FALSE(own.kill(false));
    ProcessTNG::ExitState state;
    EXPECT_FALSE(own.wait(state, false, 0));
    EXPECT_TRUE(state.killed);
    EXPECT_EQ(0u, recorder.getCount()) << recorder.getText();
}

TEST_F(BesideProcess, childThatIsNotReapedYetDoesNotHideTheEndOfAnother) {
    KeptChildren::Start start;
    pid_t const kept = startChild(3);
    start.keep(kept);
    siginfo_t info{};
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(kept), &info, WEXITED | WNOWAIT));
    for (int i = 0; i < 3; ++i) {
        ProcessTNG own;
        EXPECT_FALSE(own.setExecutable("/bin/true"));
        EXPECT_LT(0, own.start());
        ProcessTNG::ExitState state;
        EXPECT_FALSE(own.wait(state, false, 0));
    }
    int status = 0;
    EXPECT_EQ(kept, waitpid(kept, &status, 0));
    EXPECT_EQ(3, WEXITSTATUS(status));
    EXPECT_EQ(0u, recorder.getCount()) << recorder.getText();
}

TEST(KeptChildrenTest, areKeptAsOftenAsTheyWereKept) {
    constexpr int CHILD = 2000000000;
    EXPECT_FALSE(KeptChildren::isKept(CHILD));
    for (int i = 0; i < 2; ++i) {
        KeptChildren::Start start;
        EXPECT_TRUE(KeptChildren::isKept(CHILD)) << "it may be the one that is starting";
        start.keep(i == 0 ? CHILD : -1);
        start.keep(CHILD);
    }
    EXPECT_TRUE(KeptChildren::isKept(CHILD));
    KeptChildren::release(CHILD);
    EXPECT_TRUE(KeptChildren::isKept(CHILD));
    KeptChildren::release(CHILD);
    EXPECT_FALSE(KeptChildren::isKept(CHILD));
    KeptChildren::release(CHILD);
}

} // namespace
