#include "../SocketBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_network_io.h>
#include <apr_portable.h>
#endif

namespace {

/// One iteration sends 16 MiB.
void large(benchmark::internal::Benchmark* row) {
    row->UseManualTime()->Repetitions(scaled(15))->MinTime(0.01)->Arg(16);
}

#define PEER_TRIP(Tcp, Unix, peer)                                                                           \
    BENCHMARK(roundTrip<Tcp>)->Name("TCP round trip of a byte, one CPU/" peer)->Apply(transfer);             \
    BENCHMARK(roundTrip<Unix>)->Name("Unix socket round trip of a byte, one CPU/" peer)->Apply(transfer);    \
    BENCHMARK(stream<Tcp>)->Name("TCP stream in pieces of 64 KiB, one CPU, MiB/" peer)->Apply(large)
#define PEER_ACCEPT(function, peer)                                                                          \
    BENCHMARK(function)->Name("TCP accept, peer's address and close, one CPU/" peer)->Apply(transfer)

PEER_TRIP(VeskTcp, VeskUnix, "vesk");
PEER_TRIP(BareTcp, BareUnix, "bare");
PEER_ACCEPT(adopt, "vesk");
PEER_ACCEPT(bareAdopt, "bare");

/// A connection of bare calls. `End_` adopts a duplicate of each descriptor, which its last copy closes.
template <typename End_, int FAMILY>
class Adopted {
public:
    using End = End_;

    End getClient() { return m_client; }
    End getPeer() { return m_peer; }

private:
    Bare<FAMILY> m_bare;
    End m_client{dup(m_bare.getClient().getFd())};
    End m_peer{dup(m_bare.getPeer().getFd())};
};

/// A listening socket of TCP.
template <typename Take>
void acceptPeer(benchmark::State& state, int listener, Take take) {
    OneProcessor const together;
    takeWaiting(state, listener, take);
}

#ifdef VESK_PEER_BOOST
template <typename Protocol>
class BoostEnd {
public:
    explicit BoostEnd(int fd) : m_shared(std::make_shared<Shared>(fd)) {}

    void send(void const* data, size_t size) {
        boost::system::error_code error;
        boost::asio::write(m_shared->socket, boost::asio::buffer(data, size), error);
        check(error.failed());
    }
    bool receive(void* buffer, size_t size, unsigned int& count) {
        boost::system::error_code error;
        count =
            static_cast<unsigned int>(m_shared->socket.read_some(boost::asio::buffer(buffer, size), error));
        return !error;
    }
    void end() const { m_shared->socket.shutdown(Protocol::socket::shutdown_send); }
    int getFd() const { return m_shared->socket.native_handle(); }

private:
    struct Shared {
        explicit Shared(int fd) : socket(context, makeProtocol(), fd) {}
        static Protocol makeProtocol() {
            if constexpr (std::is_same_v<Protocol, boost::asio::ip::tcp>) {
                return Protocol::v4();
            } else {
                return Protocol();
            }
        }

        boost::asio::io_context context{1};
        typename Protocol::socket socket;
    };

    std::shared_ptr<Shared> m_shared;
};
using BoostTcp = Adopted<BoostEnd<boost::asio::ip::tcp>, AF_INET>;
using BoostUnix = Adopted<BoostEnd<boost::asio::local::stream_protocol>, AF_UNIX>;
PEER_TRIP(BoostTcp, BoostUnix, "boost");

void boostAccept(benchmark::State& state) {
    using boost::asio::ip::tcp;
    boost::asio::io_context context{1};
    tcp::acceptor acceptor(context);
    acceptor.open(tcp::v4());
    acceptor.bind({boost::asio::ip::address_v4::loopback(), 0});
    acceptor.listen(WAITING);
    acceptPeer(state, acceptor.native_handle(), [&acceptor] {
        tcp::endpoint peer;
        tcp::socket socket = acceptor.accept(peer);
        std::string const host = peer.address().to_string();
        benchmark::DoNotOptimize(host.data());
        socket.close();
    });
}
PEER_ACCEPT(boostAccept, "boost");
#endif

#ifdef VESK_PEER_POCO
class PocoEnd {
public:
    explicit PocoEnd(int fd) : m_socket(new Poco::Net::StreamSocketImpl(fd)) {}

