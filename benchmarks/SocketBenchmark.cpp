#include "Often.h"
#include "Together.h"

#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>
#include <vesk/UnixServerSocket.h>
#include <vesk/UnixSocket.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using vesk::IPSocket;

constexpr unsigned int PIECE = 64 << 10;
constexpr unsigned int PIECES_OF_A_MIB = 16;
constexpr int WAITING = 64;

void check(bool failed) {
    if (failed) {
        abort();
    }
}

IPSocket::IPAddress const LOOPBACK(IPSocket::LOOPBACK_IP, 0);

/// Returns a unique name in the abstract namespace.
std::string makeName() {
    return "vesk-bench-" + std::to_string(getpid());
}

// ---- The two ends of a connection, with and without the library ----

/// The operations that both socket families of the library share.
class VeskEnd {
public:
    explicit VeskEnd(vesk::Socket& socket) : m_socket(socket) {}

    void send(void const* data, unsigned int size) {
        unsigned int count = 0;
        check(m_socket.write(data, size, count) != 1);
    }
    /// Returns whether data was received, and stores its size in `count`.
    bool receive(void* buffer, unsigned int size, unsigned int& count) {
        return m_socket.read(buffer, size, count) == 1;
    }
    void end() const { shutdown(getFd(), SHUT_WR); }
    int getFd() const { return m_socket.getSocketFd(); }

private:
    vesk::Socket& m_socket;
};

class BareEnd {
public:
    explicit BareEnd(int fd) : m_fd(fd) {}

    void send(void const* data, unsigned int size) {
        auto const* next = static_cast<char const*>(data);
        do {
            ssize_t const count = ::send(m_fd, next, size, MSG_NOSIGNAL);
            check(count < 0);
            next += count;
            size -= static_cast<unsigned int>(count);
        } while (size != 0);
    }
    bool receive(void* buffer, unsigned int size, unsigned int& count) {
        ssize_t const result = recv(m_fd, buffer, size, 0);
        count = result > 0 ? static_cast<unsigned int>(result) : 0;
        return result > 0;
    }
    void end() const { shutdown(m_fd, SHUT_WR); }
    int getFd() const { return m_fd; }

private:
    int m_fd;
};

class VeskTcp {
public:
    using End = VeskEnd;

    VeskTcp() : m_server(LOOPBACK, true, true, IPSocket::IPV4) {
        m_server.enableListen(1);
        m_server.updateLocalAddress();
        m_client = std::make_unique<vesk::TCPSocket>(
            true, 0U, 0U, IPSocket::IPAddress(), m_server.getLocalAddress(), false, IPSocket::IPV4);
        check(m_client->connect());
        m_peer = std::make_unique<vesk::TCPSocket>(true, 0U, 0U, m_server.acceptConnection());
        check(!m_peer->isValid());
    }
    ~VeskTcp() {
        m_client->close(false);
        m_peer->close(false);
        m_server.close(false);
    }
    VeskTcp(VeskTcp const&) = delete;
    VeskTcp& operator=(VeskTcp const&) = delete;

    End getClient() { return End(*m_client); }
    End getPeer() { return End(*m_peer); }

private:
    vesk::TCPServerSocket m_server;
    std::unique_ptr<vesk::TCPSocket> m_client;
    std::unique_ptr<vesk::TCPSocket> m_peer;
};

class VeskUnix {
public:
    using End = VeskEnd;

    VeskUnix() : m_server(makeName().c_str(), true, vesk::UnixSocketBase::ABSTRACT) {
        m_server.enableListen(1);
        m_client = std::make_unique<vesk::UnixSocket>(
            true, 0U, 0U, "", makeName().c_str(), vesk::UnixSocketBase::ABSTRACT);
        check(m_client->connect());
        m_peer = std::make_unique<vesk::UnixSocket>(true, 0U, 0U, m_server.acceptConnection());
        check(!m_peer->isValid());
    }
    ~VeskUnix() {
        m_client->close(false);
        m_peer->close(false);
        m_server.close(false);
    }
    VeskUnix(VeskUnix const&) = delete;
    VeskUnix& operator=(VeskUnix const&) = delete;

