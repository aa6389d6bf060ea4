#pragma once

#include "support/Inject.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

/// The system calls below the UDP sockets, replaced: a `support::Fault` makes them fail, and a `CallRecorder` notes them
/// with their arguments. Include it in one file of a test program.

namespace support {

/// Notes the calls of the one thread of a test while it lives, whether they fail or not. One at a time.
///
///     CallRecorder const calls(CallRecorder::PRETEND);
///     socket.open();
///     EXPECT_EQ("bind(s, 0200 0000 7f000001 ...)\n", calls.getText());
///
/// "s" stands for the descriptor that the last `socket` made. Blocks of bytes are shown in hexadecimal, in their order in
/// memory.
class CallRecorder {
public:
    enum Effect {
        REAL,    ///< The system gets the calls.
        PRETEND, ///< It gets those that make, prepare and close a descriptor; all others only seem to succeed.
    };

    explicit CallRecorder(Effect effect = REAL) : m_effect(effect) { s_current = this; }
    ~CallRecorder() { s_current = nullptr; }

    CallRecorder(CallRecorder const&) = delete;
    CallRecorder& operator=(CallRecorder const&) = delete;

    /// The calls so far, a line each. Forgets them.
    std::string getText() {
        std::string text;
        text.swap(m_text);
        return text;
    }

    static bool isPretending() noexcept { return s_current != nullptr && s_current->m_effect == PRETEND; }

    /// Adds a call: its descriptor, then the other arguments.
    static void note(char const* function, int fd, std::string const& arguments) {
        if (s_current != nullptr) {
            s_current->m_text += std::string(function) + "(" +
                (fd == s_last_socket ? "s" : std::to_string(fd)) + (arguments.empty() ? "" : ", ") +
                arguments + ")\n";
        }
    }
    static void noteSocket(int domain, int type, int protocol) {
        if (s_current != nullptr) {
            s_current->m_text += std::string("socket(") +
                (domain == AF_INET6      ? "AF_INET6, "
                     : domain == AF_INET ? "AF_INET, "
                                         : "other, ") +
                std::to_string(type) + ", " + std::to_string(protocol) + ")\n";
        }
    }
    static bool isRecording() noexcept { return s_current != nullptr; }

    static std::string toHex(void const* bytes, size_t size) {
        std::string text;
        for (size_t i = 0; i < size; ++i) {
            unsigned int const byte = static_cast<unsigned char const*>(bytes)[i];
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }
    static std::string toText(int level, int option) {
        struct Name {
            int level;
            int option;
            char const* text;
        };
        constexpr Name NAMES[] = {
            {SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR"},
            {SOL_SOCKET, SO_BROADCAST, "SO_BROADCAST"},
            {SOL_SOCKET, SO_SNDBUF, "SO_SNDBUF"},
            {IPPROTO_IP, IP_MULTICAST_IF, "IPPROTO_IP IP_MULTICAST_IF"},
            {IPPROTO_IP, IP_ADD_MEMBERSHIP, "IPPROTO_IP IP_ADD_MEMBERSHIP"},
            {IPPROTO_IPV6, IPV6_MULTICAST_IF, "IPPROTO_IPV6 IPV6_MULTICAST_IF"},
            {IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, "IPPROTO_IPV6 IPV6_ADD_MEMBERSHIP"},
        };
        for (Name const& name : NAMES) {
            if (name.level == level && name.option == option) {
                return name.text;
            }
        }
        return std::to_string(level) + " " + std::to_string(option);
    }

    static inline int s_last_socket = -1;

private:
    static inline CallRecorder* s_current = nullptr;

    Effect m_effect;
    std::string m_text;
};

/// What `getsockopt` tells while one of it lives, in place of what the system would.
struct PretendedOption {
    PretendedOption(int option_value, socklen_t option_length) : value(option_value), length(option_length) {
        s_current = this;
    }
    ~PretendedOption() { s_current = nullptr; }

    PretendedOption(PretendedOption const&) = delete;
    PretendedOption& operator=(PretendedOption const&) = delete;

    static inline PretendedOption* s_current = nullptr;

    int value;
    socklen_t length;
};

/// Whether the call is to fail, with `errno` set if so.
VESK_UNWATCHED inline bool fails(Injected& function) {
    int error = 0;
    if (!function.fails(error)) {
        return false;
    }
    errno = error;
    return true;
}

} // namespace support

VESK_INJECT_RESULT(
    getaddrinfo, (char const* node, char const* service, addrinfo const* hints, addrinfo** list),
    (node, service, hints, list))
VESK_INJECT_ERRNO(
    ssize_t, -1, recv, (int fd, void* buffer, size_t size, int flags), (fd, buffer, size, flags))

support::Injected inject_socket("socket");
support::Injected inject_fcntl("fcntl");
support::Injected inject_setsockopt("setsockopt");
support::Injected inject_getsockopt("getsockopt");
support::Injected inject_bind("bind");
support::Injected inject_connect("connect");
support::Injected inject_send("send");
support::Injected inject_sendto("sendto");
support::Injected inject_close("close");

/// Forwards to the replaced function.
#define VESK_REAL(name, result, parameters) reinterpret_cast<result(*) parameters>(inject_##name.getReal())

extern "C" {

VESK_UNWATCHED int socket(int domain, int type, int protocol) {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::noteSocket(domain, type, protocol);
    }
    if (support::fails(inject_socket)) {
        return -1;
    }
    int const fd = VESK_REAL(socket, int, (int, int, int))(domain, type, protocol);
    support::CallRecorder::s_last_socket = fd;
    return fd;
}

VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    // Wide enough for any argument; one that was not given is not used.
    long const argument = va_arg(arguments, long);
    va_end(arguments);
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note(
            "fcntl", fd,
            command == F_GETFL       ? "F_GETFL"
                : command == F_SETFL ? "F_SETFL, " + std::to_string(static_cast<int>(argument))
                                     : std::to_string(command));
    }
    if (support::fails(inject_fcntl)) {
        return -1;
    }
    return VESK_REAL(fcntl, int, (int, int, ...))(fd, command, argument);
}