    void send(void const* data, size_t size) {
        check(m_socket.sendBytes(data, static_cast<int>(size)) != static_cast<int>(size));
    }
    bool receive(void* buffer, size_t size, unsigned int& count) {
        int const result = m_socket.receiveBytes(buffer, static_cast<int>(size));
        count = static_cast<unsigned int>(result);
        return result > 0;
    }
    void end() { m_socket.shutdownSend(); }
    int getFd() const { return m_socket.impl()->sockfd(); }

private:
    Poco::Net::StreamSocket m_socket;
};
using PocoTcp = Adopted<PocoEnd, AF_INET>;
using PocoUnix = Adopted<PocoEnd, AF_UNIX>;
PEER_TRIP(PocoTcp, PocoUnix, "poco");

void pocoAccept(benchmark::State& state) {
    Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0), WAITING);
    acceptPeer(state, server.impl()->sockfd(), [&server] {
        Poco::Net::SocketAddress peer;
        Poco::Net::StreamSocket socket = server.acceptConnection(peer);
        std::string const host = peer.host().toString();
        benchmark::DoNotOptimize(host.data());
        socket.close();
    });
}
PEER_ACCEPT(pocoAccept, "poco");
#endif

#ifdef VESK_PEER_GLIB
/// Keeps the descriptor non-blocking, and polls where a call would block.
class GlibEnd {
public:
    explicit GlibEnd(int fd) : m_socket(g_socket_new_from_fd(fd, nullptr), g_object_unref) {}

    void send(void const* data, size_t size) {
        auto const* next = static_cast<char const*>(data);
        while (size != 0) {
            gssize const count = g_socket_send(m_socket.get(), next, size, nullptr, nullptr);
            check(count < 0);
            next += count;
            size -= static_cast<size_t>(count);
        }
    }
    bool receive(void* buffer, size_t size, unsigned int& count) {
        gssize const result =
            g_socket_receive(m_socket.get(), static_cast<char*>(buffer), size, nullptr, nullptr);
        count = result > 0 ? static_cast<unsigned int>(result) : 0;
        return result > 0;
    }
    void end() const { g_socket_shutdown(m_socket.get(), 0, 1, nullptr); }
    int getFd() const { return g_socket_get_fd(m_socket.get()); }

private:
    std::shared_ptr<GSocket> m_socket;
};
using GlibTcp = Adopted<GlibEnd, AF_INET>;
using GlibUnix = Adopted<GlibEnd, AF_UNIX>;
PEER_TRIP(GlibTcp, GlibUnix, "glib");

void glibAccept(benchmark::State& state) {
    BareServer const server(AF_INET, WAITING);
    GSocket* const listener = g_socket_new_from_fd(dup(server.getFd()), nullptr);
    acceptPeer(state, server.getFd(), [listener] {
        GSocket* const socket = g_socket_accept(listener, nullptr, nullptr);
        GSocketAddress* const peer = g_socket_get_remote_address(socket, nullptr);
        char* const host =
            g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(peer)));
        benchmark::DoNotOptimize(*host);
        g_free(host);
        g_object_unref(peer);
        check(g_socket_close(socket, nullptr) == 0);
        g_object_unref(socket);
    });
    g_object_unref(listener);
}
PEER_ACCEPT(glibAccept, "glib");
#endif

#ifdef VESK_PEER_UV
/// Each end has a loop, which one thread runs at a time. Reading never stops.
template <int FAMILY>
class UvEnd {
public:
    explicit UvEnd(int fd) : m_shared(std::make_shared<Shared>(fd)) {}

