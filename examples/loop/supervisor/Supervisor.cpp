#include "Supervisor.h"

#include "Keep.h"

#include <unistd.h>
#include <utility>

namespace supervisor {

namespace {

using namespace std::chrono_literals;
using vesk::loop::Connection;
using vesk::loop::Result;

constexpr size_t LONGEST_LINE = 256;

/// Returns whether the peer runs as the same user as this process, or as root.
bool mayCommand(Connection const& peer) {
    auto const process = peer.credentials();
    return process && (process->user == 0 || process->user == geteuid());
}

} // namespace

Supervisor::Supervisor(vesk::loop::Loop& loop, std::string config_path)
    : m_loop(loop),
      m_services(
          std::move(config_path),
          [&loop](auto const& name, auto const& config, auto then) {
              return std::make_shared<Service>(loop, name, config, std::move(then));
          },
          [&loop](auto call) { static_cast<void>(loop.post(std::move(call))); }) {}

bool Supervisor::start(std::string const& socket_path) {
    using vesk::loop::Listener;
    auto const take = [this](Connection peer) { accept(std::move(peer)); };
    if (examples::keep(m_server, Listener::open(m_loop, "unix:" + socket_path, take))) {
        return true;
    }
    reload();
    return m_services.isEmpty();
}

void Supervisor::stop() {
    if (!std::exchange(m_is_stopping, true)) {
        m_server = {}; // Removes its file.
        m_clients.clear();
        m_services.stop([this] { m_loop.stop(); });
    }
}

void Supervisor::accept(Connection peer) {
    if (!mayCommand(peer)) {
        return; // The end of `peer` closes the connection.
    }
    int const id = ++m_last_id;
    Client& client = m_clients[id];
    client.connection = std::move(peer);
    client.connection.setDeadlines({10s, 10s, 0s});
    client.connection.onEnd([this, id](Result<> const&) { m_clients.erase(id); });
    if (!client.connection.onData([this, id](std::string_view data) { receive(id, data); })) {
        m_clients.erase(id);
    }
}

void Supervisor::receive(int id, std::string_view data) {
    Client& client = m_clients.at(id);
    client.line += data;
    size_t const end = client.line.find('\n');
    if (end == std::string::npos) {
        if (client.line.size() > LONGEST_LINE) {
            m_clients.erase(id);
        }
        return;
    }
    static_cast<void>(client.connection.write(m_services.answer(client.line.substr(0, end))));
    if (!client.connection.close([this, id](Result<> const&) { m_clients.erase(id); })) {
        m_clients.erase(id);
    }
}

} // namespace supervisor
