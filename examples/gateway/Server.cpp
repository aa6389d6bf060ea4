#include "Server.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>

namespace gateway {

using vesk::IPSocket;

/// A client. What it does not read waits in a queue, up to a limit.
class Server::Connection : public vesk::Poller::Client, public Hub::Client {
public:
    Connection(Server& server, vesk::TCPSocket::Description const& accepted)
        : m_server(server), m_socket(false, 0, 0, accepted) {}
    ~Connection() override { static_cast<void>(m_socket.isValid() && m_socket.close(false)); }

    bool isValid() const { return m_socket.isValid(); }
    int fd() const { return m_socket.getSocketFd(); }
    /// Finds peers that are gone without a word.
    void keepAlive() { static_cast<void>(m_socket.setKeepalive({true, 60, 3, 10})); }

    void send(std::string_view text) override {
        // Only the queue: this call may come while the hub walks over all clients.
        if (!m_is_over) {
            m_queue += text;
            m_is_over = m_queue.size() > LONGEST_QUEUE;
        }
    }

private:
    // A client that has too much in its queue must go; waiting for POLLOUT would keep it until it reads.
    int poll_events(int) override { return m_is_gone ? 0 : POLLIN | (m_queue.empty() ? 0 : POLLOUT); }

    void read(int) override {
        char data[4096]; // Not more at a time, so that a client that sends a lot does not delay the others.
        unsigned int count = 0;
        int const result = m_is_gone ? 1 : m_socket.read(data, sizeof data, count);
        if (result != 1 || m_server.m_hub.take(*this, {data, count})) {
            leave();
        }
        std::ErrorStorage::ack();
    }

    void write(int) override {
        unsigned int count = 0;
        if (m_is_gone || m_queue.empty()) {
            return;
        }
        if (m_socket.write(m_queue.data(), static_cast<unsigned int>(m_queue.size()), count) != 1) {
            leave();
            std::ErrorStorage::ack();
            return;
        }
        m_queue.erase(0, count);
    }

    void error(int) override { leave(); }

    void leave() {
        if (!m_is_gone) {
            m_is_gone = true;
            m_server.forget(*this);
        }
    }

    friend class Server;
    Server& m_server;
    vesk::TCPSocket m_socket;
    std::string m_queue;
    bool m_is_over = false;
    bool m_is_gone = false;
};

Server::Server(vesk::Poller& poller, Hub& hub, unsigned short port)
    : m_poller(poller), m_hub(hub), m_socket({IPSocket::ANY_IP, port}, false, true, IPSocket::IPV4) {}

// The poller does not run any more.
Server::~Server() {
    static_cast<void>(m_socket.isValid() && m_socket.close(false));
}

bool Server::start() {
    if (m_socket.isValid()) {
        m_socket.enableListen(MOST_CLIENTS);
    }
    if (!m_socket.isValid() || m_socket.hadError()) {
        return true;
    }
    m_socket.updateLocalAddress();
    m_poller.add(*this, m_socket.getSocketFd());
    return false;
}

void Server::read(int) {
    vesk::TCPSocket::Description const accepted = m_socket.acceptConnection();
    if (!accepted.valid) {
        // Without descriptors, the connection would stay ready: no attempt before the next tick.
        m_is_paused = m_socket.hadError();
        std::ErrorStorage::ack();
        return;
    }
    auto connection = std::make_unique<Connection>(*this, accepted);
    if (!connection->isValid() || m_connections.size() >= MOST_CLIENTS) {
        std::ErrorStorage::ack();
        return; // Closes it.
    }
    connection->keepAlive();
    m_hub.add(*connection);
    m_poller.add(*connection, connection->fd());
    m_connections.push_back(std::move(connection));
}

void Server::error(int) {
    std::cerr << "the gateway cannot accept clients any more" << std::endl;
}

/// Takes a connection out of everything. It exists until the poller does not know it any more.
void Server::forget(Connection& connection) {
    m_hub.remove(connection);
    m_poller.remove(connection);
    for (auto position = m_connections.begin(); position != m_connections.end(); ++position) {
        if (position->get() == &connection) {
            m_leaving.splice(m_leaving.end(), m_connections, position);
            return;
        }
    }
}

void Server::sweep() {
    m_left = std::exchange(m_leaving, {});
    for (auto next = m_connections.begin(); next != m_connections.end();) {
        Connection& connection = **next++;
        if (connection.m_is_over) {
            connection.leave();
        }
    }
}

} // namespace gateway
