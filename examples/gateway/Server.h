#pragma once

#include "Hub.h"
#include "Mailbox.h"

#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>

#include <list>
#include <memory>
#include <string>

namespace gateway {

/// The clients, on a poller. All of it runs in the polling thread.
class Server : private vesk::Poller::Client {
public:
    static constexpr std::size_t MOST_CLIENTS = 200;
    static constexpr std::size_t LONGEST_QUEUE = 64 * 1024; ///< Bytes that a client has not read yet.

    Server(vesk::Poller& poller, Hub& hub, unsigned short port);
    ~Server() override;

    /// Listens. Returns true on failure.
    [[nodiscard]] bool start();
    unsigned short port() const { return m_socket.getLocalAddress().port; }
    /// Destroys what has left the poller. To be called after each cycle.
    void sweep();
    /// Accepts again after a pause. To be called from time to time.
    void resume() { m_is_paused = false; }

private:
    class Connection;

    int poll_events(int) override { return m_is_paused ? 0 : POLLIN; }
    void read(int fd) override;
    void error(int fd) override;
    void forget(Connection& connection);

    vesk::Poller& m_poller;
    Hub& m_hub;
    vesk::TCPServerSocket m_socket;
    bool m_is_paused = false;
    std::list<std::unique_ptr<Connection>> m_connections;
    std::list<std::unique_ptr<Connection>> m_leaving; ///< Out of the poller with its next cycle,
    std::list<std::unique_ptr<Connection>> m_left;    ///< and out of it.
};

} // namespace gateway
