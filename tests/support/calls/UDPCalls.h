#pragma once

#include "support/ByteOrder.h"
#include "support/Inject.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

/// Replaces the system calls below the UDP sockets and the options of all sockets: a `support::Fault` makes them fail, and a `CallRecorder`
/// records them with their arguments. Must be included in exactly one file of a test program.

namespace support {

/// Records the calls of a test with one thread during its lifetime, whether they fail or not. Only one
/// recorder can exist at a time.
///
///     CallRecorder const calls(CallRecorder::PRETEND);
///     socket.open();
///     EXPECT_EQ("bind(s, 0200 0000 7f000001 ...)\n", calls.getText());
///
/// "s" stands for the descriptor that the last `socket` created. Bytes are shown in hexadecimal, in the order
/// of memory.
class CallRecorder : private tarnbase::NonCopyable {
public:
    enum Effect {
        REAL,    ///< Every call reaches the system.
        PRETEND, ///< Only the calls that create, prepare and close a descriptor reach it; the others succeed.
    };

    explicit CallRecorder(Effect effect = REAL) : m_effect(effect) { s_current = this; }
    ~CallRecorder() { s_current = nullptr; }

    /// Returns the calls since the last use, one per line.
    std::string getText() { return std::exchange(m_text, {}); }

    static bool isRecording() noexcept { return s_current != nullptr; }
    static bool isPretending() noexcept { return isRecording() && s_current->m_effect == PRETEND; }

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

    static std::string toHex(void const* bytes, size_t size) {
        std::string text;
        for (size_t i = 0; i < size; ++i) {
            char digits[3];
            snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char const*>(bytes)[i]);
            text += digits;
        }
        return text;
    }
    static std::string toHex(std::string const& bytes) { return toHex(bytes.data(), bytes.size()); }
    /// Returns the digits of an address.
    static std::string toHex(sockaddr const* address, socklen_t size) {
        return toHex(addressToLittleEndian(address, size));
    }
    /// Returns the digits of the value of an option: an `int`, or addresses and the index of an interface.
    static std::string toHex(int level, int option, void const* value, socklen_t size) {
        if (level == IPPROTO_IP) {
            return toHex(value, size);
        }
        bool const is_group = level == IPPROTO_IPV6 && option == IPV6_ADD_MEMBERSHIP;
        return toHex(toLittleEndian(value, size, {{is_group ? sizeof(in6_addr) : 0, sizeof(int)}}));
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
            {SOL_SOCKET, SO_RCVBUF, "SO_RCVBUF"},
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

/// Replaces the answer of `getsockopt` during its lifetime.
struct PretendedOption : private tarnbase::NonCopyable {
    PretendedOption(int option_value, socklen_t option_length) : value(option_value), length(option_length) {
        s_current = this;
    }
    ~PretendedOption() { s_current = nullptr; }

    static inline PretendedOption* s_current = nullptr;

    int value;
    socklen_t length;
};

} // namespace support

VESK_INJECT_RESULT(
    getaddrinfo, (char const* node, char const* service, addrinfo const* hints, addrinfo** list),
    (node, service, hints, list))
VESK_INJECT_ERRNO(
    ssize_t, -1, recv, (int fd, void* buffer, size_t size, int flags), (fd, buffer, size, flags))

/// Replaces a function with the descriptor `fd` as its first parameter: it notes the call, then fails,
/// returns `pretended`, or calls the real function.
/// @param noted  the text of the other arguments
#define VESK_INJECT_RECORDED(result, name, parameters, arguments, pretended, noted)                          \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        using support::CallRecorder;                                                                         \
        if (CallRecorder::isRecording()) {                                                                   \
            CallRecorder::note(#name, fd, noted);                                                            \
        }                                                                                                    \
        if (inject_##name.fails()) {                                                                         \
            return -1;                                                                                       \
        }                                                                                                    \
        if (CallRecorder::isPretending()) {                                                                  \
            return pretended;                                                                                \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }

VESK_INJECT_RECORDED(
    int, setsockopt, (int fd, int level, int option, void const* value, socklen_t length) noexcept,
    (fd, level, option, value, length), 0,
    CallRecorder::toText(level, option) + ", " + CallRecorder::toHex(level, option, value, length))
VESK_INJECT_RECORDED(
    int, bind, (int fd, sockaddr const* address, socklen_t length) noexcept, (fd, address, length), 0,
    CallRecorder::toHex(address, length))
VESK_INJECT_RECORDED(
    int, connect, (int fd, sockaddr const* address, socklen_t length), (fd, address, length), 0,
    CallRecorder::toHex(address, length))
VESK_INJECT_RECORDED(
    ssize_t, send, (int fd, void const* data, size_t size, int flags), (fd, data, size, flags),
    static_cast<ssize_t>(size), CallRecorder::toHex(data, size) + ", " + std::to_string(flags))
VESK_INJECT_RECORDED(
    ssize_t, sendto,
    (int fd, void const* data, size_t size, int flags, sockaddr const* address, socklen_t length),
    (fd, data, size, flags, address, length), static_cast<ssize_t>(size),
    CallRecorder::toHex(data, size) + ", " + std::to_string(flags) + ", " +
        CallRecorder::toHex(address, length))

#undef VESK_INJECT_RECORDED

support::Injected inject_socket("socket");
support::Injected inject_fcntl("fcntl");
support::Injected inject_getsockopt("getsockopt");
support::Injected inject_close("close");

extern "C" {

VESK_UNWATCHED int socket(int domain, int type, int protocol) {
    support::CallRecorder::noteSocket(domain, type, protocol);
    if (inject_socket.fails()) {
        return -1;
    }
    int const fd = inject_socket.getReal(socket)(domain, type, protocol);
    support::CallRecorder::s_last_socket = fd;
    return fd;
}

VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    // Wide enough for any argument; one that was not given is not used.
    long const argument = va_arg(arguments, long);
    va_end(arguments);
    // F_GETFD is how a test checks whether a descriptor is open.
    if (support::CallRecorder::isRecording() && command != F_GETFD) {
        support::CallRecorder::note(
            "fcntl", fd,
            command == F_GETFL       ? "F_GETFL"
                : command == F_SETFL ? "F_SETFL, " + std::to_string(static_cast<int>(argument))
                                     : std::to_string(command));
    }
    return inject_fcntl.fails() ? -1 : inject_fcntl.getReal(fcntl)(fd, command, argument);
}

VESK_UNWATCHED int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    if (support::CallRecorder::isRecording()) {
        support::CallRecorder::note(
            "getsockopt", fd, support::CallRecorder::toText(level, option) + ", " + std::to_string(*length));
    }
    if (inject_getsockopt.fails()) {
        return -1;
    }
    if (support::PretendedOption::s_current != nullptr) {
        memcpy(value, &support::PretendedOption::s_current->value, sizeof(int));
        *length = support::PretendedOption::s_current->length;
        return 0;
    }
    return inject_getsockopt.getReal(getsockopt)(fd, level, option, value, length);
}

VESK_UNWATCHED int close(int fd) {
    support::CallRecorder::note("close", fd, "");
    return inject_close.fails() ? -1 : inject_close.getReal(close)(fd);
}

} // extern "C"
