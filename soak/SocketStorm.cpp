#include "Storm.h"

#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>
#include <vesk/UnixServerSocket.h>
#include <vesk/UnixSocket.h>

#include <tarncommon/error/ErrorStorage.h>

#include <sys/socket.h>

namespace soak {

namespace {

using vesk::IPSocket;

/// Connections over one listening socket: echoed, reset in the middle, or never adopted. A class derived from
/// it creates the sockets.
template <typename Server, typename Client>
class ConnectionStorm : public Storm {
public:
    using Storm::Storm;

    std::string start() override {
        m_server = makeServer();
        m_server->enableListen(16);
        check(m_server->hadError(), "listening");
        afterListen(*m_server);
        return {};
    }

    void stop() override {
        check(m_server->close(false), "closing the server");
        m_server.reset();
    }

    void work() override {
        std::unique_ptr<Client> const client = makeClient();
        if (!check(client->connect(), "connecting")) {
            typename Client::Description const accepted = m_server->acceptConnection();
            check(!accepted.valid, "accepting");
            if (oneIn(4)) {
                countProvoked(); // Not adopted: closed by the destructor.
            } else {
                serve(*client, accepted);
            }
        }
        check(client->close(false), "closing a client");
    }

protected:
    virtual std::unique_ptr<Server> makeServer() = 0;
    virtual std::unique_ptr<Client> makeClient() = 0;
    virtual void afterListen(Server& /*server*/) {}

    std::unique_ptr<Server> m_server;

private:
    void serve(Client& client, typename Client::Description const& accepted) {
        Client peer(true, 256 * random(3), 256 * random(3), accepted);
        for (unsigned int left = random(20); left > 0; --left) {
            send(client, peer);
            send(peer, client);
        }
        if (oneIn(3)) {
            reset(client, peer);
        } else {
            check(peer.close(true), "closing a connection");
        }
    }

    void send(Client& from, Client& to) {
        std::string text(1 + random(2000), static_cast<char>('a' + random(26)));
        std::string got(text.size(), '\0');
        unsigned int written = 0;
        check(
            from.write(text.data(), static_cast<unsigned int>(text.size()), written) != 1 ||
                from.flush(false),
            "writing");
        unsigned int at = 0;
        while (at < got.size()) {
            unsigned int size = 0;
            if (check(to.read(&got[at], static_cast<unsigned int>(got.size()) - at, size) != 1, "reading")) {
                return;
            }
            at += size;
        }
        check(got != text, "the bytes of a connection");
    }

    /// The peer closes with unread data and without lingering; the client's next operations must fail.
    void reset(Client& client, Client& peer) {
        unsigned int size = 0;
        check(client.write("unread", 6, size) != 1 || client.flush(false), "writing");
        linger const none{1, 0};
        setsockopt(peer.getSocketFd(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
        check(peer.close(false), "closing a connection");
        char byte = 0;
        check(client.read(&byte, 1, size) == 1, "reading from a reset connection succeeds");
        countProvoked();
        check(
            client.write("more", 4, size) == 1 && !client.flush(false),
            "writing to a reset connection succeeds");
        countProvoked();
    }
};

class TcpStorm : public ConnectionStorm<vesk::TCPServerSocket, vesk::TCPSocket> {
public:
    TcpStorm() : ConnectionStorm("TCP") {}

private:
    std::unique_ptr<vesk::TCPServerSocket> makeServer() override {
        return std::make_unique<vesk::TCPServerSocket>(
            IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 0), true, true, IPSocket::IPV4);
    }
    void afterListen(vesk::TCPServerSocket& server) override { server.updateLocalAddress(); }
    std::unique_ptr<vesk::TCPSocket> makeClient() override {
        return std::make_unique<vesk::TCPSocket>(
            true, 256 * random(3), 256 * random(3), IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 0),
            m_server->getLocalAddress(), false, IPSocket::IPV4);
    }
};

class UnixStorm : public ConnectionStorm<vesk::UnixServerSocket, vesk::UnixSocket> {
public:
    UnixStorm() : ConnectionStorm("Unix sockets"), m_name(makeName("server")) {}

private:
    std::unique_ptr<vesk::UnixServerSocket> makeServer() override {
        return std::make_unique<vesk::UnixServerSocket>(m_name.c_str(), true, vesk::UnixSocketBase::ABSTRACT);
    }
    std::unique_ptr<vesk::UnixSocket> makeClient() override {
        return std::make_unique<vesk::UnixSocket>(
            true, 256 * random(3), 256 * random(3), "", m_name.c_str(), vesk::UnixSocketBase::ABSTRACT);
    }

    std::string m_name;
};

} // namespace

std::unique_ptr<Storm> makeTcpStorm() {
    return std::make_unique<TcpStorm>();
}
std::unique_ptr<Storm> makeUnixStorm() {
    return std::make_unique<UnixStorm>();
}

} // namespace soak
