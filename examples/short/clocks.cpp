#include <vesk/RealtimeStopWatch.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <iostream>

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::RealtimeStopWatch const watch(true);
    if (vesk::Time::sleep(20)) {
        return 1;
    }
    auto const ms = watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MILLISECONDS);
    std::cout << (ms >= 19 ? "slept long enough" : "woken too early") << '\n';
}
