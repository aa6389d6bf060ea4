#pragma once

#include "Service.h"
#include "Services.h"

#include <vesk/loop/Listener.h>

#include <map>
#include <string>

namespace supervisor {

/// All services of a configuration file, and the socket for commands.
class Supervisor {
public:
    Supervisor(vesk::loop::Loop& loop, std::string config_path);

    /// Reads the configuration, listens and starts all services. Returns true on failure.
    [[nodiscard]] bool start(std::string const& socket_path);
    /// Reads the configuration again, and starts, stops and restarts what has changed.
    void reload() { m_services.reload(); }
    /// Stops all services, then the loop.
    void stop();

private:
    /// A peer of the socket, which has sent no complete line yet.
    struct Client {
        vesk::loop::Connection connection;
        std::string line;
    };

    void accept(vesk::loop::Connection peer);
    void receive(int id, std::string_view data);

    vesk::loop::Loop& m_loop;
    Services m_services;
    vesk::loop::Listener m_server;
    std::map<int, Client> m_clients;
    int m_last_id = 0;
    bool m_is_stopping = false;
};

} // namespace supervisor
