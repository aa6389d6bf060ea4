#pragma once

#include "support/Inject.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

/// The system calls below the TCP and Unix sockets, replaced: a `support::Fault` makes them fail, and `s_calls` has what
/// they were last called with. Must be included in exactly one file of a test program.

namespace support {

/// The arguments of the last calls, and the answers to return instead of those of the system.
struct SocketCalls {
    std::array<int, 3> created{}; ///< Of `socket`: domain, type and protocol.
    int status_flags = -1;        ///< Of `fcntl` with F_SETFL.
    std::string bound;            ///< The address of `bind`, at most the bytes of its structure.
    socklen_t bind_length = 0;
    std::string connected; ///< The address of `connect`.
    socklen_t connect_length = 0;
    int backlog = -1;
    socklen_t accept_room = 0;
    int accept_flags = 0;
    int how = -1; ///< Of `shutdown`.
    std::optional<std::vector<int>>
        options; ///< Of `setsockopt`, if present: level, option, value of each call.

    std::optional<sockaddr_un> peer_name; ///< For `getpeername`.
    socklen_t peer_length = 0;
    std::optional<ucred> credentials; ///< For `getsockopt`.
    socklen_t credentials_length = 0;
};

inline SocketCalls s_calls;

inline std::string bytesOf(void const* address, socklen_t length) {
    return {static_cast<char const*>(address), std::min<size_t>(length, sizeof(sockaddr_un))};
}

/// Copies an answer as the system does: cut to the caller's room, with the full length.
inline int answer(void const* value, size_t size, socklen_t full, void* out, socklen_t* room) {
    memcpy(out, value, std::min<size_t>(*room, size));
    *room = full;
    return 0;
}

} // namespace support

/// Replaces a function that returns -1 and sets `errno`. The statements after the arguments run in each call that does
/// not fail, before the real function.
#define VESK_INJECT_NOTED(name, parameters, arguments, ...)                                                  \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED int name parameters {                                                          \
        if (inject_##name.fails()) {                                                                         \
            return -1;                                                                                       \
        }                                                                                                    \
        __VA_ARGS__                                                                                          \
        return reinterpret_cast<int(*) parameters>(inject_##name.getReal()) arguments;                       \
    }

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))
VESK_INJECT_NOTED(socket, (int domain, int type, int protocol), (domain, type, protocol), {
    support::s_calls.created = {domain, type, protocol};
})
VESK_INJECT_NOTED(bind, (int fd, sockaddr const* address, socklen_t length), (fd, address, length), {
    support::s_calls.bound = support::bytesOf(address, length);
    support::s_calls.bind_length = length;
})
VESK_INJECT_NOTED(connect, (int fd, sockaddr const* address, socklen_t length), (fd, address, length), {
    support::s_calls.connected = support::bytesOf(address, length);
    support::s_calls.connect_length = length;
})
VESK_INJECT_NOTED(listen, (int fd, int backlog), (fd, backlog), { support::s_calls.backlog = backlog; })
VESK_INJECT_NOTED(
    accept4, (int fd, sockaddr* address, socklen_t* length, int flags), (fd, address, length, flags), {
        support::s_calls.accept_room = length != nullptr ? *length : 0;
        support::s_calls.accept_flags = flags;
    })
VESK_INJECT_NOTED(shutdown, (int fd, int how), (fd, how), { support::s_calls.how = how; })
VESK_INJECT_NOTED(
    setsockopt, (int fd, int level, int option, void const* value, socklen_t size),
    (fd, level, option, value, size), {
        if (support::s_calls.options) {
            int number = -1; // Also stands for a value that is not an int.
            memcpy(&number, value, size == sizeof number ? size : 0);
            auto& options = *support::s_calls.options;
            options.insert(options.end(), {level, option, number});
        }
    })
VESK_INJECT_NOTED(getpeername, (int fd, sockaddr* address, socklen_t* length), (fd, address, length), {
    if (auto const& name = support::s_calls.peer_name) {
        return support::answer(&*name, sizeof *name, support::s_calls.peer_length, address, length);
    }
})
VESK_INJECT_NOTED(
    getsockopt, (int fd, int level, int option, void* value, socklen_t* length),
    (fd, level, option, value, length), {
        auto const& credentials = support::s_calls.credentials;
        if (credentials && level == SOL_SOCKET && option == SO_PEERCRED) {
            return support::answer(
                &*credentials, sizeof *credentials, support::s_calls.credentials_length, value, length);
        }
    })

support::Injected inject_getfl("fcntl");
support::Injected inject_setfl("fcntl");
extern "C" VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if ((command == F_GETFL && inject_getfl.fails()) || (command == F_SETFL && inject_setfl.fails())) {
        return -1;
    }
    if (command == F_SETFL) {
        support::s_calls.status_flags = static_cast<int>(reinterpret_cast<intptr_t>(argument));
    }
    return inject_getfl.getReal(fcntl)(fd, command, argument);
}
