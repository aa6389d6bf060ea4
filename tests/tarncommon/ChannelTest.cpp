#include "support/Testing.h"

#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/tracing/Channel.h>

#include <sys/syscall.h>

namespace {

using namespace support;
using tracing::Channel;

TEST(Channel, writesOneLineAtAnyThreshold) {
    ChildEnd const end = runInChild([] {
        Channel channel("Test_Channel", 7, 0);
        channel.logCV(2, "can't set %s to %d", "nice", -5);
    });
    EXPECT_EQ("Test_Channel[2]: can't set nice to -5\n", end.errors);
}

TEST(Channel, flagsAddTheThreadAndTheTime) {
    long long const before = tarnbase::TimePoint::now().getCount();
    ChildEnd const end = runInChild([] {
        Channel channel("Test_Channel", 0, Channel::WITH_THREAD);
        channel.logCV(2, "text");
        Channel timed("Timed", 0, Channel::WITH_TIME);
        timed.logCV(-1, "text");
        printf("%ld", syscall(SYS_gettid));
    });
    long long const after = tarnbase::TimePoint::now().getCount();
    std::string const first = "Test_Channel[2] tid " + end.output + ": text\n";
    ASSERT_EQ(first, end.errors.substr(0, first.size()));
    std::string const second = end.errors.substr(first.size());
    long long const time = strtoll(second.c_str(), nullptr, 10);
    EXPECT_LE(before, time);
    EXPECT_LE(time, after);
    EXPECT_EQ(" Timed[-1]: text\n", second.substr(second.find(' ')));
}

TEST(Channel, cutsALongLine) {
    ChildEnd const end = runInChild([] {
        Channel channel("C", 0, 0);
        channel.logCV(2, "%s", std::string(5000, 'x').c_str());
    });
    EXPECT_EQ(1024u, end.errors.size());
    EXPECT_EQ("...\n", end.errors.substr(end.errors.size() - 4));
}

TEST(Channel, thresholdIsSetByName) {
    Channel const one("Same", 7, 2);
    Channel const two("Same", 7, 2);
    Channel const other("Other", 7, 2);
    EXPECT_EQ("Same", two.getName());
    EXPECT_EQ(7, two.m_threshold) << "that of its construction";
    EXPECT_TRUE(Channel::setThreshold("Same", 2));
    EXPECT_EQ(2, one.m_threshold);
    EXPECT_EQ(2, two.m_threshold);
    EXPECT_EQ(7, other.m_threshold);
    EXPECT_FALSE(Channel::setThreshold("None", 2));
    EXPECT_FALSE(Channel::setThreshold("", 2));
}

TEST(Channel, destroyedChannelIsNotFound) {
    Channel const before("Before", 7, 2);
    {
        Channel const channel("Gone", 7, 2);
        Channel const after("After", 7, 2);
        EXPECT_TRUE(Channel::setThreshold("Gone", 1));
    }
    EXPECT_FALSE(Channel::setThreshold("Gone", 1));
    EXPECT_FALSE(Channel::setThreshold("After", 1));
    EXPECT_TRUE(Channel::setThreshold("Before", 1));
}

struct EnvironmentRow {
    char const* value;
    short threshold;
};

void PrintTo(EnvironmentRow const& row, std::ostream* out) {
    *out << (row.value != nullptr ? row.value : "unset");
}

class ChannelEnvironment : public testing::TestWithParam<EnvironmentRow> {};

TEST_P(ChannelEnvironment, setsTheThreshold) {
    if (GetParam().value != nullptr) {
        setenv("TARN_TRACE", GetParam().value, 1);
    } else {
        unsetenv("TARN_TRACE");
    }
    Channel const channel("FW_Test", 7, 2);
    unsetenv("TARN_TRACE");
    EXPECT_EQ(GetParam().threshold, channel.m_threshold);
}

INSTANTIATE_TEST_SUITE_P(
    All, ChannelEnvironment,
    testing::Values(
        EnvironmentRow{nullptr, 7}, EnvironmentRow{"", 7}, EnvironmentRow{"FW_Test=2", 2},
        EnvironmentRow{"Other=1,FW_Test=-3", -3}, EnvironmentRow{"FW_Test=0,Other=1", 0},
        EnvironmentRow{"FW_Test2=1", 7}, EnvironmentRow{"FW_Tes=1", 7}, EnvironmentRow{"MY_FW_Test=1", 7},
        EnvironmentRow{"FW_Test=", 7}, EnvironmentRow{"FW_Test=x", 7}, EnvironmentRow{"FW_Test=2x", 7},
        EnvironmentRow{"FW_Test=99999", 7}, EnvironmentRow{"FW_Test", 7}, EnvironmentRow{",,FW_Test=4,", 4}));

TEST(Channel, thresholdCanBeSetWhileThreadsReadIt) {
    Channel const channel("Raced", 7, 2);
    std::atomic<bool> done{false};
    std::thread setter([&done] {
        for (int i = 0; i < 10000; ++i) {
            Channel::setThreshold("Raced", static_cast<short>(i % 8));
        }
        done = true;
    });
    int wrong = 0;
    while (!done) {
        short const threshold = channel.m_threshold;
        wrong += threshold < 0 || threshold > 7 ? 1 : 0;
    }
    setter.join();
    EXPECT_EQ(0, wrong);
}

} // namespace
