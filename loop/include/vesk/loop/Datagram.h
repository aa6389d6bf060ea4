#pragma once

#include <vesk/loop/Address.h>

#include <string>
#include <string_view>

namespace vesk::loop {

/// A socket for datagrams (UDP, Unix).
///
///     auto const socket = Datagram::open(loop, "0.0.0.0:5353", [&](std::string_view data, Address const& from) { ... });
///     (void)socket->sendTo(*Address::parse("192.0.2.1:5353"), "hello");
///
/// Operations that send may be used by any thread. The destructor closes the socket, and removes its socket file.
class [[nodiscard]] VESK_LOOP_API Datagram : public Watch {
public:
    /// Watches nothing.
    Datagram() noexcept = default;

    /// Binds a socket to an address. Port 0 lets the system choose. The callback gets each datagram whole, and the
    /// address of its sender. The data is valid during the call.
    static Result<Datagram> open(
        Loop& loop, std::string_view address, Callback<void(std::string_view, Address const&)> callback,
        Options options = {});

    /// Sends a datagram (`sendto`). Fails with `EAGAIN` if the system has no room: `Loop::onWritable` of `fd` tells
    /// when it has.
    Result<> sendTo(Address const& to, std::string_view data) const;

    /// Joins a multicast group (`IP_ADD_MEMBERSHIP`, `IPV6_JOIN_GROUP`): its datagrams are received, too. The interface is chosen by the system if its name is empty.
    Result<> join(Address const& group, std::string const& interface_name = {}) const;
    /// Leaves a multicast group (`IP_DROP_MEMBERSHIP`, `IPV6_LEAVE_GROUP`).
    Result<> leave(Address const& group, std::string const& interface_name = {}) const;
    /// Sets how many routers a multicast datagram passes, and whether this machine receives its own ones.
    Result<> setMulticast(int ttl, bool loops_back) const;
    /// Allows to send to a broadcast address.
    Result<> setBroadcast(bool on) const;

    /// Returns the descriptor, for options, or -1.
    int fd() const noexcept;
    /// Returns the address of the socket, with the port that the system has chosen.
    Address address() const;

private:
    using Watch::Watch;
    friend struct detail::Access;
};

} // namespace vesk::loop
