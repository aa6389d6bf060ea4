#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>

/// Builds messages of the kernel, also such as it would never send.
namespace support {

/// A value as the bytes that it has in memory.
template <typename Value>
std::string bytesOf(Value const& value) {
    return std::string(reinterpret_cast<char const*>(&value), sizeof value);
}

inline std::string padded(std::string bytes) {
    bytes.resize(NLMSG_ALIGN(bytes.size()));
    return bytes;
}

/// One message. Its length follows what is added, unless it is set at the end.
class Message {
public:
    explicit Message(uint16_t type, std::string const& payload = "") {
        nlmsghdr header{};
        header.nlmsg_type = type;
        m_bytes = bytesOf(header) + payload;
        setLength(static_cast<uint32_t>(m_bytes.size()));
    }

    /// Adds an attribute.
    /// @param length  what its head says, if that is not to be true
    Message& add(uint16_t type, std::string const& data, int length = -1) {
        rtattr attribute{};
        attribute.rta_len = static_cast<unsigned short>(length >= 0 ? length : int(RTA_LENGTH(data.size())));
        attribute.rta_type = type;
        m_bytes = padded(m_bytes) + bytesOf(attribute) + data;
        return setLength(static_cast<uint32_t>(m_bytes.size()));
    }

    Message& setLength(uint32_t length) {
        memcpy(m_bytes.data(), &length, sizeof length);
        return *this;
    }

    Message& setFlags(uint16_t flags) {
        memcpy(m_bytes.data() + offsetof(nlmsghdr, nlmsg_flags), &flags, sizeof flags);
        return *this;
    }

    Message& setSequence(uint32_t sequence) {
        memcpy(m_bytes.data() + offsetof(nlmsghdr, nlmsg_seq), &sequence, sizeof sequence);
        return *this;
    }

    /// Up to its last byte, without padding.
    std::string const& get() const { return m_bytes; }
    operator std::string const&() const { return m_bytes; }

    /// The beginning of it, with a length that says so.
    std::string getCut(size_t size) const {
        Message cut = *this;
        cut.m_bytes.resize(size);
        if (size >= sizeof(uint32_t)) {
            cut.setLength(static_cast<uint32_t>(size));
        }
        return cut.m_bytes;
    }

private:
    std::string m_bytes;
};

inline Message linkMessage(uint16_t type, int index, unsigned int flags = 0) {
    ifinfomsg info{};
    info.ifi_index = index;
    info.ifi_flags = flags;
    return Message(type, bytesOf(info));
}

inline Message
addressMessage(uint16_t type, int family, unsigned int prefix, unsigned int index, unsigned int flags = 0) {
    ifaddrmsg info{};
    info.ifa_family = static_cast<unsigned char>(family);
    info.ifa_prefixlen = static_cast<unsigned char>(prefix);
    info.ifa_flags = static_cast<unsigned char>(flags);
    info.ifa_index = index;
    return Message(type, bytesOf(info));
}

inline Message doneMessage() {
    return Message(NLMSG_DONE, bytesOf(0));
}

/// Messages behind each other, the last one without padding.
inline std::string datagramOf(std::initializer_list<std::string> messages) {
    std::string datagram;
    for (std::string const& message : messages) {
        datagram = padded(datagram) + message;
    }
    return datagram;
}

} // namespace support
