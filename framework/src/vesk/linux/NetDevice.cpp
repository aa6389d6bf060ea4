#include <vesk/NetDevice.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/error/CommonError.h>

#include <cstring>
#include <memory>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/NetDevice";

static_assert(ARPHRD_ETHER == 1 && IFNAMSIZ == 16);
static_assert(sizeof ifreq::ifr_hwaddr.sa_data >= sizeof NetDevice::InterfaceInfo::hardware_address);
static_assert(sizeof ifreq::ifr_addr == sizeof(sockaddr_in));

constexpr ErrnoRow READ_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow READ_ADDRESS_ERRORS[] = {
    // An interface has no address until one is set.
    {{EADDRNOTAVAIL}, NONE, NONE, Outcome::DONE},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CHANGE_ERRORS[] = {
    {{EPERM, EACCES}, SysErrorId::PERMISSION_DENIED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// Returns whether a call has failed, after a report.
bool hasFailed(Place place, ErrnoTable table, int result) noexcept {
    return result != 0 && classify(place, table, errno) != Outcome::DONE;
}

/// Evaluates a query for an address; an interface without an address is not a failure. Returns true on
/// failure.
bool takeAddress(Place place, int result, ifreq const& answer, bool& has, IPSocket::IPAddress& address) {
    has = result == 0;
    if (!has) {
        return hasFailed(place, READ_ADDRESS_ERRORS, result);
    }
    sockaddr_in binary;
    memcpy(&binary, &answer.ifr_addr, sizeof binary);
    address = IPSocket::IPAddress(binary);
    return false;
}

void takeFlags(ifreq const& answer, NetDevice::InterfaceInfo& info) noexcept {
    info.flags = static_cast<uint16_t>(answer.ifr_flags); // A `short` at the start of its word.
    info.up = (info.flags & IFF_UP) != 0;
    info.running = (info.flags & IFF_RUNNING) != 0;
    info.promiscuous = (info.flags & IFF_PROMISC) != 0;
    info.multicast = (info.flags & IFF_MULTICAST) != 0;
    info.broadcast = (info.flags & IFF_BROADCAST) != 0;
    if ((info.flags & IFF_POINTOPOINT) != 0) {
        info.type = NetDevice::InterfaceInfo::POINT_TO_POINT;
    } else if ((info.flags & IFF_LOOPBACK) != 0) {
        info.type = NetDevice::InterfaceInfo::LOOPBACK;
    }
}

void takeHardwareAddress(ifreq const& answer, NetDevice::InterfaceInfo& info) noexcept {
    info.has_hardware_address = answer.ifr_hwaddr.sa_family == ARPHRD_ETHER;
    if (info.has_hardware_address) {
        memcpy(info.hardware_address, answer.ifr_hwaddr.sa_data, sizeof info.hardware_address);
    }
}

void prepare(ifreq& request, struct if_nameindex const& row) noexcept {
    // Clear the whole request: the name must end with a zero.
    request = ifreq{};
    strncpy(request.ifr_name, row.if_name, IFNAMSIZ - 1);
}

/// Creates a list of a single interface, with each member in an array of its own; null without memory.
struct if_nameindex* makeList(unsigned int index, char const* name) noexcept {
    std::unique_ptr<struct if_nameindex[]> rows(new (std::nothrow) struct if_nameindex[2]());
    std::unique_ptr<char[]> copy(new (std::nothrow) char[IFNAMSIZ + 1]());
    if (rows == nullptr || copy == nullptr) {
        return nullptr;
    }
    strncpy(copy.get(), name, IFNAMSIZ);
    rows[0].if_index = index;
    rows[0].if_name = copy.release();
    return rows.release();
}

bool isNumeric(char const* text) noexcept {
    CancellationOff const cancellation_off;
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(text, nullptr, &hints, &list) != 0) {
        return false;
    }
    freeaddrinfo(list);
    return true;
}

/// Replaces a host name by its first address. Returns true on failure.
bool resolve(IPSocket::IPAddress& address) {
    IPSocket::IPResolver resolver;
    int const count = resolver.resolveName(address.host.c_str(), IPSocket::IPV4);
    if (count == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname");
    }
    if (count <= 0) {
        return true;
    }
    address.host = resolver.getItem(0);
    return false;
}

} // namespace

NetDevice::NetDevice(char const* name) {
    m_control = UniqueFd(socket(AF_INET, SOCK_DGRAM, 0));
    if (!m_control.isOpen()) {
        report(SOURCE, Chain::NEW, SysErrorId::UNCLASSIFIED, SystemErrorText().get());
        return;
    }
    if (open(name)) {
        m_control.close();
        m_single = true;
    }
}

NetDevice::~NetDevice() {
    CancellationOff const cancellation_off;
    releaseList();
}

/// Creates the list. Returns true on failure.
bool NetDevice::open(char const* name) {
    m_single = name != nullptr;
    if (!m_single) {
        m_list = if_nameindex();
        if (m_list == nullptr) {
            report(SOURCE, Chain::NEW, SysErrorId::OUT_OF_MEMORY, SystemErrorText().get());
        }
        return m_list == nullptr;
    }
    unsigned int const index = if_nametoindex(name);
    if (index == 0) {
        report(SOURCE, Chain::NEW, SysErrorId::NO_DEVICE, SystemErrorText().get());
        return true;
    }
    m_list = makeList(index, name);
    if (m_list == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::OUT_OF_MEMORY);
    }
    return m_list == nullptr;
}

