#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <string>
#include <utility>

namespace vesk {

/// An address or a netmask as text, with its type. A plain value.
///
///     vesk::NetworkAddressBase mask;
///     mask.set_prefix(vesk::NetworkAddressBase::IPV4, 20); // "255.255.240.0"
///
/// No operation blocks or reports. An operation that creates a text throws `std::bad_alloc` without memory.
class VESK_API NetworkAddressBase {
public:
    /// The type of an address.
    enum Type : uint32_t {
        NONE = 0, ///< No address; the text is empty.
        LINK = 1, ///< A link address, that is, a MAC address: "00:1a:2b:3c:4d:5e".
        IPV4 = 2, ///< "192.168.0.1"
        IPV6 = 3, ///< "fe80::1"; a netmask is not abbreviated: "ffff:ffff:ffff:ffff:0000:0000:0000:0000".
    };

    /// @{
    /// The any addresses "0.0.0.0" and "::". They are constructed when the library is loaded, before the
    /// initializers of anything that is linked to it. The initializers of the library itself must not use
    /// them.
    static NetworkAddressBase const ANY_IPv4;
    static NetworkAddressBase const ANY_IPv6;
    /// @}

    /// Creates an object without an address.
    NetworkAddressBase() = default;

    /// Stores type and text without a check.
    NetworkAddressBase(Type type, std::string text) : m_type(type), m_text(std::move(text)) {}

    /// Returns the family.
    Type getType() const noexcept { return m_type; }
    /// Returns the address as text, empty without one.
    std::string const& getText() const noexcept { return m_text; }

    /// Sets the netmask of a prefix.
    /// @param type    `IPV4`, or `IPV6`, which has eight groups of four digits each
    /// @param length  the number of leading bits that are set; bits beyond the family's 32 or 128 are ignored
    /// @return true for any other type, with no address left
    [[nodiscard]] bool set_prefix(Type type, unsigned int length);

protected:
    /// The family.
    Type m_type = NONE;
    /// The address as text.
    std::string m_text;
};

/// An address that can be set from the system's binary form.
class VESK_API NetworkAddress : public NetworkAddressBase {
public:
    using NetworkAddressBase::NetworkAddressBase;

    /// Sets the address at `data`, which need not be aligned.
    ///
    /// | family | bytes at `data` | type | text |
    /// |---|---|---|---|
    /// | `AF_INET` | 4 | `IPV4` | as of `inet_ntoa` |
    /// | `AF_INET6` | 16 | `IPV6` | as of `inet_ntop` |
    /// | 0 | 6 | `LINK` | six pairs of lower-case hexadecimal digits, separated by colons |
    ///
    /// @return true on failure: with nothing changed if `data` is null, with no address left for any other
    ///         family
    [[nodiscard]] bool set(int family, void const* data);
};

inline bool operator==(NetworkAddressBase const& left, NetworkAddressBase const& right) noexcept {
    return left.getType() == right.getType() && left.getText() == right.getText();
}
inline bool operator!=(NetworkAddressBase const& left, NetworkAddressBase const& right) noexcept {
    return !(left == right);
}

} // namespace vesk
