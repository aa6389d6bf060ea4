#include <vesk/NetDeviceMonitor.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr int INTERFACES = 500; // In addition to the loopback interface.

/// Creates `INTERFACES` interfaces in a separate network namespace, which ends with the process. Returns
/// whether it succeeded.
bool makeNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    FILE* const program = popen("ip -batch - 2>&1", "w");
    if (program == nullptr) {
        return false;
    }
    for (int i = 0; i < INTERFACES; ++i) {
        fprintf(program, "link add name if%d type bridge\n", i);
    }
    return pclose(program) == 0;
}

bool isThere(benchmark::State& state) {
    static bool const s_made = makeNetwork();
    if (!s_made) {
        state.SkipWithError("a network of its own is not granted");
    }
    return s_made;
}

void check(bool failed) {
    if (failed) {
        abort();
    }
}

/// Stops the monitor after the last interface.
class Counter : public vesk::NetDeviceMonitor::Listener {
public:
    void interface_status(Info const& interface) override {
        benchmark::DoNotOptimize(interface);
        if (++m_count == INTERFACES + 1) {
            monitor->stopWatching();
        }
    }

    vesk::NetDeviceMonitor* monitor = nullptr;

private:
    int m_count = 0;
};

void veskDump(benchmark::State& state) {
    if (!isThere(state)) {
        return;
    }
    while (state.KeepRunningBatch(INTERFACES)) {
        Counter counter;
        vesk::NetDeviceMonitor monitor(&counter);
        counter.monitor = &monitor;
        check(monitor.watch());
    }
}
BENCHMARK(veskDump)->Name("NetDeviceMonitor dump, each of 500 interfaces (at most 1.15)/vesk");

struct BareInterface {
    std::string name;
    std::string mac;
    unsigned int flags = 0;
    int mtu = 0;
};

void ask(int fd, unsigned short type) {
    struct {
        nlmsghdr header;
        rtgenmsg generator;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.generator);
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    check(send(fd, &request, request.header.nlmsg_len, 0) < 0);
}

void store(std::map<int, BareInterface>& interfaces, nlmsghdr const* message) {
    auto const* const info = static_cast<ifinfomsg const*>(NLMSG_DATA(message));
    BareInterface& interface = interfaces[info->ifi_index];
    interface.flags = info->ifi_flags;
    int left = static_cast<int>(IFLA_PAYLOAD(message));
    for (auto const* attribute = IFLA_RTA(info); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left)) {
        auto const* const data = static_cast<unsigned char const*>(RTA_DATA(attribute));
        switch (attribute->rta_type) {
        case IFLA_IFNAME:
            interface.name = reinterpret_cast<char const*>(data);
            break;
        case IFLA_MTU:
            memcpy(&interface.mtu, data, sizeof interface.mtu);
            break;
        case IFLA_ADDRESS: {
            char text[sizeof "00:00:00:00:00:00"];
            snprintf(
                text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", data[0], data[1], data[2], data[3],
                data[4], data[5]);
            interface.mac = text;
            break;
        }
        default:
            break;
        }
    }
}

/// Receives one datagram. Returns true at the end of a dump.
bool receive(int fd, std::map<int, BareInterface>& interfaces) {
    alignas(nlmsghdr) char buffer[4096];
    ssize_t const received = recv(fd, buffer, sizeof buffer, 0);
    check(received < 0);
    auto left = static_cast<unsigned int>(received);
    for (auto const* message = reinterpret_cast<nlmsghdr const*>(buffer); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type == NLMSG_DONE) {
            return true;
        }
        if (message->nlmsg_type == RTM_NEWLINK) {
            store(interfaces, message);
        }
    }
    return false;
}

void bareDump(benchmark::State& state) {
    if (!isThere(state)) {
        return;
    }
    while (state.KeepRunningBatch(INTERFACES)) {
        int const fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
        check(fd == -1 || bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0);
        std::map<int, BareInterface> interfaces;
        ask(fd, RTM_GETLINK);
        while (interfaces.size() <= INTERFACES) {
            check(receive(fd, interfaces));
        }
        ask(fd, RTM_GETADDR);
        receive(fd, interfaces);
        close(fd);
        benchmark::DoNotOptimize(interfaces);
    }
}
BENCHMARK(bareDump)->Name("NetDeviceMonitor dump, each of 500 interfaces (at most 1.15)/bare");

} // namespace