    End getClient() { return End(*m_client); }
    End getPeer() { return End(*m_peer); }

private:
    vesk::UnixServerSocket m_server;
    std::unique_ptr<vesk::UnixSocket> m_client;
    std::unique_ptr<vesk::UnixSocket> m_peer;
};

/// A listening descriptor and its address.
class BareServer {
public:
    explicit BareServer(int family, int backlog) : m_fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (family == AF_INET) {
            auto& address = reinterpret_cast<sockaddr_in&>(m_address);
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            m_length = sizeof address;
        } else {
            auto& address = reinterpret_cast<sockaddr_un&>(m_address);
            std::string const name = makeName();
            address.sun_family = AF_UNIX;
            memcpy(address.sun_path + 1, name.data(), name.size());
            m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        }
        check(bind(m_fd, getAddress(), m_length) != 0);
        check(listen(m_fd, backlog) != 0);
        check(getsockname(m_fd, reinterpret_cast<sockaddr*>(&m_address), &m_length) != 0);
    }
    ~BareServer() { close(m_fd); }
    BareServer(BareServer const&) = delete;
    BareServer& operator=(BareServer const&) = delete;

    int getFd() const { return m_fd; }
    int connectTo() const {
        int const fd = socket(m_address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        check(connect(fd, getAddress(), m_length) != 0);
        return fd;
    }
    int accept() const {
        int const fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        check(fd < 0);
        return fd;
    }

private:
    sockaddr const* getAddress() const { return reinterpret_cast<sockaddr const*>(&m_address); }

    int m_fd;
    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

template <int FAMILY>
class Bare {
public:
    using End = BareEnd;

    Bare() : m_server(FAMILY, 1), m_client(m_server.connectTo()), m_peer(m_server.accept()) {}
    ~Bare() {
        close(m_client);
        close(m_peer);
    }
    Bare(Bare const&) = delete;
    Bare& operator=(Bare const&) = delete;

    End getClient() { return End(m_client); }
    End getPeer() { return End(m_peer); }

private:
    BareServer m_server;
    int m_client;
    int m_peer;
};

using BareTcp = Bare<AF_INET>;
using BareUnix = Bare<AF_UNIX>;

// ---- Rows ----

void transfer(benchmark::internal::Benchmark* row) {
    row->UseManualTime()->Apply(often);
}

/// Rows that mainly copy memory need even more repetitions.
void copying(benchmark::internal::Benchmark* row) {
    row->Apply(transfer)->Repetitions(299);
}

template <typename Connection>
void roundTrip(benchmark::State& state) {
    OneProcessor const together;
    Connection connection;
    std::thread peer([end = connection.getPeer()]() mutable {
        char byte = 0;
        unsigned int count = 0;
        while (end.receive(&byte, 1, count)) {
            end.send(&byte, 1);
        }
    });
    auto end = connection.getClient();
    char byte = 'x';
    unsigned int count = 0;
    measureTogether(state, [&] {
        end.send(&byte, 1);
        check(!end.receive(&byte, 1, count));
    });
    end.end();
    peer.join();
}
BENCHMARK(roundTrip<VeskTcp>)->Name("TCP round trip of a byte (at most 1.03)/vesk")->Apply(transfer);
BENCHMARK(roundTrip<BareTcp>)->Name("TCP round trip of a byte (at most 1.03)/bare")->Apply(transfer);
BENCHMARK(roundTrip<VeskUnix>)->Name("Unix socket round trip of a byte (at most 1.03)/vesk")->Apply(transfer);
BENCHMARK(roundTrip<BareUnix>)->Name("Unix socket round trip of a byte (at most 1.03)/bare")->Apply(transfer);

// The addresses influence the speed of copying, so all rows use the same buffers.
alignas(4096) char s_sent[PIECE];
alignas(4096) char s_received[PIECE];

/// Fixes the sizes of the socket buffers. The system would otherwise grow them differently for each
/// connection.
void fixBuffers(int fd) {
    int const size = 2 * PIECE;
    check(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0);
    check(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0);
}

/// Sends some MiB in pieces and waits until the peer has received all of them.
template <typename Connection>
void stream(benchmark::State& state) {
    OneProcessor const together;
    Connection connection;
    unsigned int const pieces = static_cast<unsigned int>(state.range(0)) * PIECES_OF_A_MIB;
    fixBuffers(connection.getClient().getFd());
    fixBuffers(connection.getPeer().getFd());
    std::thread peer([end = connection.getPeer(), pieces]() mutable {
        unsigned int count = 0;
        unsigned int left = pieces * PIECE;
        while (end.receive(s_received, PIECE, count)) {
            left -= count;
            if (left == 0) {
                end.send(s_received, 1);
                left = pieces * PIECE;
            }
        }
    });
    auto end = connection.getClient();
    char byte = 0;
    unsigned int count = 0;
    measureTogether(state, [&] {
        for (unsigned int i = 0; i < pieces; ++i) {
            end.send(s_sent, PIECE);
        }
        check(!end.receive(&byte, 1, count));
    });
    end.end();
    peer.join();
}
BENCHMARK(stream<VeskTcp>)
    ->Name("TCP stream in pieces of 64 KiB, MiB (at most 1.02)/vesk")
    ->Apply(copying)
    ->Arg(1)
    ->Arg(16);
BENCHMARK(stream<BareTcp>)
    ->Name("TCP stream in pieces of 64 KiB, MiB (at most 1.02)/bare")
    ->Apply(copying)
    ->Arg(1)
    ->Arg(16);

/// Accepts connections that are already pending, so that only `take` is measured.
template <typename Take>
void takeWaiting(benchmark::State& state, int listener, Take take) {
    // Accepted sockets inherit this option: a connection that is reset on close does not occupy a port in
    // TIME_WAIT.
    linger const at_once{1, 0};
    check(setsockopt(listener, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) != 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    check(getsockname(listener, generic, &length) != 0);
    int clients[WAITING];
    while (state.KeepRunningBatch(WAITING)) {
        for (int& client : clients) {
            client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            check(connect(client, generic, length) != 0);
        }
        double const start = getProcessorTime();
        for (int i = 0; i < WAITING; ++i) {
            take();
        }
        state.SetIterationTime(getProcessorTime() - start);
        for (int const client : clients) {
            close(client);
        }
    }
}

void adopt(benchmark::State& state) {
    OneProcessor const together;
    vesk::TCPServerSocket server(LOOPBACK, true, true, IPSocket::IPV4);
    server.enableListen(WAITING);
    takeWaiting(state, server.getSocketFd(), [&server] {
        vesk::TCPSocket socket(true, 0, 0, server.acceptConnection());
        check(!socket.isValid() || socket.close(false));
    });
    server.close(false);
}
BENCHMARK(adopt)->Name("TCP accept, adopt and close (at most 1.05)/vesk")->Apply(transfer);

/// Formats the peer's address as well, as the adopting socket does.
void bareAdopt(benchmark::State& state) {
    OneProcessor const together;
    BareServer const server(AF_INET, WAITING);
    takeWaiting(state, server.getFd(), [&server] {
        int const fd = server.accept();
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        check(getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0);
        char text[INET_ADDRSTRLEN];
        std::string const host = inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        benchmark::DoNotOptimize(host.data());
        check(close(fd) != 0);
    });
}
BENCHMARK(bareAdopt)->Name("TCP accept, adopt and close (at most 1.05)/bare")->Apply(transfer);

} // namespace
