#include <vesk/NetworkAddress.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>

namespace vesk {

namespace {

static_assert(sizeof(NetworkAddressBase::Type) == 4);
static_assert(AF_UNSPEC == 0, "the family that stands for a link");

constexpr char DIGITS[] = "0123456789abcdef";

/// Takes up to `width` bits off `length`, and returns them as the leading bits of a value of `width` bits.
unsigned int takeBits(unsigned int& length, unsigned int width) noexcept {
    unsigned int const count = std::min(length, width);
    length -= count;
    return ((1U << width) - 1) << (width - count) & ((1U << width) - 1);
}

std::string getMaskIPv4(unsigned int length) {
    std::string text;
    for (int octet = 0; octet < 4; ++octet) {
        text += octet == 0 ? "" : ".";
        text += std::to_string(takeBits(length, 8));
    }
    return text;
}

std::string getMaskIPv6(unsigned int length) {
    std::string text;
    for (int group = 0; group < 8; ++group) {
        text += group == 0 ? "" : ":";
        unsigned int const bits = takeBits(length, 16);
        for (int shift = 12; shift >= 0; shift -= 4) {
            text += DIGITS[bits >> shift & 15];
        }
    }
    return text;
}

std::string getLinkText(unsigned char const* bytes) {
    constexpr size_t SIZE = 6;
    std::string text;
    for (size_t i = 0; i < SIZE; ++i) {
        text += i == 0 ? "" : ":";
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 15];
    }
    return text;
}

} // namespace

// Not constant-initialized: even a short std::string has no constant initializer. Before the program's own static
// objects, also in a static library.
__attribute__((init_priority(101))) NetworkAddressBase const NetworkAddressBase::ANY_IPv4(IPV4, "0.0.0.0");
__attribute__((init_priority(101))) NetworkAddressBase const NetworkAddressBase::ANY_IPv6(IPV6, "::");

bool NetworkAddressBase::set_prefix(Type type, unsigned int length) {
    switch (type) {
    case IPV4:
        m_text = getMaskIPv4(length);
        break;
    case IPV6:
        m_text = getMaskIPv6(length);
        break;
    default:
        m_type = NONE;
        m_text.clear();
        return true;
    }
    m_type = type;
    return false;
}

bool NetworkAddress::set(int family, void const* data) {
    if (data == nullptr) {
        return true;
    }
    m_text.clear();
    char buffer[INET6_ADDRSTRLEN];
    static_assert(sizeof buffer == 46);
    switch (family) {
    case AF_INET:
        m_type = IPV4;
        m_text = inet_ntop(AF_INET, data, buffer, sizeof buffer);
        return false;
    case AF_INET6:
        m_type = IPV6;
        m_text = inet_ntop(AF_INET6, data, buffer, sizeof buffer);
        return false;
    case AF_UNSPEC:
        m_type = LINK;
        m_text = getLinkText(static_cast<unsigned char const*>(data));
        return false;
    default:
        m_type = NONE;
        return true;
    }
}

} // namespace vesk
