#pragma once

#include "support/NetworkNamespace.h"
#include "support/Testing.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace support {

/// Two connected network namespaces, for a test that `expectInNetwork` runs. Its own one has the interface "left" with
/// 10.0.0.1 and fe80::1, the other one has the interface "right" with 10.0.0.2 and fe80::2. Both route the multicast groups
/// of IPv4 to the other. A socket stays in the namespace in which it was created.
///
///     support::expectInNetwork([] {
///         support::Cable const cable;
///         ASSERT_TRUE(cable.isThere());
///         vesk::UDPSocket sender(...);
///         ASSERT_TRUE(cable.enterRight());
///         vesk::UDPSocket receiver(...);
///     });
class Cable : tarnbase::NonCopyable {
public:
    /// @param mtu  the largest packet, in bytes
    explicit Cable(int mtu = 1500) : m_left(openNetwork()), m_there(lay(mtu)) {}
    ~Cable() {
        close(m_left);
        close(m_right);
    }

    testing::AssertionResult const& isThere() const { return m_there; }

    /// Moves the calling thread into one of the namespaces.
    testing::AssertionResult enterLeft() const { return enter(m_left); }
    testing::AssertionResult enterRight() const { return enter(m_right); }

private:
    static int openNetwork() { return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); }

    static testing::AssertionResult enter(int network) {
        return setns(network, CLONE_NEWNET) == 0
            ? testing::AssertionSuccess()
            : testing::AssertionFailure() << "setns: " << strerror(errno);
    }

    testing::AssertionResult lay(int mtu) {
        if (!separateNetwork()) {
            return testing::AssertionFailure() << strerror(errno);
        }
        m_right = openNetwork();
        std::string const other = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_right);
        // Without automatic addresses: they take time, and could become the source of a datagram.
        std::string const up = " mtu " + std::to_string(mtu) + " addrgenmode none up";
        std::function<testing::AssertionResult()> const steps[] = {
            [] { return setUp("lo"); },
            [this] { return enterLeft(); },
            [] { return makePair("left", "right"); },
            [&] { return ip("link set dev right netns " + other); },
            [&] { return ip("link set dev left" + up); },
            [this] { return enterRight(); },
            [&] { return ip("link set dev right" + up); },
            [] { return prepare("right", "2"); },
            [this] { return enterLeft(); },
            [] { return prepare("left", "1"); },
        };
        for (auto const& step : steps) {
            testing::AssertionResult const done = step();
            if (!done) {
                return done;
            }
        }
        return testing::AssertionSuccess();
    }

    static testing::AssertionResult prepare(std::string const& name, std::string const& number) {
        // A datagram that is sent before the system has detected the other end is lost.
        return !isConnected(name)
            ? testing::AssertionFailure() << name << " is not connected"
            : ip("addr add 10.0.0." + number + "/24 brd + dev " + name + "\n" + "addr add fe80::" + number +
                 "/64 nodad dev " + name + "\n" + "route add 224.0.0.0/4 dev " + name + "\n");
    }

    /// Waits until the system has detected the other end.
    static bool isConnected(std::string const& name) {
        int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq request{};
        name.copy(request.ifr_name, sizeof request.ifr_name - 1);
        bool const is_connected = eventually(
            [&] { return ioctl(fd, SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_RUNNING) != 0; });
        close(fd);
        return is_connected && (request.ifr_flags & IFF_RUNNING) != 0;
    }

    int m_left;
    int m_right = -1;
    testing::AssertionResult m_there;
};

} // namespace support