VESK_UNWATCHED int setsockopt(int fd, int level, int option, void const* value, socklen_t length) noexcept {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note(
            "setsockopt", fd,
            support::CallRecorder::toText(level, option) + ", " +
                support::CallRecorder::toHex(value, length));
    }
    if (support::fails(inject_setsockopt)) {
        return -1;
    }
    return support::CallRecorder::isPretending()
        ? 0
        : VESK_REAL(setsockopt, int, (int, int, int, void const*, socklen_t))(
              fd, level, option, value, length);
}

VESK_UNWATCHED int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note(
            "getsockopt", fd, support::CallRecorder::toText(level, option) + ", " + std::to_string(*length));
    }
    if (support::fails(inject_getsockopt)) {
        return -1;
    }
    if (support::PretendedOption::s_current != nullptr) {
        memcpy(value, &support::PretendedOption::s_current->value, sizeof(int));
        *length = support::PretendedOption::s_current->length;
        return 0;
    }
    return VESK_REAL(getsockopt, int, (int, int, int, void*, socklen_t*))(fd, level, option, value, length);
}

VESK_UNWATCHED int bind(int fd, sockaddr const* address, socklen_t length) noexcept {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note("bind", fd, support::CallRecorder::toHex(address, length));
    }
    if (support::fails(inject_bind)) {
        return -1;
    }
    return support::CallRecorder::isPretending()
        ? 0
        : VESK_REAL(bind, int, (int, sockaddr const*, socklen_t))(fd, address, length);
}

VESK_UNWATCHED int connect(int fd, sockaddr const* address, socklen_t length) {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note("connect", fd, support::CallRecorder::toHex(address, length));
    }
    if (support::fails(inject_connect)) {
        return -1;
    }
    return support::CallRecorder::isPretending()
        ? 0
        : VESK_REAL(connect, int, (int, sockaddr const*, socklen_t))(fd, address, length);
}

VESK_UNWATCHED ssize_t send(int fd, void const* data, size_t size, int flags) {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note(
            "send", fd, support::CallRecorder::toHex(data, size) + ", " + std::to_string(flags));
    }
    if (support::fails(inject_send)) {
        return -1;
    }
    return support::CallRecorder::isPretending()
        ? static_cast<ssize_t>(size)
        : VESK_REAL(send, ssize_t, (int, void const*, size_t, int))(fd, data, size, flags);
}

VESK_UNWATCHED ssize_t
sendto(int fd, void const* data, size_t size, int flags, sockaddr const* address, socklen_t length) {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note(
            "sendto", fd,
            support::CallRecorder::toHex(data, size) + ", " + std::to_string(flags) + ", " +
                support::CallRecorder::toHex(address, length));
    }
    if (support::fails(inject_sendto)) {
        return -1;
    }
    return support::CallRecorder::isPretending()
        ? static_cast<ssize_t>(size)
        : VESK_REAL(sendto, ssize_t, (int, void const*, size_t, int, sockaddr const*, socklen_t))(
              fd, data, size, flags, address, length);
}

VESK_UNWATCHED int close(int fd) {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note("close", fd, "");
    }
    return support::fails(inject_close) ? -1 : VESK_REAL(close, int, (int))(fd);
}

} // extern "C"

#undef VESK_REAL
