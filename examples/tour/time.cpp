#include "Tour.h"

#include <vesk/CalendarTime.h>
#include <vesk/ProcessTimeStopWatch.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/ThreadTimeStopWatch.h>
#include <vesk/Time.h>

#include <thread>

namespace tour {

namespace {

/// Spins until the stopwatch has measured this many milliseconds.
template <typename StopWatch>
void burn(StopWatch const& watch, long long ms) {
    while (watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MILLISECONDS) < ms) {}
}

} // namespace

void time() {
    section("Time: clocks and stopwatches");
    long long monotonic = 0;
    long long uptime = 0;
    long long timestamp = 0;
    failed(vesk::Time::getTime(monotonic), "getTime");
    failed(vesk::Time::getUptime(uptime), "getUptime");
    if (!failed(vesk::Time::getTimestamp(timestamp), "getTimestamp")) {
        tell("monotonic %lld ms, since start-up %lld ms, since 1970 %lld ms", monotonic, uptime, timestamp);
    }
    vesk::CalendarTime const now(true);
    tell(
        "the calendar says %04u-%02d-%02u %02u:%02u:%02u", now.getYear(),
        static_cast<int>(now.getMonth()) + 1, now.getDay(), now.getHour(), now.getMinute(), now.getSecond());

    vesk::RealtimeStopWatch real(true);
    vesk::ThreadTimeStopWatch thread(true);
    vesk::ProcessTimeStopWatch process(true);
    std::thread other([] { burn(vesk::ThreadTimeStopWatch(true), 20); });
    burn(thread, 20);
    failed(vesk::Time::sleep(30), "sleep");
    other.join();
    real.stop();
    thread.stop();
    process.stop();
    tell(
        "two threads worked 20 ms each, then one slept 30 ms: %lld us of real time, %lld us of this thread, "
        "%lld us of "
        "the process",
        real.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS),
        thread.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS),
        process.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
}

} // namespace tour