    void send(void const* data, unsigned int size) {
        // The buffers of a request are not const, although they are only read.
        uv_buf_t const buffer = uv_buf_init(static_cast<char*>(const_cast<void*>(data)), size);
        int const count = uv_try_write(m_shared->getStream(), &buffer, 1);
        unsigned int const sent = count > 0 ? static_cast<unsigned int>(count) : 0;
        if (sent != size) {
            m_shared->write(uv_buf_init(buffer.base + sent, size - sent));
        }
    }
    bool receive(void*, unsigned int size, unsigned int& count) {
        count = m_shared->receive(size);
        return count != 0;
    }
    void end() const { shutdown(getFd(), SHUT_WR); }
    int getFd() const {
        uv_os_fd_t fd = -1;
        uv_fileno(reinterpret_cast<uv_handle_t const*>(m_shared->getStream()), &fd);
        return fd;
    }

private:
    struct Shared {
        explicit Shared(int fd) {
            if constexpr (FAMILY == AF_INET) {
                check(uv_tcp_init(&loop.raw, &handle.tcp) != 0 || uv_tcp_open(&handle.tcp, fd) != 0);
            } else {
                check(uv_pipe_init(&loop.raw, &handle.pipe, 0) != 0 || uv_pipe_open(&handle.pipe, fd) != 0);
            }
            getStream()->data = this;
        }

        uv_stream_t* getStream() { return reinterpret_cast<uv_stream_t*>(&handle); }

        void write(uv_buf_t rest) {
            uv_write_t request;
            bool done = false;
            request.data = &done;
            check(uv_write(&request, getStream(), &rest, 1, [](uv_write_t* written, int status) {
                      check(status != 0);
                      *static_cast<bool*>(written->data) = true;
                  }) != 0);
            while (!done) {
                uv_run(&loop.raw, UV_RUN_ONCE);
            }
        }

        unsigned int receive(unsigned int size) {
            wanted = size;
            if (!is_reading) {
                is_reading = true;
                check(uv_read_start(getStream(), provide, take) != 0);
            }
            while (received == 0 && !at_end) {
                uv_run(&loop.raw, UV_RUN_ONCE);
            }
            unsigned int const count = received;
            received = 0;
            return count;
        }

        static void provide(uv_handle_t* stream, size_t, uv_buf_t* space) {
            *space = uv_buf_init(s_received, static_cast<Shared*>(stream->data)->wanted);
        }
        static void take(uv_stream_t* stream, ssize_t count, uv_buf_t const*) {
            auto& self = *static_cast<Shared*>(stream->data);
            if (count < 0) {
                self.at_end = true;
                uv_read_stop(stream);
            } else {
                self.received += static_cast<unsigned int>(count);
            }
        }

        union {
            uv_tcp_t tcp;
            uv_pipe_t pipe;
        } handle;
        bool is_reading = false;
        bool at_end = false;
        unsigned int wanted = 0;
        unsigned int received = 0;
        UvLoop loop;
    };

    std::shared_ptr<Shared> m_shared;
};
using UvTcp = Adopted<UvEnd<AF_INET>, AF_INET>;
using UvUnix = Adopted<UvEnd<AF_UNIX>, AF_UNIX>;
PEER_TRIP(UvTcp, UvUnix, "uv");

struct UvAcceptor {
    UvAcceptor() {
        sockaddr_in address{};
        check(uv_ip4_addr("127.0.0.1", 0, &address) != 0);
        check(uv_tcp_init(&loop.raw, &listener) != 0);
        check(uv_tcp_bind(&listener, reinterpret_cast<sockaddr const*>(&address), 0) != 0);
        listener.data = this;
        check(uv_listen(reinterpret_cast<uv_stream_t*>(&listener), WAITING, take) != 0);
    }

    int getFd() const {
        uv_os_fd_t fd = -1;
        uv_fileno(reinterpret_cast<uv_handle_t const*>(&listener), &fd);
        return fd;
    }
    /// The loop accepts as many connections as there are: the first call of a batch does most of the work.
    void takeOne() {
        ++wanted;
        while (closed < wanted) {
            uv_run(&loop.raw, UV_RUN_ONCE);
        }
    }

    static void take(uv_stream_t* stream, int status) {
        check(status != 0);
        auto& self = *static_cast<UvAcceptor*>(stream->data);
        auto* const socket = new uv_tcp_t;
        check(uv_tcp_init(stream->loop, socket) != 0);
        check(uv_accept(stream, reinterpret_cast<uv_stream_t*>(socket)) != 0);
        sockaddr_in peer{};
        int length = sizeof peer;
        check(uv_tcp_getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0);
        char host[INET_ADDRSTRLEN];
        check(uv_ip4_name(&peer, host, sizeof host) != 0);
        benchmark::DoNotOptimize(host);
        socket->data = &self;
        uv_close(reinterpret_cast<uv_handle_t*>(socket), [](uv_handle_t* handle) {
            ++static_cast<UvAcceptor*>(handle->data)->closed;
            delete reinterpret_cast<uv_tcp_t*>(handle);
        });
    }

