// The supervisor of ../../supervisor on one loop. Its README.md tells how to use it.
#include "Supervisor.h"

#include <vesk/Vesk.h>
#include <vesk/loop/ServiceManager.h>

#include <csignal>
#include <iostream>

namespace {

using vesk::loop::ServiceManager;

int run(std::string const& config, std::string const& socket) {
    vesk::loop::Loop loop;
    supervisor::Supervisor supervisor(loop, config);
    auto const end = [&supervisor] {
        static_cast<void>(ServiceManager::stopping());
        supervisor.stop();
    };
    auto const terminate = loop.onSignal(SIGTERM, end);
    auto const interrupt = loop.onSignal(SIGINT, end);
    auto const reload = loop.onSignal(SIGHUP, [&] { supervisor.reload(); });
    if (!terminate || !interrupt || !reload || supervisor.start(socket)) {
        return 1;
    }
    auto const alive = ServiceManager::keepAlive(loop);
    // All services have been started, or have reported why not. Without a service manager nothing is sent.
    static_cast<void>(ServiceManager::ready());
    auto const result = loop.run();
    return result ? 0 : 1;
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
