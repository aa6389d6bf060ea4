#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <string>
#include <utility>

namespace vesk {

/// An address or a netmask as text, with the kind of network that it belongs to. A plain value.
///
///     vesk::NetworkAddressBase mask;
///     mask.set_prefix(vesk::NetworkAddressBase::IPV4, 20); // "255.255.240.0"
///
/// No operation blocks or reports; only memory for a text may run out (`std::bad_alloc`).
class VESK_API NetworkAddressBase {
public:
    /// The kind of an address.
    enum Type : uint32_t {
        NONE = 0, ///< There is no address; its text is empty.
        LINK = 1, ///< Of a link, that is, a MAC address: "00:1a:2b:3c:4d:5e".
        IPV4 = 2, ///< "192.168.0.1"
        IPV6 = 3, ///< "fe80::1"; a netmask is written out: "ffff:ffff:ffff:ffff:0000:0000:0000:0000".
    };

    /// Every address of a family: "0.0.0.0" and "::". They are built when the library is loaded, before the initialisers of
    /// whatever is linked to it; what the library itself initialises may not depend on them.
    static NetworkAddressBase const ANY_IPv4;
    static NetworkAddressBase const ANY_IPv6;

    /// No address.
    NetworkAddressBase() = default;

    /// Takes kind and text as they are.
    NetworkAddressBase(Type type, std::string text) : m_type(type), m_text(std::move(text)) {}

    Type getType() const noexcept { return m_type; }
    std::string const& getText() const noexcept { return m_text; }

    /// Becomes the netmask of a prefix.
    /// @param type    `IPV4`, or `IPV6`, whose eight groups are written out in four digits each
    /// @param length  how many leading bits are set; those beyond the family's 32 or 128 do not count
    /// @return true, with no address left, for any other type
    bool set_prefix(Type type, unsigned int length);

protected:
    Type m_type = NONE;
    std::string m_text;
};

/// An address that can be taken from the system's binary form.
class VESK_API NetworkAddress : public NetworkAddressBase {
public:
    using NetworkAddressBase::NetworkAddressBase;

    /// Becomes the address at `data`, which need not be aligned.
    ///
    /// | family | bytes at `data` | type | text |
    /// |---|---|---|---|
    /// | `AF_INET` | 4 | `IPV4` | as of `inet_ntoa` |
    /// | `AF_INET6` | 16 | `IPV6` | as of `inet_ntop` |
    /// | 0 | 6 | `LINK` | six times two lower-case digits, with colons |
    ///
    /// @return true on failure: with nothing changed if `data` is null, with no address left if the family is another
    bool set(int family, void const* data);
};

inline bool operator==(NetworkAddressBase const& left, NetworkAddressBase const& right) noexcept {
    return left.getType() == right.getType() && left.getText() == right.getText();
}
inline bool operator!=(NetworkAddressBase const& left, NetworkAddressBase const& right) noexcept {
    return !(left == right);
}

} // namespace vesk
