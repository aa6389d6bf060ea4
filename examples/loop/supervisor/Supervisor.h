#pragma once

#include "Service.h"

#include <vesk/UnixServerSocket.h>
#include <vesk/UnixSocket.h>

#include <list>
#include <map>
#include <memory>
#include <string>

namespace supervisor {

/// All services of a configuration file, and the socket for commands.
class Supervisor {
public:
    Supervisor(vesk::loop::Loop& loop, std::string config_path, std::string const& socket_path);

    /// Reads the configuration, listens and starts all services. Returns true on failure.
    [[nodiscard]] bool start();
    /// Reads the configuration again, and starts, stops and restarts what has changed.
    void reload();
    /// Stops all services, then the loop.
    void stop();

private:
    /// A peer of the socket, which has sent no complete line yet.
    struct Client {
        Client(vesk::UnixSocket::Description const& accepted) : socket(false, 0, 0, accepted) {}
        ~Client() { static_cast<void>(!socket.isValid() || socket.close(false)); }
        vesk::UnixSocket socket;
        std::string line;
        vesk::loop::Watch watch; ///< Last: it ends before the descriptor closes.
    };

    void accept();
    void receive(Client& client);
    void forget(Client& client);
    std::string answer(std::string const& line);
    void remove(std::string const& name);
    void stopLoopIfIdle();

    vesk::loop::Loop& m_loop;
    std::string m_config_path;
    std::map<std::string, std::unique_ptr<Service>> m_services;
    vesk::UnixServerSocket m_server;
    std::list<Client> m_clients;
    vesk::loop::Watch m_watch;
    bool m_stopping = false;
};

} // namespace supervisor