void NetDevice::releaseList() noexcept {
    if (m_list == nullptr) {
        return;
    }
    if (!m_single) {
        if_freenameindex(m_list);
        return;
    }
    delete[] m_list[0].if_name;
    delete[] m_list;
}

/// Returns whether the construction failed, after a report.
bool NetDevice::isInvalid() const {
    if (isValid()) {
        return false;
    }
    report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "invalid object");
    return true;
}

/// Moves to the next row. Returns false at the end of the list, where it stays.
bool NetDevice::advance() noexcept {
    if (m_position < 0 || m_list[m_position].if_index != 0) {
        ++m_position;
    }
    return m_list[m_position].if_index != 0;
}

/// Prepares a request for the interface at the cursor. Returns true on failure.
bool NetDevice::selectCurrent(ifreq& request) {
    if (m_position < 0) {
        m_position = 0;
    }
    if (m_list[m_position].if_index == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "no current interface");
        return true;
    }
    prepare(request, m_list[m_position]);
    return false;
}

int NetDevice::getNextInfo(InterfaceInfo& info) {
    if (isValid() && !advance()) {
        return 1;
    }
    info = InterfaceInfo();
    if (isInvalid()) {
        return -1;
    }
    ifreq request;
    prepare(request, m_list[m_position]);
    if (hasFailed(SOURCE, READ_ERRORS, ioctl(m_control.get(), SIOCGIFFLAGS, &request))) {
        return -1;
    }
    takeFlags(request, info);
    info.name = request.ifr_name;

    if (hasFailed(SOURCE, READ_ERRORS, ioctl(m_control.get(), SIOCGIFMTU, &request))) {
        return -1;
    }
    info.mtu = request.ifr_mtu;

    if (hasFailed(SOURCE, READ_ERRORS, ioctl(m_control.get(), SIOCGIFHWADDR, &request))) {
        return -1;
    }
    takeHardwareAddress(request, info);

    int result = ioctl(m_control.get(), SIOCGIFADDR, &request);
    if (takeAddress(SOURCE, result, request, info.has_address, info.address)) {
        return -1;
    }
    result = ioctl(m_control.get(), SIOCGIFNETMASK, &request);
    if (takeAddress(SOURCE, result, request, info.has_netmask, info.netmask)) {
        return -1;
    }
    if (!info.broadcast) {
        return 0;
    }
    result = ioctl(m_control.get(), SIOCGIFBRDADDR, &request);
    return takeAddress(SOURCE, result, request, info.has_broadcast_address, info.broadcast_address) ? -1 : 0;
}

/// Prepares the request for a new address of the interface at the cursor. Returns true on failure.
bool NetDevice::prepareAddress(char const* text, ifreq& request) {
    if (isInvalid()) {
        return true;
    }
    IPSocket::IPAddress address(text != nullptr ? text : "", 0);
    // An empty text is not a name: it is the any address.
    if (!address.host.empty() && !isNumeric(text) && resolve(address)) {
        return true;
    }
    sockaddr_in binary;
    if (selectCurrent(request) || address.getBinary(binary)) {
        return true;
    }
    memcpy(&request.ifr_addr, &binary, sizeof binary);
    return false;
}

bool NetDevice::setAddress(char const* address) {
    ifreq request;
    return prepareAddress(address, request) ||
        hasFailed(SOURCE, CHANGE_ERRORS, ioctl(m_control.get(), SIOCSIFADDR, &request));
}

bool NetDevice::setNetmask(char const* netmask) {
    ifreq request;
    return prepareAddress(netmask, request) ||
        hasFailed(SOURCE, CHANGE_ERRORS, ioctl(m_control.get(), SIOCSIFNETMASK, &request));
}

bool NetDevice::changeFlag(int flag, bool on) {
    ifreq request;
    if (isInvalid() || selectCurrent(request) ||
        hasFailed(SOURCE, CHANGE_ERRORS, ioctl(m_control.get(), SIOCGIFFLAGS, &request))) {
        return true;
    }
    request.ifr_flags = static_cast<short>(on ? request.ifr_flags | flag : request.ifr_flags & ~flag);
    return hasFailed(SOURCE, CHANGE_ERRORS, ioctl(m_control.get(), SIOCSIFFLAGS, &request));
}

bool NetDevice::setInterfaceStatus(bool up) {
    return changeFlag(IFF_UP, up);
}

bool NetDevice::setPromiscuous(bool on) {
    return changeFlag(IFF_PROMISC, on);
}

} // namespace vesk
