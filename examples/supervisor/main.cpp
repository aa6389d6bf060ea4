// Supervises programs. README.md tells how to use it.
#include "MainThread.h"
#include "Notify.h"
#include "Supervisor.h"
#include "Tick.h"

#include <vesk/Vesk.h>

#include <csignal>
#include <iostream>

namespace {

int run(std::string const& config, std::string const& socket) {
    examples::MainThread main_thread;
    supervisor::Supervisor supervisor(main_thread.queue(), config, socket, [&] { main_thread.stop(); });
    main_thread.onEnd([&] {
        examples::notify("STOPPING=1");
        supervisor.stop();
    });
    vesk::SignalCatcher const reload(
        SIGHUP, main_thread.signals(),
        [](int, void* argument) { static_cast<supervisor::Supervisor*>(argument)->reload(); }, &supervisor);
    examples::Tick alive(
        main_thread.queue(), [](void*) { examples::notify("WATCHDOG=1"); }, nullptr);
    unsigned int const keep_alive = examples::getKeepAliveInterval();
    if (supervisor.start() || (keep_alive != 0 && alive.startFixedRate(keep_alive))) {
        return 1;
    }
    // All services have been started, or have reported why not.
    examples::notify("READY=1");
    main_thread.run();
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " CONFIGURATION SOCKET\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    return run(arguments[1], arguments[2]);
}
