#include "Tour.h"

#include <vesk/Poller.h>
#include <vesk/RawSocket.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>
#include <vesk/Thread.h>
#include <vesk/UDPSocket.h>
#include <vesk/UnixServerSocket.h>
#include <vesk/UnixSocket.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sched.h>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace tour {

namespace {

using vesk::IPSocket;
using vesk::Socket;

double microseconds(vesk::RealtimeStopWatch const& watch) {
    return static_cast<double>(watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
}

// ---- a thousand connections ----

constexpr unsigned int CONNECTIONS = 1000;
constexpr unsigned int SINGLE_ROUNDS = 5;
constexpr unsigned int JOINT_ROUNDS = 50;

using Telegram = std::array<char, 512>;

/// The server's end of a connection. Sends back everything that it receives until the peer closes the
/// connection.
class Echo : public vesk::Poller::Client {
public:
    Echo(vesk::Poller& poller, vesk::TCPSocket::Description const& accepted, std::atomic<unsigned int>& ended)
        : m_poller(poller), m_socket(false, 0, 0, accepted), m_ended(ended) {}

    bool start() {
        if (!m_socket.isValid()) {
            return true;
        }
        m_poller.add(*this, m_socket.getSocketFd());
        return false;
    }

    int poll_events(int) override { return POLLIN; }
    void read(int fd) override {
        Telegram telegram;
        unsigned int size = 0;
        unsigned int written = 0;
        int const result = m_socket.read(telegram.data(), sizeof telegram, size);
        if (result == 1) {
            failed(m_socket.write(telegram.data(), size, written) != 1 || written != size, "echoing");
            return;
        }
        failed(result == -1, "reading from a client");
        std::ErrorStorage::ack(); // The end of the stream.
        m_poller.remove(fd);
        failed(m_socket.close(false), "closing a connection");
        ++m_ended;
    }
    void error(int fd) override { failed(true, ("descriptor " + std::to_string(fd)).c_str()); }

private:
    vesk::Poller& m_poller;
    vesk::TCPSocket m_socket;
    std::atomic<unsigned int>& m_ended;
};

/// The listening socket. Creates an `Echo` for each connection. Only the polling thread may access anything
/// but the counts.
class EchoServer : public vesk::Poller::Client {
public:
    explicit EchoServer(vesk::Poller& poller)
        : m_poller(poller), m_socket({IPSocket::LOOPBACK_IP, 0}, false, true, IPSocket::IPV4) {}
    ~EchoServer() override { failed(m_socket.close(false), "closing the server"); }

    EchoServer(EchoServer const&) = delete;
    EchoServer& operator=(EchoServer const&) = delete;

    bool start() {
        m_socket.enableListen(CONNECTIONS);
        if (m_socket.hadError()) {
            return true;
        }
        m_socket.updateLocalAddress();
        m_poller.add(*this, m_socket.getSocketFd());
        return false;
    }

    int poll_events(int) override { return POLLIN; }
    void read(int) override {
        for (;;) {
            vesk::TCPSocket::Description const accepted = m_socket.acceptConnection();
            if (!accepted.valid) {
                failed(m_socket.hadError(), "accepting");
                return;
            }
            m_echoes.emplace_back(m_poller, accepted, m_ended);
            failed(m_echoes.back().start(), "adopting");
        }
    }
    void error(int) override { failed(true, "the listening socket"); }

    IPSocket::IPAddress const& getAddress() const { return m_socket.getLocalAddress(); }
    unsigned int countEnded() const { return m_ended; }

private:
    vesk::Poller& m_poller;
    vesk::TCPServerSocket m_socket;
    std::list<Echo> m_echoes; // Kept to the end: a poller may still call a client that was just removed.
    std::atomic<unsigned int> m_ended{0};
};

/// Returns how many connections the descriptor limit allows if both ends are in this process.
unsigned int countPossible() {
    constexpr rlim_t OTHERS = 64;
    constexpr rlim_t WANTED = 2 * CONNECTIONS + OTHERS;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    if (limit.rlim_cur < WANTED) {
        limit.rlim_cur = std::min(WANTED, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    return static_cast<unsigned int>((std::min(WANTED, limit.rlim_cur) - OTHERS) / 2);
}

using Clients = std::list<vesk::TCPSocket>;

bool sendTo(vesk::TCPSocket& client, Telegram const& telegram) {
    unsigned int written = 0;
    return client.write(telegram.data(), sizeof telegram, written) != 1;
}

bool receiveFrom(vesk::TCPSocket& client, Telegram const& expected) {
    Telegram telegram;
    unsigned int size = 0;
    for (unsigned int received = 0; received != sizeof telegram; received += size) {
        unsigned int const left = static_cast<unsigned int>(sizeof telegram) - received;
        if (client.read(telegram.data() + received, left, size) != 1) {
            return true;
        }
    }
    return telegram != expected;
}

/// Measures the round-trip time with one connection active at a time.
void measureRoundTrips(Clients& clients, Telegram const& telegram) {
    std::vector<double> trips;
    trips.reserve(SINGLE_ROUNDS * clients.size());
    for (unsigned int round = 0; round < SINGLE_ROUNDS; ++round) {
        for (vesk::TCPSocket& client : clients) {
            vesk::RealtimeStopWatch const watch(true);
            if (failed(sendTo(client, telegram) || receiveFrom(client, telegram), "a round trip")) {
                return;
            }
            trips.push_back(microseconds(watch));
        }
    }
    std::sort(trips.begin(), trips.end());
    tell(
        "one at a time: the round trip of a telegram of %zu bytes takes %.0f us in 50%% of the cases, "
        "%.0f us in 99%%, %.0f us at most",
        telegram.size(), trips[trips.size() / 2], trips[trips.size() * 99 / 100], trips.back());
}

/// Measures the throughput with all connections active at once.
void measureThroughput(Clients& clients, Telegram const& telegram) {
    vesk::RealtimeStopWatch const watch(true);
    bool broken = false;
    for (unsigned int round = 0; round < JOINT_ROUNDS; ++round) {
        for (vesk::TCPSocket& client : clients) {
            broken |= sendTo(client, telegram);
        }
        for (vesk::TCPSocket& client : clients) {
            broken |= receiveFrom(client, telegram);
        }
    }
    double const us = microseconds(watch);
    auto const count = static_cast<double>(JOINT_ROUNDS * clients.size());
    if (!failed(broken, "telegrams on all connections")) {
        tell(
            "all at once: %.0f round trips, %.0f per second, %.1f MiB/s in each direction", count,
            count * 1e6 / us, count * static_cast<double>(telegram.size()) / us * 1e6 / (1 << 20));
    }
}

void pollLoop(void* poller) {
    while (!static_cast<vesk::Poller*>(poller)->poll()) {}
}

void echoOverTcp() {
    section("Sockets: an echo server with a thousand TCP connections on one poller");
    unsigned int const count = countPossible();
    if (count < CONNECTIONS) {
        tell("the descriptor limit allows no more than %u connections", count);
    }
    vesk::Poller poller;
    EchoServer server(poller);
    if (failed(server.start(), "listening")) {
        return;
    }
    vesk::Thread loop(pollLoop, &poller, "tour echo");
    failed(loop.start(), "starting the loop");
    Clients clients;
    vesk::RealtimeStopWatch const watch(true);
    for (unsigned int i = 0; i < count; ++i) {
        clients.emplace_back(
            true, 0U, 0U, IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 0), server.getAddress(), false,
            IPSocket::IPV4);
        if (failed(clients.back().connect(), "connecting")) {
            break;
        }
    }
    tell("%zu connections in %.0f ms", clients.size(), microseconds(watch) / 1000);

    Telegram telegram;
    for (size_t i = 0; i < telegram.size(); ++i) {
        telegram[i] = static_cast<char>(i * 7);
    }
    measureRoundTrips(clients, telegram);
    measureThroughput(clients, telegram);

    for (vesk::TCPSocket& client : clients) {
        failed(client.close(false), "closing a client");
    }
    while (!hasFailed() && server.countEnded() != clients.size()) {
        static_cast<void>(vesk::Thread::yield());
    }
    poller.stop();
    failed(loop.join(), "joining the loop");
}

// ---- credentials ----

/// Prints the credentials of the peer and returns its process id.
int tellPeer(char const* me, vesk::UnixSocketBase const& socket) {
    long long user = -1;
    long long group = -1;
    int process = -1;
    socket.getPeerCredentials(user, group, process);
    tell(
        "the %s, process %d, talks to process %d of user %lld and group %lld", me, static_cast<int>(getpid()),
        process, user, group);
    return process;
}

void showCredentials() {
    section("Sockets: two processes on an abstract Unix socket, without a file");
    std::string const name = "tour-" + std::to_string(getpid());
    vesk::UnixServerSocket server(name.c_str(), true, vesk::UnixSocketBase::ABSTRACT);
    server.enableListen(1);
    if (failed(server.hadError(), "listening")) {
        return;
    }
    int const me = getpid();
    auto const client = [&] {
        vesk::UnixSocket socket(true, 0, 0, "", name.c_str(), vesk::UnixSocketBase::ABSTRACT);
        unsigned int size = 0;
        int mine = getpid();
        bool const broken = socket.connect() || tellPeer("client", socket) != me ||
            socket.write(&mine, sizeof mine, size) != 1;
        return failed(socket.close(false) || broken, "talking to the server");
    };
    failed(
        withOtherProcess(
            client,
            [&] {
                vesk::UnixSocket socket(true, 0, 0, server.acceptConnection());
                int told = 0;
                unsigned int size = 0;
                // The client prints its line before it sends its id, which keeps the output in order.
                bool const broken =
                    socket.read(&told, sizeof told, size) != 1 || tellPeer("server", socket) != told;
                return socket.close(false) || broken;
            }),
        "the system names the process on the other end");
    failed(server.close(false), "closing the server");
}

// ---- in a separate network namespace ----

/// Moves the calling process into a network namespace that contains only a loopback device and routes
/// multicast groups over it. Returns false with `errno` set if that is not permitted.
bool separateNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    int const control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq device{};
    strncpy(device.ifr_name, "lo", sizeof device.ifr_name - 1);
    device.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_MULTICAST;
    rtentry route{};
    auto& groups = reinterpret_cast<sockaddr_in&>(route.rt_dst);
    auto& mask = reinterpret_cast<sockaddr_in&>(route.rt_genmask);
    groups.sin_family = AF_INET;
    groups.sin_addr.s_addr = htonl(0xE0000000);
    mask.sin_family = AF_INET;
    mask.sin_addr.s_addr = htonl(0xF0000000);
    route.rt_flags = RTF_UP;
    route.rt_dev = device.ifr_name;
    bool const done = ioctl(control, SIOCSIFFLAGS, &device) == 0 && ioctl(control, SIOCADDRT, &route) == 0;
    int const error = errno;
    close(control);
    errno = error;
    return done;
}

/// Waits until a socket is readable. Returns true if nothing arrives.
bool isSilent(Socket const& socket) {
    std::set<Socket const*> read = {&socket};
    std::set<Socket const*> none;
    return Socket::selectSockets(read, none, none, 60 * 1000, true) != 1;
}

constexpr unsigned int DATAGRAMS = 1000;
constexpr size_t MEMBERS = 3;

void talkToGroup() {
    IPSocket::IPAddress const group("239.255.42.99", 4242);
    std::list<vesk::UDPSocket> members;
    for (size_t i = 0; i < MEMBERS; ++i) {
        members.emplace_back(
            true, 0U, 0U, IPSocket::IPAddress(IPSocket::ANY_IP, group.port), group, IPSocket::IPV4);
        members.back().open();
        if (failed(members.back().hadError(), "joining the group")) {
            return;
        }
    }
    std::array<unsigned int, MEMBERS> heard{};
    vesk::RealtimeStopWatch const watch(true);
    for (unsigned int i = 0; i < DATAGRAMS && !hasFailed(); ++i) {
        unsigned int size = 0;
        failed(members.front().write(&i, sizeof i, size) != 1, "writing to the group");
        size_t index = 0;
        for (vesk::UDPSocket& member : members) {
            unsigned int number = 0;
            if (!failed(
                    isSilent(member) || member.read(&number, sizeof number, size) != 1 || number != i,
                    "receiving it")) {
                ++heard[index];
            }
            ++index;
        }
    }
    tell(
        "%u datagrams of one member to %s: %u, %u and %u received, by the sender too; %.1f us each",
        DATAGRAMS, group.host.c_str(), heard[0], heard[1], heard[2], microseconds(watch) / DATAGRAMS);
    for (vesk::UDPSocket& member : members) {
        failed(member.close(false), "leaving the group");
    }
}

constexpr unsigned short OWN_PORT = 4711;
constexpr unsigned int OWN_PACKETS = 200;

/// Returns whether an Ethernet frame contains a UDP datagram over IPv4 to the port of this tour.
bool isOwn(char const* frame, unsigned int size) {
    ether_header ethernet{};
    iphdr ip{};
    udphdr udp{};
    if (size < sizeof ethernet + sizeof ip + sizeof udp) {
        return false;
    }
    memcpy(&ethernet, frame, sizeof ethernet);
    memcpy(&ip, frame + sizeof ethernet, sizeof ip);
    memcpy(&udp, frame + sizeof ethernet + sizeof ip, sizeof udp);
    return ethernet.ether_type == htons(ETHERTYPE_IP) && ip.protocol == IPPROTO_UDP &&
        udp.dest == htons(OWN_PORT);
}

void countOwnPackets() {
    vesk::RawSocket raw(true, 0, 0);
    if (raw.open("lo")) {
        tell("no permission for packet sockets:\n%s", tarn_error.getReasonList().c_str());
        std::ErrorStorage::ack();
        return;
    }
    vesk::UDPSocket receiver(
        true, 0, 0, {IPSocket::LOOPBACK_IP, OWN_PORT}, {IPSocket::LOOPBACK_IP, OWN_PORT + 1}, IPSocket::IPV4);
    vesk::UDPSocket sender(
        true, 0, 0, {IPSocket::LOOPBACK_IP, OWN_PORT + 1}, {IPSocket::LOOPBACK_IP, OWN_PORT}, IPSocket::IPV4);
    receiver.open();
    sender.open();
    failed(receiver.hadError() || sender.hadError(), "opening UDP sockets");
    unsigned int seen = 0;
    unsigned int strange = 0;
    for (unsigned int sent = 1; sent <= OWN_PACKETS && !hasFailed(); ++sent) {
        unsigned int size = 0;
        failed(sender.write("tick", 4, size) != 1, "sending");
        // A loopback device delivers each packet twice: outgoing and incoming.
        while (seen < 2 * sent && !hasFailed()) {
            std::array<char, 2048> frame;
            if (!failed(isSilent(raw) || raw.read(frame.data(), sizeof frame, size) != 1, "reading frames")) {
                ++(isOwn(frame.data(), size) ? seen : strange);
            }
        }
        std::array<char, 4> text;
        failed(receiver.read(text.data(), sizeof text, size) != 1, "receiving");
    }
    tell(
        "%u datagrams to port %u were seen as %u frames, out and in, among %u others", OWN_PACKETS, OWN_PORT,
        seen, strange);
    failed(sender.close(false) || receiver.close(false) || raw.close(), "closing them");
}

/// Runs `play` in a process with a network namespace of its own.
void playInOwnNetwork(void (*play)()) {
    auto const separated = [play] {
        if (separateNetwork()) {
            play();
        } else {
            tell(
                "skipped: no permission for a separate network namespace, which isolates it: %s",
                strerror(errno));
        }
        return hasFailed();
    };
    failed(withOtherProcess(separated, [] { return false; }), "the separate network namespace");
}

} // namespace

void sockets() {
    echoOverTcp();
    showCredentials();
    section("Sockets: a multicast group in a separate network namespace");
    playInOwnNetwork(talkToGroup);
    // Not in the same namespace: the kernel reports there for up to a second that a group was left. On the
    // loopback device, each of these frames takes 128 KiB of a receive buffer, which then drops other frames.
    section("Sockets: a raw socket that sees this tour's own packets");
    playInOwnNetwork(countOwnPackets);
}

} // namespace tour
