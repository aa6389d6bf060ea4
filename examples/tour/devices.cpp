#include "Tour.h"

#include <vesk/NetDevice.h>

#include <array>
#include <cstdio>
#include <string>

namespace tour {

namespace {

using Info = vesk::NetDevice::InterfaceInfo;

std::string getAddresses(Info const& info) {
    if (!info.has_address) {
        return "no address";
    }
    std::string text = info.address.host;
    if (info.has_netmask) {
        text += ", netmask " + info.netmask.host;
    }
    if (info.has_broadcast_address) {
        text += ", broadcast " + info.broadcast_address.host;
    }
    return text;
}

std::string getHardwareAddress(Info const& info) {
    if (!info.has_hardware_address) {
        return "no hardware address";
    }
    unsigned char const* const bytes = info.hardware_address;
    std::array<char, sizeof "00:00:00:00:00:00"> text;
    snprintf(
        text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3],
        bytes[4], bytes[5]);
    return text.data();
}

std::string getFlags(Info const& info) {
    std::string text = info.up ? "up" : "down";
    text += info.running ? ", running" : "";
    text += info.promiscuous ? ", promiscuous" : "";
    text += info.multicast ? ", multicast" : "";
    text += info.broadcast ? ", broadcast" : "";
    return text;
}

char const* getType(Info const& info) {
    if (info.type == Info::LOOPBACK) {
        return "loopback";
    }
    return info.type == Info::POINT_TO_POINT ? "point-to-point" : "other";
}

} // namespace

void devices() {
    section("Network interfaces: enumeration");
    vesk::NetDevice devices(nullptr);
    if (failed(!devices.isValid(), "asking for the network interfaces")) {
        return;
    }
    Info info;
    int result = 0;
    while ((result = devices.getNextInfo(info)) != 1) {
        if (failed(result == -1, "asking for a network interface")) {
            continue;
        }
        tell("%s (%s): %s", info.name.c_str(), getType(info), getAddresses(info).c_str());
        tell(
            "  %s, MTU %d, %s (flags 0x%x)", getHardwareAddress(info).c_str(), info.mtu,
            getFlags(info).c_str(), info.flags);
    }
}

} // namespace tour
