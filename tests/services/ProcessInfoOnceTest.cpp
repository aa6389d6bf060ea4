#include "services/FakeProc.h"
#include "support/Testing.h"

#include <vesk/ProcessInfo.h>

// Each process queries the sizes of ticks and pages once. The tests run in children, which have not queried them yet.

namespace {

std::atomic<int> s_tick_calls{0};
std::atomic<int> s_page_calls{0};
long s_ticks = 0;
long s_page_size = 0;

} // namespace

VESK_INJECT(
    long, , sysconf, (int name), (name),
    if (name == _SC_CLK_TCK && s_ticks != 0) {
        ++s_tick_calls;
        return s_ticks;
    } if (name == _SC_PAGESIZE && s_page_size != 0) {
        ++s_page_calls;
        return s_page_size;
    })

namespace {

using namespace support;
using vesk::ProcessInfo;

VESK_TEST_BY(expectInChild, ProcessInfoOnce, sizesOfTicksAndPagesAreQueried) {
    FakeDaemon const proc;
    s_ticks = 1000;
    s_page_size = 65536;
    for (int round = 0; round < 3; ++round) {
        ProcessInfo const info = takeSnapshot();
        EXPECT_TRUE(info.valid);
        EXPECT_EQ(300u, info.user_time);
        EXPECT_EQ(250u, info.system_time);
        EXPECT_EQ(33u * 65536, info.resident);
        // Later answers of the system have no effect.
        s_ticks = 1;
        s_page_size = 1;
    }
    EXPECT_EQ(1, s_tick_calls);
    EXPECT_EQ(1, s_page_calls);
}

VESK_TEST_BY(expectInChild, ProcessInfoOnce, sizesAreQueriedOnceByThreadsAtTheSameTime) {
    s_ticks = 1000;
    s_page_size = 65536;
    std::atomic<int> waiting{8};
    runInThreads(8, [&waiting](int) {
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
    EXPECT_EQ(1, s_tick_calls);
    EXPECT_EQ(1, s_page_calls);
}

VESK_TEST_BY(expectInChild, ProcessInfoOnce, missingPageSizeTripsAnAssertionEachTime) {
    FakeDaemon const proc;
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
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

} // namespace
