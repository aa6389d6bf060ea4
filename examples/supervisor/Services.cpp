#include "Services.h"

#include <iostream>
#include <list>
#include <utility>

namespace supervisor {

Services::Services(std::string config_path, Make make, Post post)
    : m_config_path(std::move(config_path)), m_make(std::move(make)), m_post(std::move(post)) {}

void Services::reload() {
    if (m_stopped) {
        return;
    }
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
        auto& service = m_services[name];
        if (service == nullptr) {
            // Posted: a service must not be destroyed while it calls back.
            auto const stopped = [this, its_name = name] { m_post([this, its_name] { forget(its_name); }); };
            service = m_make(name, entry, stopped);
            service->start();
        } else if (m_gone.erase(name) > 0) {
            service->start();
        }
    }
    std::cout << "configuration read: " << m_services.size() << " services" << std::endl;
}

void Services::remove(std::string const& name) {
    m_gone.insert(name);
    m_services.at(name)->stop();
    m_post([this, name] { forget(name); }); // It may have been stopped before.
}

/// Forgets a service that is gone from the configuration and has stopped.
void Services::forget(std::string const& name) {
    auto const found = m_services.find(name);
    if (found != m_services.end() && m_gone.count(name) > 0 && found->second->isStopped()) {
        m_services.erase(found);
        m_gone.erase(name);
    }
    reportIfStopped();
}

void Services::stop(std::function<void()> stopped) {
    m_stopped = std::move(stopped);
    std::list<std::string> names;
    for (auto const& entry : m_services) {
        names.push_back(entry.first);
    }
    for (std::string const& name : names) {
        remove(name);
    }
    reportIfStopped();
}

void Services::reportIfStopped() {
    if (m_stopped && m_services.empty()) {
        m_stopped();
    }
}

std::string Services::answer(std::string const& line) {
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
            service->stop();
        } else if (command != "status") {
            return "commands: status, start, stop; then nothing, a service or a group\n";
        }
        text += service->status() + "\n";
    }
    return text.empty() ? "no such service\n" : text;
}

} // namespace supervisor
