#include "NetDeviceMonitorImpl.h"

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/sockets/SocketPosixCommon.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/UniqueFd.h>

#include <vesk/Socket.h>
#include <vesk/SysError.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstddef>
#include <cstring>
#include <ctime>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <new>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>
#include <type_traits>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/NetDeviceMonitorImpl";

constexpr ErrnoRow SOCKET_ERRORS[] = {
    {OTHERS, Socket::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow BIND_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow REQUEST_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

// EINTR and ENOBUFS have no rows of their own on purpose. EAGAIN occurs only with MSG_DONTWAIT, and is
// handled before the table.
constexpr ErrnoRow RECEIVE_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr unsigned int GROUPS = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
static_assert(GROUPS == 0x111);
static_assert(NLM_F_DUMP == 0x300 && NLM_F_REQUEST == 1 && NLM_F_ACK == 4);
static_assert(sizeof(sockaddr_nl) == 12 && sizeof(nlmsghdr) == 16 && sizeof(rtattr) == 4);
static_assert(alignof(nlmsghdr) == alignof(uint32_t));
static_assert(sizeof(ifinfomsg) == 16 && sizeof(ifaddrmsg) == 8);

constexpr timespec WAKERS_TIME{0, 100000};
constexpr timespec PAUSE_AFTER_FAILURES{0, 100000000};

constexpr unsigned char OPERATIONAL = 6; // IF_OPER_UP, from a header that conflicts with <net/if.h>.

// ---- Decoding ----

/// A part of a datagram. Never reads outside of it.
class Bytes {
public:
    Bytes() noexcept = default;
    Bytes(unsigned char const* data, size_t size) noexcept : m_data(data), m_size(size) {}

    unsigned char const* get() const noexcept { return m_data; }
    size_t getSize() const noexcept { return m_size; }

    Bytes getFirst(size_t size) const noexcept { return {m_data, size}; }
    Bytes getRest(size_t offset) const noexcept {
        return offset <= m_size ? Bytes(m_data + offset, m_size - offset) : Bytes();
    }

    /// Reads a value at an offset.
    /// @return false if it is not completely inside
    template <typename Value>
    bool read(size_t offset, Value& value) const noexcept {
        static_assert(std::is_trivially_copyable_v<Value>);
        if (offset > m_size || m_size - offset < sizeof value) {
            return false;
        }
        memcpy(&value, m_data + offset, sizeof value);
        return true;
    }

private:
    unsigned char const* m_data = nullptr;
    size_t m_size = 0;
};

/// For messages and attributes: the length marks the end of an element, and the next element starts aligned.
template <typename Header>
size_t getLength(Header const& header) noexcept;
template <>
size_t getLength(nlmsghdr const& header) noexcept {
    return header.nlmsg_len;
}
template <>
size_t getLength(rtattr const& header) noexcept {
    return header.rta_len;
}

/// Iterates over the messages of a datagram, or over the attributes of a message, up to the first incomplete
/// element.
template <typename Header>
class Walk {
public:
    explicit Walk(Bytes bytes) noexcept : m_rest(bytes) {}

    bool next() noexcept {
        if (!m_rest.read(0, m_header)) {
            return false;
        }
        size_t const length = getLength(m_header);
        if (length < sizeof(Header) || length > m_rest.getSize()) {
            return false;
        }
        m_all = m_rest.getFirst(length);
        m_rest = m_rest.getRest(NLMSG_ALIGN(length));
        return true;
    }

    Header const& getHeader() const noexcept { return m_header; }

    /// Returns the whole element, header included.
    Bytes getAll() const noexcept { return m_all; }

    Bytes getData() const noexcept { return m_all.getRest(sizeof(Header)); }

private:
    Bytes m_rest;
    Header m_header{};
    Bytes m_all;
};
static_assert(NLMSG_ALIGNTO == RTA_ALIGNTO);

using Messages = Walk<nlmsghdr>;
using Attributes = Walk<rtattr>;

constexpr size_t LINK_ADDRESS_SIZE = 6;

/// Returns the bytes of an address, null if they are too few.
void const* getAddress(Bytes data, int family) noexcept {
    size_t const size = family == AF_INET ? 4 : family == AF_INET6 ? 16 : LINK_ADDRESS_SIZE;
    return data.getSize() < size ? nullptr : data.get();
}

/// Returns the text up to the terminating zero, or all of it without a zero.
std::string getText(Bytes data) {
    char const* const text = reinterpret_cast<char const*>(data.get());
    return std::string(text, strnlen(text, data.getSize()));
}

using Snapshot = NetDeviceMonitorImpl::Snapshot;

/// The attributes of a message about an interface that the monitor uses.
struct LinkAttributes {
    void const* hardware_address = nullptr; // Null: none, or an address of another kind.
    Bytes name;
    bool has_name = false;
    int mtu = 0;
    unsigned char state = 0;
};

LinkAttributes readAttributes(Bytes attributes) noexcept {
    LinkAttributes result;
    for (Attributes walk(attributes); walk.next();) {
        Bytes const data = walk.getData();
        switch (walk.getHeader().rta_type) {
        case IFLA_ADDRESS:
            if (void const* const address = getAddress(data, AF_UNSPEC)) {
                result.hardware_address = address;
            }
            break;
        case IFLA_IFNAME:
            result.name = data;
            result.has_name = true;
            break;
        case IFLA_MTU:
            data.read(0, result.mtu);
            break;
        case IFLA_OPERSTATE:
            data.read(0, result.state);
            break;
        default:
            break;
        }
    }
    return result;
}

void reportLink(
    NetDeviceMonitor& monitor, Snapshot& snapshot, ifinfomsg const& info, LinkAttributes const& attributes) {
    auto const index = static_cast<unsigned short>(info.ifi_index);
    NetworkInterface::AddrInfo link;
    bool const has_link = !link.address.set(AF_UNSPEC, attributes.hardware_address);
    snapshot.addLink(index, has_link ? &link : nullptr);
    monitor.interface_appeared(index, getText(attributes.name).c_str());
    // Whether the interface is switched on (IFF_UP) is ignored.
    monitor.interface_up(
        index, (info.ifi_flags & IFF_BROADCAST) != 0, (info.ifi_flags & IFF_POINTOPOINT) != 0,
        (info.ifi_flags & IFF_LOOPBACK) != 0, attributes.mtu, attributes.state == OPERATIONAL, true);
    if (has_link) {
        monitor.address_appeared(index, link);
    }
}

void handleIfInfo(NetDeviceMonitor& monitor, Snapshot& snapshot, uint16_t type, Bytes message) {
    ifinfomsg info{};
    if (!message.read(sizeof(nlmsghdr), info)) {
        return;
    }
    LinkAttributes const attributes = readAttributes(message.getRest(NLMSG_LENGTH(sizeof info)));
    if (type == RTM_DELLINK) {
        snapshot.removeLink(info.ifi_index);
        monitor.interface_disappeared(info.ifi_index);
        return;
    }
    std::GlobalErrorHandler::doAssert(attributes.has_name, "name", SOURCE, __LINE__, "handleIfInfo", nullptr);
    if (attributes.has_name) {
        reportLink(monitor, snapshot, info, attributes);
    }
}

NetworkInterface::AddrInfo readAddress(ifaddrmsg const& info, Bytes attributes) {
    // The length of the first attribute has this bit set for an IPv6 address, but not for an IPv4 address. So an
    // IPv6 address without another end becomes the peer.
    constexpr unsigned short PEER_BIT = 0x10;
    rtattr first{};
    attributes.read(0, first);

    NetworkInterface::AddrInfo address;
    static_cast<void>(address.netmask.set_prefix(
        info.ifa_family == AF_INET ? NetworkAddress::IPV4 : NetworkAddress::IPV6, info.ifa_prefixlen));
    for (Attributes walk(attributes); walk.next();) {
        void const* const data = getAddress(walk.getData(), info.ifa_family);
        switch (walk.getHeader().rta_type) {
        case IFA_LOCAL:
            static_cast<void>(address.address.set(info.ifa_family, data));
            break;
        case IFA_BROADCAST:
            static_cast<void>(address.peer.set(info.ifa_family, data));
            break;
        case IFA_ADDRESS:
            static_cast<void>(((first.rta_len & PEER_BIT) != 0 ? address.peer : address.address)
                                  .set(info.ifa_family, data));
            break;
        default:
            break;
        }
    }
    return address;
}

void handleIfAddr(NetDeviceMonitor& monitor, Snapshot& snapshot, uint16_t type, Bytes message) {
    ifaddrmsg info{};
    if (!message.read(sizeof(nlmsghdr), info)) {
        return;
    }
    if (info.ifa_family != AF_INET && info.ifa_family != AF_INET6) {
        return;
    }
    if ((info.ifa_flags & IFA_F_TENTATIVE) != 0) {
        return;
    }
    NetworkInterface::AddrInfo const address = readAddress(info, message.getRest(NLMSG_LENGTH(sizeof info)));
    auto const index = static_cast<unsigned short>(info.ifa_index);
    if (type == RTM_NEWADDR) {
        snapshot.addAddress(index, address);
        monitor.address_appeared(index, address);
    } else {
        snapshot.removeAddress(index, address);
        monitor.address_disappeared(index, address);
    }
}

/// Decodes a datagram and passes its content to the monitor.
/// @return true at the end of a dump; messages after it are ignored
bool handleDatagram(NetDeviceMonitor& monitor, Snapshot& snapshot, Bytes datagram) {
    for (Messages walk(datagram); walk.next();) {
        nlmsghdr const& header = walk.getHeader();
        if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            snapshot.is_torn = true;
        }
        switch (header.nlmsg_type) {
        case NLMSG_DONE:
            // The dump of an earlier request may still be running; its end does not end the current request.
            if (header.nlmsg_seq == 0 || header.nlmsg_seq >= snapshot.sequence) {
                return true;
            }
            break;
        case RTM_NEWLINK:
        case RTM_DELLINK:
            handleIfInfo(monitor, snapshot, header.nlmsg_type, walk.getAll());
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            handleIfAddr(monitor, snapshot, header.nlmsg_type, walk.getAll());
            break;
        default:
            break;
        }
    }
    return false;
}

// ---- Requests ----

/// Requests all entries of a kind from the kernel.
/// @return true on failure
bool request(int fd, uint16_t type, uint32_t sequence) {
    struct {
        nlmsghdr header;
        rtgenmsg generator;
    } message{};
    message.header.nlmsg_len = NLMSG_LENGTH(sizeof message.generator);
    message.header.nlmsg_type = type;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.header.nlmsg_seq = sequence;
    message.generator.rtgen_family = AF_UNSPEC;

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    iovec piece{&message, message.header.nlmsg_len};
    msghdr envelope{};
    envelope.msg_name = &kernel;
    envelope.msg_namelen = sizeof kernel;
    envelope.msg_iov = &piece;
    envelope.msg_iovlen = 1;
    if (sendmsg(fd, &envelope, MSG_EOR) == -1) {
        classify(SOURCE, REQUEST_ERRORS, errno);
        return true;
    }
    return false;
}

} // namespace

