#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

/// Builds messages of the kernel, including malformed ones that the kernel never sends.
namespace support {

/// Returns the bytes that a value has in memory.
template <typename Value>
std::string bytesOf(Value const& value) {
    return std::string(reinterpret_cast<char const*>(&value), sizeof value);
}

inline std::string padded(std::string bytes) {
    bytes.resize(NLMSG_ALIGN(bytes.size()));
    return bytes;
}

/// One message. Its length follows its content, until `setLength` is called.
class Message {
public:
    using Attribute = std::pair<uint16_t, std::string>;

    explicit Message(uint16_t type, std::string const& payload = "") {
        nlmsghdr header{};
        header.nlmsg_type = type;
        m_bytes = bytesOf(header) + payload;
        setLength(static_cast<uint32_t>(m_bytes.size()));
    }

    /// Adds an attribute.
    /// @param length  the length in its head, if that must be wrong
    Message& add(uint16_t type, std::string const& data, int length = -1) {
        rtattr attribute{};
        attribute.rta_len = static_cast<unsigned short>(length >= 0 ? length : int(RTA_LENGTH(data.size())));
        attribute.rta_type = type;
        m_bytes = padded(m_bytes) + bytesOf(attribute) + data;
        return setLength(static_cast<uint32_t>(m_bytes.size()));
    }

    Message& addAll(std::vector<Attribute> const& attributes) {
        for (auto const& [type, data] : attributes) {
            add(type, data);
        }
        return *this;
    }

    Message& setLength(uint32_t length) { return put(offsetof(nlmsghdr, nlmsg_len), length); }
    Message& setType(uint16_t type) { return put(offsetof(nlmsghdr, nlmsg_type), type); }
    Message& setFlags(uint16_t flags) { return put(offsetof(nlmsghdr, nlmsg_flags), flags); }
    Message& setSequence(uint32_t sequence) { return put(offsetof(nlmsghdr, nlmsg_seq), sequence); }

    /// Returns the message up to its last byte, without padding.
    std::string const& get() const { return m_bytes; }
    operator std::string const&() const { return m_bytes; }

    /// Returns the beginning of the message, with its own length if that is part of it.
    std::string getCut(size_t size) const {
        Message cut = *this;
        cut.m_bytes.resize(size);
        return size < sizeof(uint32_t) ? cut.m_bytes : cut.setLength(static_cast<uint32_t>(size)).m_bytes;
    }

private:
    template <typename Value>
    Message& put(size_t offset, Value value) {
        memcpy(m_bytes.data() + offset, &value, sizeof value);
        return *this;
    }

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

/// Returns a datagram of several messages, the last one without padding.
inline std::string datagramOf(std::initializer_list<std::string> messages) {
    std::string datagram;
    for (std::string const& message : messages) {
        datagram = padded(datagram) + message;
    }
    return datagram;
}

} // namespace support
