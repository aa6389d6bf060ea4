#pragma once

#include "Door.h"
#include "Service.h"
#include "Services.h"

#include <functional>
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
    /// Reads the configuration again.
    void reload() { m_services.reload(); }
    /// Stops all services.
    void stop();

private:
    std::function<void()> m_stopped;
    bool m_is_stopping = false;
    Services m_services;
    Door m_door; ///< After the services: its thread ends first.
};

} // namespace supervisor
