#pragma once

#include <vesk/loop/Address.h>

#include <vesk/common/UniqueFd.h>

#include <memory>
#include <string>

namespace vesk::loop {
class Connection;
}

namespace vesk::loop::detail {

using vesk::detail::UniqueFd;

constexpr char const* ADDRESS_SOURCE = "loop/src/vesk/loop/Address";

/// Returns why an address cannot be used.
Error refuseAddress(int error, std::string const& address, char const* step, int line = __builtin_LINE());

/// A socket that is bound to an address. Its file, if it has one, is removed with it.
class BoundSocket {
public:
    BoundSocket() noexcept = default;
    BoundSocket(BoundSocket&&) noexcept = default;
    BoundSocket& operator=(BoundSocket&&) = delete;
    ~BoundSocket();

    static Result<BoundSocket> open(Address const& address, int type);
    int get() const noexcept { return m_fd.get(); }
    Address getAddress() const noexcept;

private:
    UniqueFd m_fd;
    std::string m_path;
};

/// Returns the connection of a socket that has been accepted.
Result<Connection> makeConnection(std::shared_ptr<Core> const& core, UniqueFd socket, Options options);

} // namespace vesk::loop::detail
