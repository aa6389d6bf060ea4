// Supervises programs. README.md tells how to use it.
#include "Supervisor.h"

#include <vesk/Environment.h>
#include <vesk/Vesk.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

/// Sends a message to systemd, if it has started this process. Its socket takes datagrams, and `vesk::UnixSocket` is
/// a stream, so this is the bare system call. It must not block: a supervisor does not wait for its own.
void notify(char const* message) {
    char const* const path = vesk::Environment::getVariable("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || strlen(path) >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strlen(path));
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    vesk::loop::Fd const fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
    static_cast<void>(sendto(
        fd.get(), message, strlen(message), MSG_NOSIGNAL | MSG_DONTWAIT,
        reinterpret_cast<sockaddr*>(&address), size));
}

/// Returns how often systemd wants to hear from this process: twice in the time that it waits. 0 for never.
std::chrono::microseconds watchdogPeriod() {
    char const* const text = vesk::Environment::getVariable("WATCHDOG_USEC");
    return std::chrono::microseconds(text == nullptr ? 0 : strtoll(text, nullptr, 10) / 2);
}

int run(std::string const& config, std::string const& socket) {
    vesk::loop::Loop loop;
    supervisor::Supervisor supervisor(loop, config, socket);
    auto const terminate = loop.onSignal(SIGTERM, [&] { supervisor.stop(); });
    auto const interrupt = loop.onSignal(SIGINT, [&] { supervisor.stop(); });
    auto const reload = loop.onSignal(SIGHUP, [&] { supervisor.reload(); });
    if (!terminate || !interrupt || !reload || supervisor.start()) {
        return 1;
    }
    vesk::loop::Timer watchdog;
    if (watchdogPeriod().count() > 0) {
        auto timer = loop.every(watchdogPeriod(), [] { notify("WATCHDOG=1"); });
        if (timer) {
            watchdog = std::move(*timer);
        }
    }
    notify("READY=1"); // All services have been started, or have reported why not.
    auto const result = loop.run();
    notify("STOPPING=1");
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
