#pragma once

#include "support/NetworkNamespace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace support {

/// Two networks with a cable between them, for a test that runs in a network of its own: that one has the end "left" with
/// 10.0.0.1 and fe80::1, the other one the end "right" with 10.0.0.2 and fe80::2. Routes to the groups of IPv4 lead into
/// the cable. A socket stays in the network in which the calling thread made it.
///
///     support::expectInNetwork([] {
///         support::Cable const cable;
///         ASSERT_TRUE(cable.isThere());
///         vesk::UDPSocket sender(...);
///         ASSERT_TRUE(cable.enterRight());
///         vesk::UDPSocket receiver(...);
///     });
class Cable {
public:
    /// @param mtu  the largest packet, in bytes
    explicit Cable(int mtu = 1500) : m_left(openNetwork()) {
        m_there =
            separateNetwork() ? testing::AssertionSuccess() : testing::AssertionFailure() << strerror(errno);
        m_right = openNetwork();
        std::string const other = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_right);
        for (testing::AssertionResult const& step :
             {setUp("lo"), enterLeft(), makePair("left", "right"), ip("link set dev right netns " + other),
              prepare("left", "1", mtu), enterRight(), prepare("right", "2", mtu), enterLeft()}) {
            m_there = m_there ? step : m_there;
        }
    }
    ~Cable() {
        close(m_left);
        close(m_right);
    }

    Cable(Cable const&) = delete;
    Cable& operator=(Cable const&) = delete;

    testing::AssertionResult const& isThere() const { return m_there; }

    /// Takes the calling thread into one of the networks.
    testing::AssertionResult enterLeft() const { return enter(m_left); }
    testing::AssertionResult enterRight() const { return enter(m_right); }

private:
    static int openNetwork() { return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); }

    static testing::AssertionResult enter(int network) {
        if (setns(network, CLONE_NEWNET) == 0) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "setns: " << strerror(errno);
    }

    static testing::AssertionResult prepare(std::string const& name, std::string const& number, int mtu) {
        // Without the addresses that the system makes up: they need a while, and could become a datagram's source.
        return ip(
            "link set dev " + name + " mtu " + std::to_string(mtu) + " addrgenmode none\n" +
            "addr add 10.0.0." + number + "/24 brd + dev " + name + "\n" + "link set dev " + name + " up\n" +
            "addr add fe80::" + number + "/64 nodad dev " + name + "\n" + "route add 224.0.0.0/4 dev " +
            name + "\n");
    }

    int m_left;
    int m_right = -1;
    testing::AssertionResult m_there = testing::AssertionSuccess();
};

} // namespace support
