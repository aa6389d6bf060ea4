#include <vesk/loop/Datagram.h>

#include "Composite.h"
#include "Sockets.h"

#include <algorithm>
#include <cerrno>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr size_t MAX_SIZE = 65536; // No datagram of the internet protocols is larger.
constexpr int DATAGRAMS_PER_CALL = 64;

class DatagramSource final : public FdSource {
public:
    DatagramSource(
        std::shared_ptr<Core> core, Options options, BoundSocket socket,
        Callback<void(std::string_view, Address const&)> callback)
        : FdSource(std::move(core), options, socket.get(), false, Trigger::LEVEL),
          m_socket(std::move(socket)),
          m_buffer(MAX_SIZE),
          m_callback(std::move(callback)) {}

    void fire() override {
        for (int i = 0; i < DATAGRAMS_PER_CALL; ++i) {
            sockaddr_storage address{};
            socklen_t size = sizeof address;
            auto* const generic = reinterpret_cast<sockaddr*>(&address);
            // `EAGAIN` ends the call. Any other error belongs to a datagram that was sent earlier.
            ssize_t const count =
                recvfrom(fd, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT, generic, &size);
            if (count < 0) {
                return;
            }
            m_callback({m_buffer.data(), static_cast<size_t>(count)}, Address(generic, size));
            if (!isActive()) {
                return; // Destroyed by the callback.
            }
        }
    }
    Address getAddress() const noexcept { return m_socket.getAddress(); }

private:
    BoundSocket m_socket;
    std::vector<char> m_buffer;
    Callback<void(std::string_view, Address const&)> m_callback;
};

DatagramSource const* sourceOf(Watch const& datagram) noexcept {
    return Access::getSource<DatagramSource>(datagram);
}

Result<> setOption(
    Datagram const& socket, int level, int option, void const* value, size_t size,
    int line = __builtin_LINE()) {
    if (setsockopt(socket.fd(), level, option, value, static_cast<socklen_t>(size)) != 0) {
        return refuseAddress(errno, socket.address().text(), "option", line);
    }
    return {};
}

/// Joins a multicast group, or leaves it.
Result<>
setMembership(Datagram const& socket, Address const& group, std::string const& interface_name, bool joins) {
    unsigned int const index = if_nametoindex(interface_name.c_str());
    if (index == 0 && !interface_name.empty()) {
        return refuseAddress(errno, group.text(), "interface");
    }
    int outcome = 0;
    if (group.family() == AF_INET6) {
        ipv6_mreq request{};
        request.ipv6mr_multiaddr = reinterpret_cast<sockaddr_in6 const*>(group.get())->sin6_addr;
        request.ipv6mr_interface = index;
        int const option = joins ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP;
        outcome = setsockopt(socket.fd(), IPPROTO_IPV6, option, &request, sizeof request);
    } else {
        ip_mreqn request{};
        request.imr_multiaddr = reinterpret_cast<sockaddr_in const*>(group.get())->sin_addr;
        request.imr_ifindex = static_cast<int>(index);
        int const option = joins ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP;
        outcome = setsockopt(socket.fd(), IPPROTO_IP, option, &request, sizeof request);
    }
    if (outcome != 0) {
        return refuseAddress(errno, group.text(), "group");
    }
    return {};
}

} // namespace

Result<Datagram> Datagram::open(
    Loop& loop, std::string_view address, Callback<void(std::string_view, Address const&)> callback,
    Options options) {
    return withoutThrowing(ADDRESS_SOURCE, [&]() -> Result<Datagram> {
        Result<Address> const parsed = Address::parse(address);
        if (!parsed) {
            return parsed.error();
        }
        Result<BoundSocket> socket = BoundSocket::open(*parsed, SOCK_DGRAM);
        if (!socket) {
            return socket.error();
        }
        auto const& core = Access::getCore(loop);
        auto source =
            std::make_shared<DatagramSource>(core, options, std::move(*socket), std::move(callback));
        int error = core->getState();
        error = error != 0 ? error : core->attach(*source);
        if (error != 0) {
            return refuseAddress(error, std::string(address), "loop");
        }
        return Access::make<Datagram>(std::move(source));
    });
}

Result<> Datagram::sendTo(Address const& to, std::string_view data) const {
    if (sendto(fd(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL, to.get(), to.size()) < 0) {
        int const error = errno;
        return withoutThrowing(ADDRESS_SOURCE, [&]() -> Result<> {
            return makeError(ADDRESS_SOURCE, error, LoopErrorId::NOT_SENT, to.text().c_str());
        });
    }
    return {};
}

Result<> Datagram::join(Address const& group, std::string const& interface_name) const {
    return setMembership(*this, group, interface_name, true);
}

Result<> Datagram::leave(Address const& group, std::string const& interface_name) const {
    return setMembership(*this, group, interface_name, false);
}

Result<> Datagram::setMulticast(int ttl, bool loops_back) const {
    bool const is_v6 = address().family() == AF_INET6;
    int const level = is_v6 ? IPPROTO_IPV6 : IPPROTO_IP;
    int const loops = loops_back ? 1 : 0;
    if (Result<> const result =
            setOption(*this, level, is_v6 ? IPV6_MULTICAST_HOPS : IP_MULTICAST_TTL, &ttl, sizeof ttl);
        !result) {
        return result.error();
    }
    return setOption(*this, level, is_v6 ? IPV6_MULTICAST_LOOP : IP_MULTICAST_LOOP, &loops, sizeof loops);
}

Result<> Datagram::setBroadcast(bool on) const {
    int const value = on ? 1 : 0;
    return setOption(*this, SOL_SOCKET, SO_BROADCAST, &value, sizeof value);
}

int Datagram::fd() const noexcept {
    auto const* const source = sourceOf(*this);
    return source == nullptr ? -1 : source->fd;
}

Address Datagram::address() const {
    auto const* const source = sourceOf(*this);
    return source == nullptr ? Address() : source->getAddress();
}

} // namespace vesk::loop
