// Fuzzes the netlink decoder of NetDeviceMonitor. The input is a sequence of datagrams as the kernel would
// send them. Each follows its length, 16 bits little endian; the last datagram may be truncated. The program
// replaces the system calls below the monitor's socket.

#include "Check.h"

#include <vesk/NetDeviceMonitor.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <sanitizer/asan_interface.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using vesk::NetDeviceMonitor;
using vesk::NetworkAddressBase;

constexpr int SOCKET = 1000; // Not an open descriptor.

/// The unread rest of the input.
struct Input {
    NetDeviceMonitor* monitor;
    uint8_t const* data;
    size_t size;
    int open_sockets;
};

Input* s_input = nullptr;

bool isWellFormed(NetworkAddressBase const& address) {
    switch (address.getType()) {
    case NetworkAddressBase::NONE:
        return address.getText().empty();
    case NetworkAddressBase::LINK:
        return address.getText().size() == 17;
    case NetworkAddressBase::IPV4:
        return address.getText().size() >= 7 && address.getText().size() <= 15;
    case NetworkAddressBase::IPV6:
        return address.getText().size() >= 2 && address.getText().size() <= 45;
    }
    return false;
}

/// Reads everything that it receives.
class Listener : public NetDeviceMonitor::Listener {
public:
    void interface_appeared(Info const& interface) override {
        look(interface);
        fuzz::check(!interface.up && interface.addresses.empty(), "a new interface is blank");
    }
    void interface_disappeared(Info const& interface) override { look(interface); }
    void interface_status(Info const& interface) override {
        look(interface);
        fuzz::check(interface.up && interface.operable, "an interface with a status is up");
    }
    void address_appeared(AddrInfo const& address, Info const& interface) override {
        look(interface);
        look(address);
        fuzz::check(interface.addresses.back().address == address.address, "a new address is the last one");
    }
    void address_disappeared(AddrInfo const& address, Info const& interface) override {
        look(interface);
        look(address);
        fuzz::check(count(address, interface) == 1, "what disappears is still there");
    }
    void address_operable(AddrInfo const& address, Info const& interface) override {
        look(interface);
        look(address);
        fuzz::check(
            interface.up && interface.operable, "only an interface that is up has operable addresses");
        fuzz::check(count(address, interface) == 1, "what is operable is there");
    }
    void address_inoperable(AddrInfo const& address, Info const& interface) override {
        address_operable(address, interface);
    }

private:
    static void look(AddrInfo const& address) {
        fuzz::check(isWellFormed(address.address), "the address is well-formed");
        fuzz::check(isWellFormed(address.netmask), "the netmask is well-formed");
        fuzz::check(isWellFormed(address.peer), "the peer is well-formed");
    }
    static void look(Info const& interface) {
        fuzz::check(interface.index <= 65535, "the number has 16 bits");
        fuzz::check(interface.name.size() < 4096, "the name comes from a datagram");
        fuzz::check(strlen(interface.name.c_str()) == interface.name.size(), "the name ends at its zero");
        fuzz::check(interface.up == interface.operable, "both come together");
    }
    static ptrdiff_t count(AddrInfo const& address, Info const& interface) {
        return std::count_if(
            interface.addresses.begin(), interface.addresses.end(),
            [&](AddrInfo const& known) { return known.address == address.address; });
    }
};

bool swallow(std::GlobalErrorHandler::Event const& event, void*) {
    fuzz::check(strcmp(event.expression, "name") == 0, "nothing but a missing name is asserted");
    return true;
}

} // namespace

extern "C" {

int socket(int, int, int) {
    ++s_input->open_sockets;
    return SOCKET;
}

int bind(int, sockaddr const*, socklen_t) {
    return 0;
}

ssize_t sendmsg(int fd, msghdr const* message, int) {
    fuzz::check(fd == SOCKET, "it asks its socket");
    return static_cast<ssize_t>(message->msg_iov->iov_len);
}

ssize_t send(int fd, void const*, size_t size, int) {
    fuzz::check(fd == SOCKET && s_input->open_sockets == 1, "it wakes its socket");
    return static_cast<ssize_t>(size);
}

int close(int fd) {
    if (fd == SOCKET) {
        --s_input->open_sockets;
        return 0;
    }
    return static_cast<int>(syscall(SYS_close, fd));
}

// The monitor pauses after repeated failures. The pause would only slow down the fuzzer.
int nanosleep(timespec const*, timespec*) {
    return 0;
}

ssize_t recvmsg(int, msghdr* message, int flags) {
    if ((flags & MSG_DONTWAIT) != 0) {
        errno = EAGAIN; // Makes the monitor repeat its request for everything.
        return -1;
    }
    void* const buffer = message->msg_iov->iov_base;
    size_t const room = message->msg_iov->iov_len;
    ASAN_UNPOISON_MEMORY_REGION(buffer, room);
    if (s_input->size < 2) {
        s_input->monitor->stopWatching();
        errno = EINTR;
        return -1;
    }
    size_t const told = static_cast<size_t>(s_input->data[0]) | static_cast<size_t>(s_input->data[1]) << 8;
    s_input->data += 2;
    s_input->size -= 2;
    size_t const size = std::min(told, s_input->size);
    size_t const received = std::min(size, room);
    memcpy(buffer, s_input->data, received);
    s_input->data += size;
    s_input->size -= size;
    // A read beyond the end of the datagram must be detected.
    ASAN_POISON_MEMORY_REGION(static_cast<char*>(buffer) + received, room - received);
    return static_cast<ssize_t>(received);
}
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static std::GlobalErrorHandler::Hook const s_hook{swallow, nullptr};
    std::GlobalErrorHandler::setHook(&s_hook);

    Listener listener;
    NetDeviceMonitor monitor(&listener);
    Input input{&monitor, data, size, 0};
    s_input = &input;
    bool const failed = monitor.watch();
    std::ErrorStorage::ack();
    fuzz::check(input.open_sockets == 0, "the socket is closed");
    fuzz::check(input.size < 2, "all datagrams are taken");
    // Only an empty datagram is a failure.
    bool empty = false;
    for (size_t at = 0; at + 2 <= size;) {
        size_t const length = static_cast<size_t>(data[at]) | static_cast<size_t>(data[at + 1]) << 8;
        empty = empty || length == 0 || at + 2 == size;
        at += 2 + length;
    }
    fuzz::check(failed == empty, "no message makes it fail");
    return 0;
}
