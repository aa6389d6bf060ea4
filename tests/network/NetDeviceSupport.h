#pragma once

#include "support/Testing.h"

#include <vesk/NetDevice.h>

#include <net/if.h>
#include <sys/ioctl.h>

/// Support for the tests of NetDevice.
namespace support {

/// A setter with arguments, and the requests that it makes.
struct Setter {
    char const* name;
    bool (*call)(vesk::NetDevice& device);
    std::vector<unsigned long> requests;

    friend void PrintTo(Setter const& row, std::ostream* out) { *out << row.name; }
};

inline Setter const SETTERS[] = {
    {"setAddress", [](vesk::NetDevice& device) { return device.setAddress("192.0.2.8"); }, {SIOCSIFADDR}},
    {"setNetmask",
     [](vesk::NetDevice& device) { return device.setNetmask("255.255.0.0"); },
     {SIOCSIFNETMASK}},
    {"setInterfaceStatus",
     [](vesk::NetDevice& device) { return device.setInterfaceStatus(true); },
     {SIOCGIFFLAGS, SIOCSIFFLAGS}},
    {"setPromiscuous",
     [](vesk::NetDevice& device) { return device.setPromiscuous(true); },
     {SIOCGIFFLAGS, SIOCSIFFLAGS}},
};

/// Checks that a single report with this argument is pending. Acknowledges it.
template <typename Id>
testing::AssertionResult isPending(Id id, std::string const& argument) {
    return chainIs({{id, rowText(id, argument)}});
}

/// Expects that every setter fails with this report.
template <typename Id>
void expectSettersFail(vesk::NetDevice& device, Id id, std::string const& argument) {
    for (Setter const& setter : SETTERS) {
        EXPECT_TRUE(setter.call(device)) << setter.name;
        EXPECT_TRUE(isPending(id, argument)) << setter.name;
    }
}

inline testing::AssertionResult isUnresolved() {
    return isPending(std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname");
}

constexpr char const* INVALID_OBJECT = "invalid object";
constexpr char const* NO_INTERFACE = "no current interface";

} // namespace support
