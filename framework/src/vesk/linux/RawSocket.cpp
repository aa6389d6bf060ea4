#include <vesk/RawSocket.h>

#include "vesk/posix/detail/CloseFd.h"
#include "vesk/posix/sockets/SocketPosixCommon.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <arpa/inet.h>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/RawSocket";

static_assert(IFNAMSIZ == 16 && sizeof(sockaddr_ll) == 20 && ETH_P_ALL == 3);

constexpr ErrnoRow CREATION_ERRORS[] = {
    {{EPERM}, SysErrorId::PERMISSION_DENIED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow DEVICE_ERRORS[] = {
    {{ENODEV}, SysErrorId::NO_DEVICE},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow BIND_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CLOSE_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// Limits a packet socket to a single device. Returns true, after a report, on failure.
bool bindToDevice(int fd, char const* device) {
    ifreq request{};
    strncpy(request.ifr_name, device, IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFINDEX, &request) == -1) {
        classify(SOURCE, DEVICE_ERRORS, errno);
        return true;
    }
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = request.ifr_ifindex;
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        classify(SOURCE, BIND_ERRORS, errno);
        return true;
    }
    return false;
}

} // namespace

RawSocket::RawSocket(bool blocking, unsigned int read_buffer, unsigned int write_buffer)
    : Socket(blocking, read_buffer, write_buffer) {}

RawSocket::~RawSocket() {
    CancellationOff const cancellation_off;
    if (m_object_valid && m_socket_state != DEAD) {
        std::GlobalErrorHandler::doAssert(
            m_socket_state != OPEN, "this->getState() != OPEN", SOURCE, __LINE__, "~RawSocket", nullptr);
        KeptErrorChain const kept_chain;
        if (close()) {
            std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~RawSocket", "error closing socket");
            std::ErrorStorage::ack();
        }
    }
    m_socket_state = DEAD;
}

bool RawSocket::open(char const* device) {
    m_had_error = false;
    if (!isValid()) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "open on invalid object");
        return fail();
    }
    if (m_socket_state != INACTIVE) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "open() called in state != INACTIVE");
        return fail();
    }
    // Not close-on-exec: programs that this process starts inherit the descriptor.
    m_socket_handle.socket_fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (m_socket_handle.socket_fd == -1) {
        classify(SOURCE, CREATION_ERRORS, errno);
        return fail();
    }
    if (device != nullptr && bindToDevice(m_socket_handle.socket_fd, device)) {
        closeKeepingChain(
            [this] { return close(); },
            [] { std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "open", "error closing socket"); });
        return fail();
    }
    m_socket_state = OPEN;
    return false;
}

bool RawSocket::close() {
    if (m_socket_handle.socket_fd == INVALID_SOCKET_FD) {
        return false;
    }
    m_had_error = false;
    // Not repeated when a signal interrupts it: the system has already released the descriptor then.
    int const result = closeFd(m_socket_handle.socket_fd);
    m_socket_handle.socket_fd = INVALID_SOCKET_FD;
    m_socket_state = DEAD;
    if (result == 0) {
        return false;
    }
    classify(SOURCE, CLOSE_ERRORS, errno);
    return fail();
}

} // namespace vesk
