// The telemetry gateway of ../gateway, on one loop: clients, calls of other threads, timers and signals.
#include "Announcer.h"
#include "Discovery.h"
#include "Hub.h"
#include "Keep.h"
#include "Links.h"
#include "Number.h"

#include <vesk/Vesk.h>
#include <vesk/loop/Listener.h>
#include <vesk/loop/Loop.h>
#include <vesk/loop/ServiceManager.h>

#include <csignal>
#include <iostream>
#include <map>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>

using namespace std::chrono_literals;
using namespace vesk::loop;

namespace gateway {
namespace {

constexpr std::size_t MOST_CLIENTS = 200;
constexpr std::size_t LONGEST_QUEUE = 64 * 1024;

/// Lets the system find a peer that is gone without a word.
void keepAlive(int fd) {
    constexpr int ON = 1;
    constexpr int IDLE_SECONDS = 60;
    constexpr int PROBES = 3;
    constexpr int PAUSE_SECONDS = 10;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &ON, sizeof ON);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &IDLE_SECONDS, sizeof IDLE_SECONDS);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &PROBES, sizeof PROBES);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &PAUSE_SECONDS, sizeof PAUSE_SECONDS);
}

class Gateway {
public:
    explicit Gateway(std::string name) : m_name(std::move(name)) {}

    [[nodiscard]] bool start(unsigned short wanted_port) {
        auto const end = [this] { m_loop.stop(); };
        // Before any thread starts: the loop blocks the signals that it takes.
        if (examples::keep(m_terminate, m_loop.onSignal(SIGTERM, end)) ||
            examples::keep(m_interrupt, m_loop.onSignal(SIGINT, end)) ||
            examples::keep(m_second, m_loop.every(1s, [this] { announce(); })) ||
            examples::keep(
                m_server,
                Listener::open(m_loop, "0.0.0.0:" + std::to_string(wanted_port), [this](Connection peer) {
                    accept(std::move(peer));
                }))) {
            return true;
        }
        if (m_links.start()) {
            std::cerr << tarn_error.getReasonList() << '\n';
            return true;
        }
        m_discovery.start(m_name, port());
        std::cout << "listening at " << m_server.address().text() << std::endl;
        return false;
    }

    [[nodiscard]] int run() {
        auto const alive = ServiceManager::keepAlive(m_loop);
        static_cast<void>(ServiceManager::ready());
        bool const done = static_cast<bool>(m_loop.run());
        static_cast<void>(ServiceManager::stopping());
        return done ? 0 : 1;
    }

private:
    /// A client. It leaves the hub with its end.
    class Session : public Hub::Client {
    public:
        Session(Gateway& gateway, int id, Connection peer)
            : m_gateway(gateway), m_id(id), m_connection(std::move(peer)) {
            m_gateway.m_hub.add(*this);
        }
        ~Session() override { m_gateway.m_hub.remove(*this); }

        [[nodiscard]] bool start() {
            keepAlive(m_connection.fd());
            // The peer's end of sending is its end.
            m_connection.onEnd([this](Result<> const&) { m_gateway.m_sessions.erase(m_id); });
            auto const begun = m_connection.onData([this](std::string_view data) {
                if (m_gateway.m_hub.take(*this, data)) {
                    m_gateway.m_sessions.erase(m_id);
                }
            });
            return !begun;
        }

        void send(std::string_view text) override {
            if (m_is_over) {
                return;
            }
            auto const written = m_connection.write(text);
            m_is_over = !written || m_connection.queued() > LONGEST_QUEUE;
            if (m_is_over) {
                // Not now: the hub walks over its clients.
                static_cast<void>(m_gateway.m_loop.post(
                    [&gateway = m_gateway, id = m_id] { gateway.m_sessions.erase(id); }));
            }
        }

    private:
        Gateway& m_gateway;
        int const m_id;
        Connection m_connection;
        bool m_is_over = false;
    };

    void accept(Connection peer) {
        if (m_sessions.size() >= MOST_CLIENTS) {
            return; // Closes it.
        }
        int const id = ++m_last_id;
        auto const position = m_sessions.try_emplace(id, *this, id, std::move(peer)).first;
        if (position->second.start()) {
            m_sessions.erase(position);
        }
    }

    unsigned short port() const { return static_cast<unsigned short>(m_server.address().port()); }

    void announce() { m_announcer.send(announcement(m_name, port(), m_hub.numbers())); }

    Post post() {
        return [this](std::function<void()> call) { static_cast<void>(m_loop.post(std::move(call))); };
    }

    std::string const m_name;
    Loop m_loop;
    Hub m_hub;
    Announcer m_announcer;
    std::map<int, Session> m_sessions;
    int m_last_id = 0;
    Listener m_server;
    Watch m_terminate;
    Watch m_interrupt;
    Timer m_second;
    // Last: their threads end before what they post to.
    Links m_links{post(), [this](std::string const& address, bool is_there) {
                      m_announcer.setLink(address, is_there);
                      m_hub.setLink(address, is_there);
                  }};
    Discovery m_discovery{
        post(), [this](std::string const& name, bool is_there) { m_hub.setPeer(name, is_there); }};
};

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
        gateway::Gateway gateway(arguments[1]);
        return gateway.start(static_cast<unsigned short>(port)) ? 1 : gateway.run();
    } catch (std::invalid_argument const& problem) {
        std::cerr << arguments[1] << ": " << problem.what() << '\n';
        return 2;
    }
}
