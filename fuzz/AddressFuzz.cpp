// Fuzzes the conversion of addresses. The first byte of the input is the length of a netmask, the next 16 are
// a binary address, and the rest is the text of an address.

#include "Check.h"

#include <vesk/IPSocket.h>
#include <vesk/NetworkAddress.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <netdb.h>
#include <string>

namespace {

using vesk::IPSocket;
using vesk::NetworkAddress;
using vesk::NetworkAddressBase;

using Resolve = int (*)(char const*, char const*, addrinfo const*, addrinfo**);

Resolve findResolver() {
    return reinterpret_cast<Resolve>(dlsym(RTLD_NEXT, "getaddrinfo"));
}

void checkText(std::string const& text) {
    IPSocket::IPAddress address(text, 80);
    sockaddr_in binary{};
    bool const failed = address.getBinary(binary);
    in_addr expected{};
    // inet_aton ignores what follows white space.
    bool const is_numeric =
        inet_aton(text.c_str(), &expected) != 0 && text.find_first_of(" \t\n\v\f\r") == std::string::npos;
    fuzz::check(failed == (!text.empty() && !is_numeric), "a numeric text is an address");
    fuzz::check(failed == std::ErrorStorage::isError(true), "a failure is reported");
    std::ErrorStorage::ack();
    fuzz::check(failed || binary.sin_addr.s_addr == expected.s_addr, "it is that of inet_aton");
    fuzz::check(failed || ntohs(binary.sin_port) == 80, "the port stays");

    IPSocket::IPAddress address6(text, 80);
    sockaddr_in6 binary6{};
    bool const failed6 = address6.getBinary(binary6);
    in6_addr expected6{};
    if (inet_pton(AF_INET6, text.c_str(), &expected6) == 1) {
        fuzz::check(!failed6, "a numeric text is an address");
        fuzz::check(memcmp(&binary6.sin6_addr, &expected6, 16) == 0, "it is that of inet_pton");
    }
    fuzz::check(failed6 == std::ErrorStorage::isError(true), "a failure is reported");
    std::ErrorStorage::ack();
}

void checkBinary(in6_addr const& ip) {
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &ip, text, sizeof text);
    IPSocket::IPAddress address(IPSocket::IPAddress::makeHandle(ip, 80, 0));
    fuzz::check(address.host == text && address.port == 80, "the text is that of inet_ntop");
    sockaddr_in6 again{};
    fuzz::check(!address.getBinary(again), "the text is an address");
    fuzz::check(memcmp(&again.sin6_addr, &ip, sizeof ip) == 0, "which is the same");

    NetworkAddress network;
    fuzz::check(!network.set(AF_INET6, &ip) && network.getText() == text, "both classes write the same text");
    inet_ntop(AF_INET, &ip, text, sizeof text);
    fuzz::check(!network.set(AF_INET, &ip) && network.getText() == text, "the text is that of inet_ntop");
}

void checkMask(unsigned int length) {
    NetworkAddressBase mask;
    in6_addr bytes{};
    fuzz::check(!mask.set_prefix(NetworkAddressBase::IPV6, length), "there is a mask for each length");
    fuzz::check(inet_pton(AF_INET6, mask.getText().c_str(), &bytes) == 1, "a mask is an address");
    unsigned int bits = 0;
    for (uint8_t const byte : bytes.s6_addr) {
        bits += static_cast<unsigned int>(__builtin_popcount(byte));
        fuzz::check((byte & (byte << 1) & 255) == ((byte << 1) & 255), "the bits of a mask come first");
    }
    fuzz::check(bits == std::min(length, 128U), "a mask has as many bits as its length");
}

} // namespace

/// Resolves only numeric texts: the fuzzer does not use the network.
extern "C" int getaddrinfo(char const* name, char const* service, addrinfo const* hints, addrinfo** results) {
    static Resolve const real = findResolver();
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    return real(name, service, &numeric, results);
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    uint8_t head[17] = {};
    memcpy(head, data, std::min(sizeof head, size));
    in6_addr ip{};
    memcpy(&ip, head + 1, sizeof ip);
    checkMask(head[0]);
    checkBinary(ip);
    if (size > sizeof head) {
        std::string const text(reinterpret_cast<char const*>(data) + sizeof head, size - sizeof head);
        checkText(text.substr(0, text.find('\0')));
    }
    return 0;
}
