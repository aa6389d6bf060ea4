#include <vesk/NetDevice.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void check(bool failed) {
    if (failed) {
        abort();
    }
}

/// Interfaces in a separate network namespace, where no other process changes them. Without the privilege to
/// create one, the benchmark uses the interfaces of the machine.
struct Network {
    Network() {
        constexpr char const* INTERFACES =
            "ip link set dev lo up && ip link add name left type veth peer name right && "
            "ip addr add 10.1.0.1/24 brd + dev left";
        if (unshare(CLONE_NEWNET) == 0 && system(INTERFACES) != 0) {
            fprintf(stderr, "there are no interfaces beside the loopback\n");
        }
    }
};

Network const s_network;

void veskWalk(benchmark::State& state) {
    for (auto _ : state) {
        vesk::NetDevice devices(nullptr);
        vesk::NetDevice::InterfaceInfo info;
        int result = 0;
        while ((result = devices.getNextInfo(info)) == 0) {
            benchmark::DoNotOptimize(info);
        }
        check(result != 1);
    }
}

struct BareInfo {
    std::string name;
    std::string addresses[3];
    unsigned char hardware_address[6];
    bool has_hardware_address;
    int mtu;
    unsigned int flags;
};

void bareAddress(int fd, unsigned long question, ifreq& request, std::string& address) {
    if (ioctl(fd, question, &request) != 0) {
        check(errno != EADDRNOTAVAIL);
        return;
    }
    sockaddr_in binary;
    memcpy(&binary, &request.ifr_addr, sizeof binary);
    char text[INET_ADDRSTRLEN];
    address = inet_ntop(AF_INET, &binary.sin_addr, text, sizeof text);
}

void bareInterface(int fd, char const* name, BareInfo& info) {
    ifreq request{};
    strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    check(ioctl(fd, SIOCGIFFLAGS, &request) != 0);
    info.name = name;
    info.flags = static_cast<unsigned short>(request.ifr_flags);
    check(ioctl(fd, SIOCGIFMTU, &request) != 0);
    info.mtu = request.ifr_mtu;
    check(ioctl(fd, SIOCGIFHWADDR, &request) != 0);
    info.has_hardware_address = request.ifr_hwaddr.sa_family == ARPHRD_ETHER;
    memcpy(info.hardware_address, request.ifr_hwaddr.sa_data, sizeof info.hardware_address);
    bareAddress(fd, SIOCGIFADDR, request, info.addresses[0]);
    bareAddress(fd, SIOCGIFNETMASK, request, info.addresses[1]);
    if ((info.flags & IFF_BROADCAST) != 0) {
        bareAddress(fd, SIOCGIFBRDADDR, request, info.addresses[2]);
    }
}

void bareWalk(benchmark::State& state) {
    for (auto _ : state) {
        int const fd = socket(AF_INET, SOCK_DGRAM, 0);
        struct if_nameindex* const list = if_nameindex();
        check(fd == -1 || list == nullptr);
        for (struct if_nameindex const* row = list; row->if_index != 0; ++row) {
            BareInfo info{};
            bareInterface(fd, row->if_name, info);
            benchmark::DoNotOptimize(info);
        }
        if_freenameindex(list);
        close(fd);
    }
}

BENCHMARK(veskWalk)->Name("NetDevice walk over all interfaces (at most 1.10)/vesk");
BENCHMARK(bareWalk)->Name("NetDevice walk over all interfaces (at most 1.10)/bare");

} // namespace
