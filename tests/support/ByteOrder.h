#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <sys/socket.h>
#include <utility>

/// Tests write the bytes of the system's structures as they are on a little-endian machine. The bytes that a
/// big-endian program passes to the system are converted before they are compared.
namespace support {

/// Offset and size of a field in the byte order of the machine.
using Field = std::pair<size_t, size_t>;

/// Returns the bytes with the fields in little-endian order. Ignores a field that is not completely inside.
inline std::string toLittleEndian(void const* bytes, size_t size, std::initializer_list<Field> fields) {
    std::string converted(static_cast<char const*>(bytes), size);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    for (auto const& [offset, length] : fields) {
        if (offset + length <= size) {
            char* const begin = converted.data() + offset;
            std::reverse(begin, begin + length);
        }
    }
#else
    static_cast<void>(fields);
#endif
    return converted;
}

/// Returns the bytes of an address with its family, its scope (IPv6), and its process and groups (netlink) in
/// little-endian order. Ports and addresses are in network order on each machine.
inline std::string addressToLittleEndian(void const* address, size_t size) {
    switch (size < sizeof(sa_family_t) ? AF_UNSPEC : static_cast<sockaddr const*>(address)->sa_family) {
    case AF_INET6:
        return toLittleEndian(address, size, {{0, 2}, {24, 4}});
    case AF_NETLINK:
        return toLittleEndian(address, size, {{0, 2}, {4, 4}, {8, 4}});
    default:
        return toLittleEndian(address, size, {{0, 2}});
    }
}

} // namespace support
