#include "Supervisor.h"

#include "Call.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <list>

namespace supervisor {

Supervisor::Supervisor(
    vesk::Message::Sink& queue, std::string config_path, std::string const& socket_path,
    std::function<void()> stopped)
    : m_queue(queue),
      m_config_path(std::move(config_path)),
      m_stopped(std::move(stopped)),
      m_door(socket_path, queue, [this](std::string const& line) { return answer(line); }) {}

bool Supervisor::start() {
    if (m_door.open()) {
        std::cerr << "socket: " << tarn_error.getReasonList() << '\n';
        std::ErrorStorage::ack();
        return true;
    }
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
            position->second = std::make_shared<Service>(m_queue, name, entry);
            position->second->start();
        }
    }
    std::cout << "configuration read: " << m_services.size() << " services" << std::endl;
}

void Supervisor::remove(std::string const& name) {
    // A message: a service must not be destroyed while it calls back.
    m_services.at(name)->stop([this, name] {
        m_queue.push(new examples::Call([this, name] {
            m_services.erase(name);
            reportIfStopped();
        }));
    });
}

void Supervisor::stop() {
    if (m_stopping) {
        return;
    }
    m_stopping = true;
    m_door.close();
    std::list<std::string> names;
    for (auto const& entry : m_services) {
        names.push_back(entry.first);
    }
    for (std::string const& name : names) {
        remove(name);
    }
    reportIfStopped();
}

void Supervisor::reportIfStopped() {
    if (m_stopping && m_services.empty()) {
        m_stopped();
    }
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
