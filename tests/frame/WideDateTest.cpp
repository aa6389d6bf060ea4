#include "support/CleanEnd.h"
#include "support/Sleeper.h"
#include "support/TempFolder.h"
#include "support/Testing.h"

#include <vesk/AbsTime.h>
#include <vesk/CalendarTime.h>
#include <vesk/Condition.h>
#include <vesk/FileInfo.h>
#include <vesk/Mutex.h>
#include <vesk/RWLock.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/ShmMutex.h>
#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Timer.h>

#include <atomic>
#include <limits>
#include <sys/syscall.h>

/// Whatever depends on the date, with the date that the system has. On a 32-bit system that is switched to a date
/// beyond January 2038 (`scripts/target --date`), this shows what each width of `time_t` can do.

namespace {

using namespace support;
using vesk::CalendarTime;
using vesk::Time;

/// Returns the seconds since the epoch, also if `time_t` cannot hold them.
long long getSeconds() {
#if defined(SYS_clock_gettime64)
    long long now[2] = {0, 0};
    EXPECT_EQ(0, syscall(SYS_clock_gettime64, CLOCK_REALTIME, now)) << strerror(errno);
    return now[0];
#else
    return time(nullptr);
#endif
}

/// Whether `time_t` holds the system's date.
bool fits() {
    return getSeconds() <= std::numeric_limits<time_t>::max();
}

TEST(WideDate, timestampIsThatOfTheSystemOrAReportedFailure) {
    long long ms = 0;
    if (!fits()) {
        EXPECT_TRUE(Time::getTimestamp(ms));
        EXPECT_TRUE(causeIs(Time::ErrorId::GET_TIMESTAMP_FAILED, EOVERFLOW));
        return;
    }
    long long const before = getSeconds();
    ASSERT_FALSE(Time::getTimestamp(ms));
    EXPECT_LE(before, ms / 1000);
    EXPECT_GE(getSeconds(), ms / 1000);
}

TEST(WideDate, calendarHasTheYearOfTheSystemOrTheLastSecondBeforeTheEpoch) {
    setenv("TZ", "UTC", 1);
    tzset();
    long long const year = 1970 + getSeconds() / 31'556'952; // The mean length of a year.
    EXPECT_EQ(fits() ? year : 1969, CalendarTime(true).getYear());
}

TEST(WideDate, moments) {
    setenv("TZ", "UTC", 1);
    tzset();
    CalendarTime date(false);
    constexpr long long MOMENT = 2'222'222'222'000; // 2 June 2040.
    date.setTimestamp(MOMENT);
    if (sizeof(time_t) == 4) {
        EXPECT_EQ(1970, date.getYear()) << "is unchanged";
        date.setDate(2040, CalendarTime::Month::JUNE, 2, 3, 57, 2);
        EXPECT_EQ(-1000, date.getTimestamp());
    } else {
        EXPECT_EQ(2040, date.getYear());
        EXPECT_EQ(MOMENT, date.getTimestamp());
    }
}

TEST(WideDate, fileHasTheTimeOfItsChangeOrNoInformation) {
    TempFolder const folder;
    long long const before = getSeconds();
    std::string const path = folder.makeFile("file");
    vesk::FileInfo const info(path.c_str(), true);
    if (!fits()) {
        EXPECT_FALSE(info.isValid());
        EXPECT_TRUE(causeIs(vesk::SysErrorId::UNCLASSIFIED, EOVERFLOW));
        return;
    }
    ASSERT_TRUE(info.isValid());
    EXPECT_LE(before - 1, info.getModTime()); // The system takes the time of its last tick.
    EXPECT_GE(getSeconds(), info.getModTime());
    EXPECT_FALSE(vesk::FileInfo::setModTime(path, std::numeric_limits<int32_t>::max()));
    EXPECT_EQ(std::numeric_limits<int32_t>::max(), vesk::FileInfo(path.c_str(), true).getModTime());
}

/// A wait with a time limit, on the wall clock where the system has no other.
struct Wait {
    char const* name;
    bool uses_wall_clock;
    signed char (*run)(long long ms);
};

vesk::ShmMutex const* s_mutex;
vesk::RWLock const* s_lock;

constexpr Wait WAITS[] = {
    {"ShmMutex", true, [](long long ms) { return s_mutex->tryLockTimeout(ms); }},
    {"RWLock", true, [](long long ms) { return s_lock->tryLockForRead(static_cast<unsigned int>(ms)); }},
    {"Semaphore", true,
     [](long long ms) {
         vesk::SemaphoreCreator semaphore;
         EXPECT_FALSE(semaphore.create("vesk-wide-date", 0, vesk::Creatable::REPLACE));
         signed char const result = semaphore.tryTakeTimeout(ms);
         EXPECT_FALSE(semaphore.deleteName());
         return result;
     }},
    {"Thread", true,
     [](long long ms) {
         std::atomic<bool> ends{false};
         vesk::Thread thread(
             [](void* flag) {
                 while (!*static_cast<std::atomic<bool>*>(flag)) {
                     Time::sleep(1);
                 }
             },
             &ends);
         EXPECT_FALSE(thread.start());
         signed char const result = thread.joinTimeout(ms);
         ends = true;
         EXPECT_FALSE(thread.join());
         return result;
     }},
    {"Condition", false,
     [](long long ms) {
         vesk::Mutex mutex;
         vesk::Condition condition;
         vesk::MutexLock const guard(mutex);
         long long now = 0;
         EXPECT_FALSE(Time::getTime(now));
         return condition.waitTimeout(mutex, vesk::AbsTimeT(now + ms));
     }},
    {"Timer", false,
     [](long long ms) {
         static std::atomic<bool> s_has_expired;
         s_has_expired = false;
         vesk::Timer timer([](vesk::Timer*) { s_has_expired = true; }, false);
         timer.start(static_cast<unsigned int>(ms), false);
         return static_cast<signed char>(eventually([] { return s_has_expired.load(); }) ? 1 : -1);
     }},
};

class WideDateWaits : public testing::TestWithParam<Wait> {};

TEST_P(WideDateWaits, lastAsLongAsToldOrFail) {
    vesk::ShmMutex const mutex;
    vesk::RWLock const lock;
    s_mutex = &mutex;
    s_lock = &lock;
    ASSERT_EQ(0, mutex.lock());
    ASSERT_EQ(0, lock.lockForWrite());
    signed char result = 0;
    timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    Sleeper([&result] { result = GetParam().run(50); }).join();
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &after);
    if (GetParam().uses_wall_clock && !fits()) {
        EXPECT_EQ(-1, result);
    } else {
        EXPECT_EQ(1, result);
        EXPECT_LE(49, (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1'000'000);
    }
    EXPECT_EQ(0, mutex.unlock());
    EXPECT_EQ(0, lock.unlock());
}

INSTANTIATE_TEST_SUITE_P(All, WideDateWaits, testing::ValuesIn(WAITS), [](auto const& row) {
    return row.param.name;
});

} // namespace
