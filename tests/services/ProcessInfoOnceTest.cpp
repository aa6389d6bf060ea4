#include "services/FakeProc.h"

#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/ProcessInfo.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// What is asked of the system once in a process: all happens in children, which have not asked yet.

namespace {

std::atomic<int> s_tick_calls{0};
std::atomic<int> s_page_calls{0};
long s_ticks = 0;
long s_page_size = 0;

} // namespace

support::Injected inject_sysconf("sysconf");
extern "C" VESK_UNWATCHED long sysconf(int name) {
    if (name == _SC_CLK_TCK && s_ticks != 0) {
        ++s_tick_calls;
        return s_ticks;
    }
    if (name == _SC_PAGESIZE && s_page_size != 0) {
        ++s_page_calls;
        return s_page_size;
    }
    return reinterpret_cast<long (*)(int)>(inject_sysconf.getReal())(name);
}

namespace {

using support::chainIs;
using support::ChildEnd;
using support::EventRecorder;
using support::FakeProc;
using support::runInChild;
using vesk::ProcessInfo;

constexpr int PID = 4711;

TEST(ProcessInfoOnce, sizesOfTicksAndPagesAreAskedFor) {
    ChildEnd const end = runInChild([] {
        FakeProc const proc;
        proc.setProcess(PID, "daemon", "300", "250", "17", "33");
        s_ticks = 1000;
        s_page_size = 65536;
        for (int round = 0; round < 3; ++round) {
            ProcessInfo info(PID);
            info.init();
            EXPECT_TRUE(info.valid);
            EXPECT_EQ(300u, info.user_time);
            EXPECT_EQ(250u, info.system_time);
            EXPECT_EQ(33u * 65536, info.resident);
            // What the system says later is not looked at.
            s_ticks = 1;
            s_page_size = 1;
        }
        EXPECT_EQ(1, s_tick_calls);
        EXPECT_EQ(1, s_page_calls);
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(ProcessInfoOnce, threadsMayBeTheFirstAllAtOnce) {
    ChildEnd const end = runInChild([] {
        s_ticks = 1000;
        s_page_size = 65536;
        std::atomic<int> waiting{8};
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&waiting] {
                ProcessInfo info(getppid());
                --waiting;
                while (waiting > 0) {
                    std::this_thread::yield();
                }
                info.init();
                EXPECT_TRUE(info.valid);
                EXPECT_LT(0u, info.resident);
                EXPECT_EQ(0u, info.resident % 65536);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1, s_tick_calls);
        EXPECT_EQ(1, s_page_calls);
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(ProcessInfoOnce, pageSizeThatCannotBeHadTripsAnAssertionEachTime) {
    ChildEnd const end = runInChild([] {
        FakeProc const proc;
        proc.setProcess(PID, "daemon", "300", "250", "17", "33");
        s_page_size = -1;
        EventRecorder const recorder;
        ProcessInfo info(PID);
        info.init();
        EXPECT_EQ("ASSERT framework/src/vesk/linux/ProcessInfo init: page_size != -1", recorder.getText());
        EXPECT_TRUE(info.valid) << "the code behind the assertion goes on";
        EXPECT_EQ(31u, info.available);
        info.init();
        EXPECT_EQ(2u, recorder.getCount());
        EXPECT_EQ(1, s_page_calls);
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

} // namespace
