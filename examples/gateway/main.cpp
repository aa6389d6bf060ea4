// Collects telemetry of many clients and passes it on. README.md tells how to use it.
#include "Announcer.h"
#include "Discovery.h"
#include "Links.h"
#include "Notify.h"
#include "Number.h"
#include "Server.h"

#include <vesk/Poller.h>
#include <vesk/SignalCatcher.h>
#include <vesk/Timer.h>
#include <vesk/Vesk.h>

#include <csignal>
#include <iostream>
#include <stdexcept>

namespace gateway {
namespace {

class Gateway {
public:
    Gateway(std::string name, unsigned short port)
        : m_name(std::move(name)), m_server(m_poller, m_hub, port) {}

    [[nodiscard]] bool start() {
        if (m_server.start() || m_links.start()) {
            return true;
        }
        m_discovery.start(m_name, m_server.port());
        std::cout << "listening at port " << m_server.port() << std::endl;
        return false;
    }

    void run() {
        while (!m_is_over) {
            if (m_poller.poll()) {
                m_mailbox.carryOut();
            } else {
                m_server.sweep();
            }
        }
    }

    /// For other threads.
    void stop() {
        post([this] { m_is_over = true; });
    }
    /// Something is due every second. For other threads.
    void tick() {
        post([this] {
            m_server.resume();
            m_announcer.send(announcement(m_name, m_server.port(), m_hub.numbers()));
        });
    }
    /// For other threads: the sign of life comes from the thread that works.
    void sayAlive() {
        post([] { examples::notify("WATCHDOG=1"); });
    }

private:
    void post(std::function<void()> call) { m_mailbox.post(std::move(call)); }

    std::string const m_name;
    bool m_is_over = false;
    vesk::Poller m_poller;
    Mailbox m_mailbox{m_poller};
    Hub m_hub;
    Announcer m_announcer;
    Server m_server;
    // Last: their threads end before what they post to.
    Links m_links{
        [this](std::function<void()> call) { post(std::move(call)); },
        [this](std::string const& address, bool is_there) {
            m_announcer.setLink(address, is_there);
            m_hub.setLink(address, is_there);
        }};
    Discovery m_discovery{
        [this](std::function<void()> call) { post(std::move(call)); },
        [this](std::string const& name, bool is_there) { m_hub.setPeer(name, is_there); }};
};

Gateway* s_gateway; // Timers have no argument.

int run(std::string const& name, unsigned short port) {
    Gateway gateway(name, port);
    s_gateway = &gateway;
    // The threads of timers and signals come before the guard: this thread and later ones block the signals.
    vesk::Timer second([](vesk::Timer*) { s_gateway->tick(); }, false);
    vesk::Timer alive([](vesk::Timer*) { s_gateway->sayAlive(); }, false);
    auto const end = [](int, void*) { s_gateway->stop(); };
    vesk::SignalCatcher const terminate(SIGTERM, end, nullptr);
    vesk::SignalCatcher const interrupt(SIGINT, end, nullptr);
    vesk::Poller::SignalsOff const signals_off;
    unsigned int const keep_alive = examples::getKeepAliveInterval();
    if (gateway.start() || second.startFixedRate(1000) ||
        (keep_alive != 0 && alive.startFixedRate(keep_alive))) {
        std::cerr << tarn_error.getReasonList() << '\n';
        return 1;
    }
    examples::notify("READY=1");
    gateway.run();
    examples::notify("STOPPING=1");
    return 0;
}

} // namespace
} // namespace gateway

int main(int count, char** arguments) {
    unsigned int port = 0;
    if (count != 3 || !examples::readNumber(arguments[2], 0, 65535, port)) {
        std::cerr << "usage: " << arguments[0] << " NAME PORT\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    try {
        return gateway::run(arguments[1], static_cast<unsigned short>(port));
    } catch (std::invalid_argument const& problem) {
        std::cerr << arguments[1] << ": " << problem.what() << '\n';
        return 2;
    }
}