// ---- The snapshot ----

/// An interface has a single link address: a later one replaces an earlier one. A message without a link
/// address, as wireless drivers send it, does not change it.
void NetDeviceMonitorImpl::Snapshot::addLink(unsigned short index, AddrInfo const* link) {
    if (!is_noting) {
        return;
    }
    std::list<AddrInfo>& addresses = there[index];
    if (link != nullptr) {
        addresses.remove_if(
            [](AddrInfo const& known) { return known.address.getType() == NetworkAddress::LINK; });
        addresses.push_back(*link);
    }
}

void NetDeviceMonitorImpl::Snapshot::removeLink(int index) {
    there.erase(static_cast<uint32_t>(index));
}

void NetDeviceMonitorImpl::Snapshot::addAddress(unsigned short index, AddrInfo const& address) {
    if (is_noting) {
        there[index].push_back(address);
    }
}

void NetDeviceMonitorImpl::Snapshot::removeAddress(unsigned short index, AddrInfo const& address) {
    auto const found = there.find(index);
    if (found != there.end()) {
        found->second.remove_if([&address](AddrInfo const& known) {
            return known.address == address.address && known.netmask == address.netmask &&
                known.peer == address.peer;
        });
    }
}

/// The netlink socket of a `watch`, closed on every exit.
class NetDeviceMonitorImpl::Subscription : private tarnbase::NonCopyable {
public:
    explicit Subscription(NetDeviceMonitorImpl& impl) noexcept
        : m_impl(impl), m_socket(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE)) {}

    // Closed only here, and only when no thread uses the descriptor to wake this one: its number may later
    // belong to another file.
    ~Subscription() {
        CancellationOff const cancellation_off;
        m_impl.m_socket = -1;
        while (m_impl.m_wakers != 0) {
            // Sleeps, since the other thread may have a lower priority.
            nanosleep(&WAKERS_TIME, nullptr);
        }
        m_socket.close();
    }

    int get() const noexcept { return m_socket.get(); }

