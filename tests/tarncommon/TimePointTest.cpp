#include "support/Testing.h"

#include <tarncommon/tarnbase/Duration.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <limits>

namespace {

using tarnbase::Duration;
using tarnbase::TimePoint;

long long monotonicMs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

TEST(TimePoint, nowReadsTheMonotonicClockAndIsBeforeMax) {
    long long const before = monotonicMs();
    long long const now = TimePoint::now().getCount();
    long long const after = monotonicMs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    EXPECT_LT(TimePoint::now(), TimePoint::MAX);
    EXPECT_EQ(LLONG_MAX, TimePoint(TimePoint::MAX).getCount());
}

TEST(TimePoint, differenceIsADurationAndSumATimePoint) {
    EXPECT_EQ(Duration(30), TimePoint(50) - TimePoint(20));
    EXPECT_EQ(Duration(-30), TimePoint(20) - TimePoint(50));
    EXPECT_EQ(TimePoint(70), TimePoint(50) + Duration(20));
    EXPECT_EQ(0, TimePoint().getCount());
    EXPECT_EQ(0, Duration().getCount());
}

template <typename T>
class Compared : public testing::Test {};
using Values = testing::Types<TimePoint, Duration>;
TYPED_TEST_SUITE(Compared, Values);

TYPED_TEST(Compared, byItsCount) {
    TypeParam const low(-1);
    TypeParam const high(1LL << 40);
    EXPECT_TRUE(low == TypeParam(-1) && !(low == high));
    EXPECT_TRUE(low != high && !(low != low));
    EXPECT_TRUE(low < high && !(high < low) && !(low < low));
    EXPECT_TRUE(low <= high && low <= low && !(high <= low));
    EXPECT_TRUE(high > low && !(low > high) && !(low > low));
    EXPECT_TRUE(high >= low && low >= low && !(low >= high));
}

TEST(TimePoint, timespecHoldsSecondsAndNanosecondsAndNeverWraps) {
    timespec const time = TimePoint(12345).toTimespec();
    EXPECT_EQ(12, time.tv_sec);
    EXPECT_EQ(345000000, time.tv_nsec);
    timespec const negative = TimePoint(-1).toTimespec();
    EXPECT_EQ(0, negative.tv_sec);
    EXPECT_EQ(0, negative.tv_nsec);
    timespec const last = TimePoint(TimePoint::MAX).toTimespec();
    time_t const latest = std::numeric_limits<time_t>::max();
    EXPECT_EQ(sizeof(time_t) == 4 ? latest : static_cast<time_t>(LLONG_MAX / 1000), last.tv_sec);
    EXPECT_GE(last.tv_nsec, 0);
    EXPECT_LT(last.tv_nsec, 1000000000);
}

TEST(NonCopyable, isNeitherCopiedNorAssigned) {
    class Owner : tarnbase::NonCopyable {};
    static_assert(!std::is_copy_constructible_v<Owner> && !std::is_copy_assignable_v<Owner>);
    static_assert(!std::is_move_constructible_v<Owner> && !std::is_move_assignable_v<Owner>);
    EXPECT_EQ(1u, sizeof(Owner)) << "it has no members";
}

} // namespace
