#pragma once

#include <vesk/loop/Connection.h>

#include <string_view>

namespace vesk::loop {

/// Accepts the connections of clients (TCP, Unix).
///
///     auto const server = Listener::open(loop, "[::]:8080", [&](Connection peer) { sessions.add(std::move(peer)); });
///
/// The destructor closes the socket, and removes its socket file. Connections that were accepted stay open.
class [[nodiscard]] VESK_LOOP_API Listener : public Watch {
public:
    /// Watches nothing.
    Listener() noexcept = default;

    /// Listens at an address (`bind`, `listen`). Port 0 lets the system choose. A socket file at which no process
    /// listens is replaced. Without descriptors or memory for a connection it waits 100 ms and tries again.
    static Result<Listener>
    open(Loop& loop, std::string_view address, Callback<void(Connection)> callback, Options options = {});

    /// Returns the address of the socket, with the port that the system has chosen.
    Address address() const;

private:
    using Watch::Watch;
    friend struct detail::Access;
};

} // namespace vesk::loop