private:
    NetDeviceMonitorImpl& m_impl;
    UniqueFd m_socket;
};

bool NetDeviceMonitorImpl::watch() {
    Subscription const subscription(*this);
    int const fd = subscription.get();
    if (fd == -1) {
        classify(SOURCE, SOCKET_ERRORS, errno);
        return true;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = GROUPS;
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == -1) {
        classify(SOURCE, BIND_ERRORS, errno);
        return true;
    }
    m_snapshot.sequence = 0;
    m_failures = 0;
    bool failed = false;
    if (synchronise(fd, failed)) {
        return true;
    }
    while (!isStopped()) {
        if (!m_has_lost) {
            failed |= receive(fd);
            continue;
        }
        failed |= drain(fd);
        if (!isStopped() && synchronise(fd, failed)) {
            return true;
        }
    }
    return failed;
}

/// Requests all interfaces and all addresses, passes on the answers, and then reports the removed entries.
/// @return true if a request failed
bool NetDeviceMonitorImpl::synchronise(int fd, bool& failed) {
    m_has_lost = false;
    // An empty table has no entries to remove.
    m_snapshot.begin(!m_monitor->m_interfaces.empty());
    for (uint16_t const type : {RTM_GETLINK, RTM_GETADDR}) {
        if (request(fd, type, m_snapshot.sequence)) {
            return true;
        }
        failed |= receive(fd);
    }
    m_snapshot.is_active = false;
    m_has_lost |= m_snapshot.is_torn;
    // An incomplete answer may lack existing entries.
    if (m_snapshot.is_noting && !m_has_lost && !m_snapshot.is_cut && !isStopped()) {
        m_monitor->forgetAllBut(m_snapshot.there);
    }
    m_snapshot.end();
    return false;
}