    uv_tcp_t listener{};
    size_t wanted = 0;
    size_t closed = 0;
    UvLoop loop;
};

void uvAccept(benchmark::State& state) {
    UvAcceptor acceptor;
    acceptPeer(state, acceptor.getFd(), [&acceptor] { acceptor.takeOne(); });
}
PEER_ACCEPT(uvAccept, "uv");
#endif

#ifdef VESK_PEER_APR
/// Adopts a descriptor as a blocking socket.
class AprEnd {
public:
    explicit AprEnd(int fd) : m_shared(std::make_shared<Shared>(fd)) {}

    void send(void const* data, apr_size_t size) {
        auto const* next = static_cast<char const*>(data);
        while (size != 0) {
            apr_size_t count = size;
            check(apr_socket_send(m_shared->socket, next, &count) != APR_SUCCESS);
            next += count;
            size -= count;
        }
    }
    bool receive(void* buffer, apr_size_t size, unsigned int& count) {
        apr_status_t const status = apr_socket_recv(m_shared->socket, static_cast<char*>(buffer), &size);
        count = static_cast<unsigned int>(size);
        return status == APR_SUCCESS;
    }
    void end() const { apr_socket_shutdown(m_shared->socket, APR_SHUTDOWN_WRITE); }
    int getFd() const {
        apr_os_sock_t fd = -1;
        apr_os_sock_get(&fd, m_shared->socket);
        return fd;
    }

private:
    struct Shared {
        explicit Shared(int fd) {
            check(apr_os_sock_put(&socket, &fd, pool.raw) != APR_SUCCESS);
            check(apr_socket_opt_set(socket, APR_SO_NONBLOCK, 0) != APR_SUCCESS);
            check(apr_socket_timeout_set(socket, -1) != APR_SUCCESS);
        }
        ~Shared() { apr_socket_close(socket); }
        Shared(Shared const&) = delete;
        Shared& operator=(Shared const&) = delete;

        AprPool pool;
        apr_socket_t* socket = nullptr;
    };

    std::shared_ptr<Shared> m_shared;
};
using AprTcp = Adopted<AprEnd, AF_INET>;
using AprUnix = Adopted<AprEnd, AF_UNIX>;
PEER_TRIP(AprTcp, AprUnix, "apr");

void aprAccept(benchmark::State& state) {
    AprPool const pool;
    AprPool const connection_pool;
    apr_sockaddr_t* address = nullptr;
    check(apr_sockaddr_info_get(&address, "127.0.0.1", APR_INET, 0, 0, pool.raw) != APR_SUCCESS);
    apr_socket_t* listener = nullptr;
    check(apr_socket_create(&listener, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool.raw) != APR_SUCCESS);
    check(
        apr_socket_bind(listener, address) != APR_SUCCESS ||
        apr_socket_listen(listener, WAITING) != APR_SUCCESS);
    apr_os_sock_t fd = -1;
    apr_os_sock_get(&fd, listener);
    acceptPeer(state, fd, [&] {
        apr_socket_t* socket = nullptr;
        check(apr_socket_accept(&socket, listener, connection_pool.raw) != APR_SUCCESS);
        apr_sockaddr_t* peer = nullptr;
        check(apr_socket_addr_get(&peer, APR_REMOTE, socket) != APR_SUCCESS);
        char host[INET_ADDRSTRLEN];
        check(apr_sockaddr_ip_getbuf(host, sizeof host, peer) != APR_SUCCESS);
        benchmark::DoNotOptimize(host);
        check(apr_socket_close(socket) != APR_SUCCESS);
        apr_pool_clear(connection_pool.raw);
    });
    apr_socket_close(listener);
}
PEER_ACCEPT(aprAccept, "apr");
#endif

} // namespace
