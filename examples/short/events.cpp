#include <vesk/Poller.h>
#include <vesk/Timer.h>
#include <vesk/Vesk.h>

#include <iostream>

namespace {

vesk::Poller poller;

// Called by the thread of the timers, never in a signal handler.
void ring(vesk::Timer* /*unused*/) {
    static int rings = 0;
    std::cout << "ring " << ++rings << std::endl;
    if (rings == 3) {
        poller.stop();
    }
}

} // namespace

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::Timer timer(ring, false); // First: its thread receives the signals.
    vesk::Poller::SignalsOff const signals_off;
    if (timer.start(20, true)) {
        return 1;
    }
    while (!poller.poll()) {}
    return timer.stop() ? 1 : 0;
}