/// Both accesses to the stop word are full barriers: a thread that sets it sees the socket of a watching
/// thread that has not yet seen it set.
bool NetDeviceMonitorImpl::isStopped() noexcept {
    return m_stop.fetch_add(0) != 0;
}

/// Receives datagrams up to the end of a dump, a failure or the stop.
/// @return true on failure
bool NetDeviceMonitorImpl::receive(int fd) {
    m_socket = fd;
    for (;;) {
        Buffer buffer;
        Taken const taken = take(fd, 0, buffer);
        if (taken != Taken::DATAGRAM) {
            return taken == Taken::FAILURE;
        }
    }
}

/// Receives datagrams until none is queued, or up to the stop.
/// @return true if there was a failure in between
bool NetDeviceMonitorImpl::drain(int fd) {
    bool failed = false;
    for (;;) {
        Buffer buffer;
        switch (take(fd, MSG_DONTWAIT, buffer)) {
        case Taken::NOTHING:
        case Taken::STOP:
            return failed;
        case Taken::FAILURE:
            failed = true;
            break;
        case Taken::DATAGRAM:
        case Taken::END_OF_DUMP:
            break;
        }
    }
}

/// Receives a single datagram, and passes on its content.
NetDeviceMonitorImpl::Taken NetDeviceMonitorImpl::take(int fd, int flags, Buffer& buffer) {
    if (m_failures > 1) {
        // A socket that fails permanently must not use the whole processor.
        nanosleep(&PAUSE_AFTER_FAILURES, nullptr);
    }
    sockaddr_nl sender{};
    iovec piece{buffer.bytes, sizeof buffer.bytes};
    msghdr envelope{};
    envelope.msg_name = &sender;
    envelope.msg_namelen = sizeof sender;
    envelope.msg_iov = &piece;
    envelope.msg_iovlen = 1;
    ssize_t const size = recvmsg(fd, &envelope, flags);
    if (size == -1 || size == 0) {
        int const error = errno;
        if (isStopped()) {
            return Taken::STOP;
        }
        if (size == -1 && error == EAGAIN && (flags & MSG_DONTWAIT) != 0) {
            m_failures = 0;
            return Taken::NOTHING;
        }
        classify(SOURCE, RECEIVE_ERRORS, error);
        m_has_lost |= error == ENOBUFS || m_snapshot.is_active;
        m_failures += error == EINTR && size == -1 ? 0 : 1;
        return Taken::FAILURE;
    }
    m_failures = 0;
    m_snapshot.is_cut |= (envelope.msg_flags & MSG_TRUNC) != 0;
    if (handleDatagram(*m_monitor, m_snapshot, Bytes(buffer.bytes, static_cast<size_t>(size)))) {
        return Taken::END_OF_DUMP;
    }
    return isStopped() ? Taken::STOP : Taken::DATAGRAM;
}

void NetDeviceMonitorImpl::stopWatching() noexcept {
    CancellationOff const cancellation_off;
    m_stop.exchange(1);
    // From here to the end of this function the watching thread does not close the socket.
    ++m_wakers;
    int const fd = m_socket;
    if (fd != -1) {
        // An empty request: it has no effect, but the kernel's answer ends the blocking receive.
        nlmsghdr message{};
        message.nlmsg_len = sizeof message;
        message.nlmsg_flags = NLM_F_ACK;
        send(fd, &message, sizeof message, 0);
    }
    --m_wakers;
}

// ---- The side of the monitor ----

NetDeviceMonitorImpl* NetDeviceMonitor::makeImpl() noexcept {
    return new (std::nothrow) NetDeviceMonitorImpl(*this);
}

void NetDeviceMonitor::deleteImpl() noexcept {
    delete m_impl;
}

bool NetDeviceMonitor::runImpl() {
    return m_impl->watch();
}

void NetDeviceMonitor::stopImpl() noexcept {
    m_impl->stopWatching();
}

} // namespace vesk
