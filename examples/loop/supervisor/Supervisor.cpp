#include "Supervisor.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <sys/socket.h>
#include <unistd.h>

namespace supervisor {

namespace {

constexpr size_t LONGEST_LINE = 256;

/// Returns whether the peer runs as the same user as this process, or as root (`SO_PEERCRED`).
bool mayCommand(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
        (peer.uid == 0 || peer.uid == geteuid());
}

bool failWith(char const* what) {
    std::cerr << what << ": " << tarn_error.getReasonList() << '\n';
    std::ErrorStorage::ack();
    return true;
}

} // namespace

Supervisor::Supervisor(vesk::loop::Loop& loop, std::string config_path, std::string const& socket_path)
    : m_loop(loop),
      m_config_path(std::move(config_path)),
      m_server(socket_path, false, m_server.FILESYSTEM) {}

bool Supervisor::start() {
    if (!m_server.isValid()) {
        return failWith("socket");
    }
    m_server.enableListen(8);
    if (m_server.hadError()) {
        return failWith("socket");
    }
    auto watch = m_loop.onReadable(m_server.getSocketFd(), [this] { accept(); });
    if (!watch) {
        std::cerr << watch.error() << '\n';
        return true;
    }
    m_watch = std::move(*watch);
    reload();
    return m_services.empty();
}

void Supervisor::reload() {
    Config config;
    std::string problem;
    if (readConfig(m_config_path, config, problem)) {
        std::cerr << "configuration unchanged: " << problem << std::endl;
        return;
    }
    std::list<std::string> gone;
    for (auto const& [name, service] : m_services) {
        auto const found = config.find(name);
        if (found == config.end()) {
            gone.push_back(name);
        } else if (!(found->second == service->config())) {
            service->change(found->second);
        }
    }
    for (std::string const& name : gone) {
        remove(name);
    }
    for (auto const& [name, entry] : config) {
        auto const [position, is_new] = m_services.try_emplace(name);
        if (is_new) {
            position->second = std::make_unique<Service>(m_loop, name, entry);
            position->second->start();
        }
    }
    std::cout << "configuration read: " << m_services.size() << " services" << std::endl;
}

void Supervisor::remove(std::string const& name) {
    // Posted: a service must not be destroyed in its own callback.
    m_services.at(name)->stop([this, name] {
        auto const posted = m_loop.post([this, name] {
            m_services.erase(name);
            stopLoopIfIdle();
        });
        static_cast<void>(posted);
    });
}

void Supervisor::stop() {
    if (m_stopping) {
        return;
    }
    m_stopping = true;
    m_watch.cancel();
    m_clients.clear();
    std::list<std::string> names;
    for (auto const& entry : m_services) {
        names.push_back(entry.first);
    }
    for (std::string const& name : names) {
        remove(name);
    }
    stopLoopIfIdle();
}

void Supervisor::stopLoopIfIdle() {
    if (m_stopping && m_services.empty()) {
        static_cast<void>(m_server.close(false)); // Removes its file.
        m_loop.stop();
    }
}

// ---- commands ----

void Supervisor::accept() {
    vesk::UnixSocket::Description const accepted = m_server.acceptConnection();
    if (!accepted.valid || !mayCommand(accepted.socket_fd)) {
        std::ErrorStorage::ack();
        return; // The description closes the connection.
    }
    Client& client = m_clients.emplace_back(accepted);
    auto watch = m_loop.onReadable(client.socket.getSocketFd(), [this, &client] { receive(client); });
    if (!watch) {
        m_clients.pop_back();
        return;
    }
    client.watch = std::move(*watch);
}

void Supervisor::receive(Client& client) {
    char piece[LONGEST_LINE];
    unsigned int count = 0;
    int const result = client.socket.read(piece, sizeof piece, count);
    client.line.append(piece, count);
    size_t const end = client.line.find('\n');
    if (end != std::string::npos) {
        std::string const text = answer(client.line.substr(0, end));
        unsigned int written = 0;
        // Short enough for the system's buffer; the peer has just been active.
        static_cast<void>(client.socket.write(text.data(), static_cast<unsigned int>(text.size()), written));
    }
    std::ErrorStorage::ack();
    if (result != 1 || end != std::string::npos || client.line.size() > LONGEST_LINE) {
        forget(client);
    }
}

void Supervisor::forget(Client& client) {
    m_clients.remove_if([&client](Client const& other) { return &other == &client; });
}

std::string Supervisor::answer(std::string const& line) {
    std::string text;
    size_t const blank = line.find(' ');
    std::string const command = line.substr(0, blank);
    std::string const which = blank == std::string::npos ? "" : line.substr(blank + 1);
    for (auto const& [name, service] : m_services) {
        if (!which.empty() && which != name && which != service->config().group) {
            continue;
        }
        if (command == "start") {
            service->start();
        } else if (command == "stop") {
            service->stop([] {});
        } else if (command != "status") {
            return "commands: status, start, stop; then nothing, a service or a group\n";
        }
        text += service->status() + "\n";
    }
    return text.empty() ? "no such service\n" : text;
}

} // namespace supervisor
