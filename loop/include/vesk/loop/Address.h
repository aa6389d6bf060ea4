#pragma once

#include <vesk/loop/Loop.h>

#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace vesk::loop {

/// The address of a socket: IPv4, IPv6 or Unix. A plain value.
///
/// | text | address |
/// |---|---|
/// | `192.0.2.1:80`, `[2001:db8::1]:80`, `[fe80::1%eth0]:80` | TCP or UDP |
/// | `unix:/run/name` | a socket file |
/// | `unix:@name` | a name in the abstract namespace |
class VESK_LOOP_API Address {
public:
    /// No address.
    Address() noexcept = default;
    /// Copies an address of the system.
    Address(sockaddr const* address, socklen_t size) noexcept;
    /// Reads a text. Looks up no names: see `lookUp`. Fails with `EINVAL`.
    static Result<Address> parse(std::string_view text);

    /// Returns the text of the table, empty without an address.
    std::string text() const;
    /// Returns `AF_INET`, `AF_INET6`, `AF_UNIX`, or `AF_UNSPEC` without an address.
    int family() const noexcept { return m_address.ss_family; }
    /// Returns the port, 0 without one.
    int port() const noexcept;

    /// Returns the address as system calls take it.
    sockaddr const* get() const noexcept { return reinterpret_cast<sockaddr const*>(&m_address); }
    /// Returns the size of `get` in bytes.
    socklen_t size() const noexcept { return m_size; }

    /// @{
    /// Compare the texts.
    friend bool operator==(Address const& one, Address const& other) { return one.text() == other.text(); }
    friend bool operator!=(Address const& one, Address const& other) { return !(one == other); }
    /// @}

private:
    sockaddr_storage m_address{};
    socklen_t m_size = 0;
};

/// Looks up a name (`getaddrinfo`) in a thread of its own, and calls back once in the loop with at least one address
/// or with the failure. Fails with `ENOENT` for a name that does not exist, `EAGAIN` if the name server does not
/// answer. A text of an address is looked up, too.
/// @param name  "example.org:80"; the port may be the name of a service
VESK_LOOP_API Result<Watch> lookUp(
    Loop& loop, std::string const& name, Callback<void(Result<std::vector<Address>>)> callback,
    Options options = {});

} // namespace vesk::loop
