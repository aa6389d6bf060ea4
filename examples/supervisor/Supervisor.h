#pragma once

#include "Door.h"
#include "Service.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace supervisor {

/// All services of a configuration file, and the socket for commands. All operations are for the thread of the queue.
class Supervisor {
public:
    /// @param queue    of a dispatcher, which outlives this object
    /// @param stopped  called when `stop` has ended all services
    Supervisor(
        vesk::Message::Sink& queue, std::string config_path, std::string const& socket_path,
        std::function<void()> stopped);

    /// Reads the configuration, listens and starts all services. Returns true on failure.
    [[nodiscard]] bool start();
    /// Reads the configuration again, and starts, stops and restarts what has changed.
    void reload();
    /// Stops all services.
    void stop();

private:
    std::string answer(std::string const& line);
    void remove(std::string const& name);
    void reportIfStopped();

    vesk::Message::Sink& m_queue;
    std::string m_config_path;
    std::function<void()> m_stopped;
    std::map<std::string, std::shared_ptr<Service>> m_services;
    bool m_stopping = false;
    Door m_door;
};

} // namespace supervisor
