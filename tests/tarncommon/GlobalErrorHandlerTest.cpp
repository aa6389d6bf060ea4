#include "support/AllocationCounter.h"
#include "support/SyscallFault.h"
#include "support/Testing.h"

#include <tarncommon/error/GlobalErrorHandler.h>

#include <chrono>
#include <stdexcept>

namespace {

using Handler = std::GlobalErrorHandler;
using namespace support;

TEST(GlobalErrorHandler, eventsWriteOneLineAndOnlyAnAbortEndsTheProcess) {
    ChildEnd const end = runInChild([] {
        Handler::doAssert(false, "a == b", "some/File", 12, "function", "a is %d", 3);
        Handler::doAssert(false, "a == b", "some/File", 13, "function", nullptr);
        Handler::doAssert(true, "a == b", "some/File", 14, "function", "never %s", "seen");
        Handler::doWarning("some/File", 15, "~Class", "res = %d", 22);
        auto const start = std::chrono::steady_clock::now();
        Handler::doOutOfMem("some/File", 16, "function", "need %u bytes", 7u);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
        puts("continued");
        fflush(stdout);
        Handler::doAbort("some/File", 17, "function", "error %s", "locking");
        puts("not reached");
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_EQ("continued\n", end.output);
    EXPECT_EQ(
        "some/File:12: function: assertion failed: a == b: a is 3\n"
        "some/File:13: function: assertion failed: a == b\n"
        "some/File:15: ~Class: warning: res = 22\n"
        "some/File:16: function: out of memory: need 7 bytes\n"
        "some/File:17: function: fatal: error locking\n",
        end.errors);
}

TEST(GlobalErrorHandler, hookReceivesEveryEventAndMaySuppressTheDefaultAction) {
    EventRecorder const recorder;
    Handler::doAssert(true, "a == b", "some/File", 12, "function", "never %s", "seen");
    EXPECT_EQ(0u, recorder.getCount());
    auto const start = std::chrono::steady_clock::now();
    Handler::doAssert(false, "a == b", "some/File", 1, "one", "text");
    Handler::doAbort("some/File", 2, "two", "text %d", 2);
    Handler::doWarning("some/File", 3, "three", "text");
    Handler::doOutOfMem("some/File", 4, "four", "text");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(
        "ASSERT some/File one: a == b: text\n"
        "ABORT some/File two: text 2\n"
        "WARNING some/File three: text\n"
        "OUT_OF_MEMORY some/File four: text",
        recorder.getText());
    EXPECT_EQ(2, recorder.getEvents()[1].line);
}

TEST(GlobalErrorHandler, hookMayLetTheDefaultActionRun) {
    ChildEnd const end = runInChild([] {
        static Handler::Hook const hook{
            [](Handler::Event const& event, void*) {
                printf("seen %s\n", event.message);
                fflush(stdout);
                return false;
            },
            nullptr};
        Handler::setHook(&hook);
        Handler::doAbort("some/File", 2, "two", "the end");
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_EQ("seen the end\n", end.output);
    EXPECT_EQ("some/File:2: two: fatal: the end\n", end.errors);
}

TEST(GlobalErrorHandler, anInterruptedWriteIsRepeatedAndAFailedOneIsNot) {
    ChildEnd const end = runInChild([] {
        g_failing_syscall = SYS_write;
        for (int const error : {EINTR, EIO}) {
            Fault const fault(inject_syscall, error);
            errno = EDOM;
            Handler::doWarning("some/File", error == EINTR ? 1 : 2, "function", "text");
            EXPECT_EQ(EDOM, errno);
            EXPECT_EQ(error == EINTR ? 2 : 1, fault.getCalls());
        }
    });
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ("some/File:1: function: warning: text\n", end.errors);
}

TEST(GlobalErrorHandler, longLineIsCut) {
    ChildEnd const end = runInChild([] {
        std::string const name(2000, 'x');
        Handler::doWarning("some/File", 1, name.c_str(), "text");
    });
    EXPECT_EQ(1023u, end.errors.size());
    EXPECT_EQ("...\n", end.errors.substr(end.errors.size() - 4));
}

TEST(GlobalErrorHandler, handlesEventsOfManyThreadsAtOnce) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 500;
    EventRecorder const recorder;
    runInThreads(THREADS, [](int i) {
        for (int round = 0; round < ROUNDS; ++round) {
            Handler::doWarning("some/File", round, "function", "thread %d", i);
        }
    });
    int counts[THREADS] = {};
    for (auto const& event : recorder.getEvents()) {
        ++counts[event.message.back() - '0'];
    }
    for (int const count : counts) {
        EXPECT_EQ(ROUNDS, count);
    }
}

TEST(GlobalErrorHandler, exceptionOfTheHookReachesTheCaller) {
    Handler::Hook const hook{
        [](Handler::Event const& event, void*) -> bool {
            throw std::runtime_error(std::string(event.function) + " " + event.message);
        },
        nullptr};
    Handler::Hook const same = hook;
    Handler::Hook const* const before = Handler::setHook(&same);
    EXPECT_EQ(&same, Handler::setHook(&hook)) << "the previous one";
    std::string caught;
    auto const call = [&](auto const& entry) {
        try {
            entry();
        } catch (std::runtime_error const& error) {
            caught += std::string(error.what()) + "; ";
        }
    };
    call([] { Handler::doAssert(false, "a", "some/File", 1, "one", "%d", 1); });
    call([] { Handler::doAbort("some/File", 1, "two", "%d", 2); });
    call([] { Handler::doWarning("some/File", 1, "three", "%d", 3); });
    call([] { Handler::doOutOfMem("some/File", 1, "four", "%d", 4); });
    EXPECT_EQ(&hook, Handler::setHook(before));
    EXPECT_EQ("one 1; two 2; three 3; four 4; ", caught);
}

TEST(GlobalErrorHandler, neverUsesTheHeap) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizers bring their own allocation functions";
    }
    Handler::Hook const hook{[](Handler::Event const&, void*) { return true; }, nullptr};
    Handler::Hook const* const before = Handler::setHook(&hook);
    AllocationCounter const counter;
    Handler::doWarning("some/File", 1, "function", "%s %d", "text", 5);
    Handler::doAssert(false, "a", "some/File", 1, "function", "%s %d", "text", 5);
    int const count = counter.getCount();
    Handler::setHook(before);
    EXPECT_EQ(0, count);
}

} // namespace
