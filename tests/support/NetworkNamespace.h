#pragma once

#include "support/Emulation.h"
#include "support/Privileges.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

/// Gives a test a network namespace with interfaces that it can change freely. The namespace is not visible
/// outside and ends with its last process. Interfaces are created and changed with the program `ip`, which
/// also works for a 32-bit program and under an emulator.
///
///     VESK_NETWORK_TEST(TCPSocket, reachesTheOtherEndOfAPair) {
///         ASSERT_TRUE(support::makePair("left", "right"));
///         ASSERT_TRUE(support::addAddress("left", "10.0.0.1/24"));
///         ASSERT_TRUE(support::setUp("left"));
///         ...
///     }

namespace support {

/// Moves the calling thread, and the threads and processes that it starts afterwards, into a new network
/// namespace. Its only interface is "lo", which is down.
inline bool separateNetwork() {
    return unshare(CLONE_NEWNET) == 0;
}

/// Runs lines of `ip -batch`, such as "link set dev lo up", in the network namespace of the calling thread.
/// Stops at the first line that fails. An interface name must follow "dev" or "name": `ip` takes a short name
/// for an abbreviation.
inline testing::AssertionResult ip(std::string const& lines) {
    int const files[] = {memfd_create("lines", MFD_CLOEXEC), memfd_create("output", MFD_CLOEXEC)};
    bool const written = write(files[0], lines.data(), lines.size()) == static_cast<ssize_t>(lines.size()) &&
        lseek(files[0], 0, SEEK_SET) == 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, files[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, files[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, files[1], STDERR_FILENO);
    char const* const arguments[] = {"ip", "-batch", "-", nullptr};
    pid_t pid = -1;
    int const error =
        posix_spawnp(&pid, arguments[0], &actions, nullptr, const_cast<char* const*>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    while (error == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {}

    char output[1024] = "";
    ssize_t const size = pread(files[1], output, sizeof output - 1, 0);
    close(files[0]);
    close(files[1]);
    if (error != 0) {
        return testing::AssertionFailure() << "ip: " << strerror(error);
    }
    if (!written || status != 0) {
        return testing::AssertionFailure()
            << "ip: " << lines << ": " << std::string(output, size > 0 ? static_cast<size_t>(size) : 0);
    }
    return testing::AssertionSuccess();
}

/// Creates a pair of connected Ethernet interfaces: what is sent through one is received by the other. Both
/// are down and have no address.
inline testing::AssertionResult makePair(std::string const& name, std::string const& peer) {
    return ip("link add name " + name + " type veth peer name " + peer);
}

/// Creates an Ethernet interface without a peer. It is down.
inline testing::AssertionResult makeInterface(std::string const& name) {
    // A bridge without ports: more kernels support it than a dummy interface.
    return ip("link add name " + name + " type bridge");
}

/// Removes an interface. Removing one end of a pair removes the other, too.
inline testing::AssertionResult removeInterface(std::string const& name) {
    return ip("link del dev " + name);
}

inline testing::AssertionResult setUp(std::string const& name) {
    return ip("link set dev " + name + " up");
}

inline testing::AssertionResult setDown(std::string const& name) {
    return ip("link set dev " + name + " down");
}

/// Renames an interface, which must be down on older kernels.
inline testing::AssertionResult renameInterface(std::string const& name, std::string const& new_name) {
    return ip("link set dev " + name + " name " + new_name);
}

/// Moves an interface into the network namespace of another process. It loses its addresses and is down
/// there.
inline testing::AssertionResult moveInterface(std::string const& name, pid_t process) {
    return ip("link set dev " + name + " netns " + std::to_string(process));
}

/// @param address  with prefix and options: "10.0.0.1/24 brd +", "fd00::1/64 nodad", "10.0.0.1 peer 10.0.0.2"
inline testing::AssertionResult addAddress(std::string const& name, std::string const& address) {
    return ip("addr add " + address + " dev " + name);
}

inline testing::AssertionResult removeAddress(std::string const& name, std::string const& address) {
    return ip("addr del " + address + " dev " + name);
}

/// Runs `body` in a child with a separate network namespace, in which "lo" is up. Failures of the child
/// become failures of the test.
inline void expectInNetwork(std::function<void()> const& body) {
    expectInChild([&body] {
        ASSERT_TRUE(separateNetwork()) << strerror(errno);
        ASSERT_TRUE(setUp("lo"));
        body();
    });
}

inline bool mayMakeNetworks() {
    static bool const may = runInChild([] {
                                if (!separateNetwork() || !makePair("one", "two")) {
                                    ADD_FAILURE() << strerror(errno);
                                }
                            }).exit_code == 0;
    return may;
}

} // namespace support

#define VESK_SKIP_WITHOUT_NETWORKS()                                                                         \
    if (!support::mayMakeNetworks()) {                                                                       \
        GTEST_SKIP() << "a network namespace of its own is not granted to the test, or has no veth pairs";   \
    }

/// Defines a test with a body that runs in a child with a separate network namespace.
#define VESK_NETWORK_TEST_IF(suite, name, skip)                                                              \
    static void suite##_##name();                                                                            \
    TEST(suite, name) {                                                                                      \
        skip;                                                                                                \
        VESK_SKIP_WITHOUT_NETWORKS();                                                                        \
        support::expectInNetwork(suite##_##name);                                                            \
    }                                                                                                        \
    static void suite##_##name()
#define VESK_NETWORK_TEST(suite, name) VESK_NETWORK_TEST_IF(suite, name, static_cast<void>(0))

/// The same for a monitor of the kernel's interfaces, which wakes itself by a netlink message without content.
#define VESK_MONITOR_TEST(suite, name)                                                                       \
    VESK_NETWORK_TEST_IF(suite, name, VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL())
