#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace examples {

/// Sends one assignment, such as "READY=1", to the service manager that has set `NOTIFY_SOCKET`. Without that
/// variable, and on any failure, nothing happens: a daemon does its work without a manager, too.
///
/// Bare system calls: the manager's socket takes datagrams, and `vesk::UnixSocket` is a stream.
inline void notify(std::string const& assignment) {
    char const* const path = getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || *path == '\0' || strlen(path) >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strlen(path));
    if (*path == '@') {
        address.sun_path[0] = '\0'; // The abstract namespace.
    }
    int const fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
    static_cast<void>(sendto(
        fd, assignment.data(), assignment.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
        reinterpret_cast<sockaddr const*>(&address), size));
    static_cast<void>(::close(fd));
}

/// Returns how often the manager wants a sign of life, in milliseconds, halved to be safe; 0: not at all.
inline unsigned int getKeepAliveInterval() {
    char const* const process = getenv("WATCHDOG_PID");
    if (process != nullptr && strtol(process, nullptr, 10) != getpid()) {
        return 0;
    }
    char const* const microseconds = getenv("WATCHDOG_USEC");
    return microseconds == nullptr ? 0 : static_cast<unsigned int>(strtoul(microseconds, nullptr, 10) / 2000);
}

} // namespace examples
