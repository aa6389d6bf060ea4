#pragma once

#include "support/Eventually.h"
#include "support/NetworkNamespace.h"
#include "support/Processes.h"
#include "support/TempFolder.h"

#include <tarncommon/tarnbase/NonCopyable.h>
#include <vesk/IPSocket.h>

#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <utility>

/// Support for tests of real names: a network namespace with a name server at 127.0.0.1, which is the only
/// one that the resolver of a test knows. No query leaves the machine: the namespace has no route to the
/// outside.

namespace support {

/// Runs the program `dnsmasq` in the network namespace of the calling process, which must be a child. The
/// server ends with the object and with the process.
class NameServer : private tarnbase::NonCopyable {
public:
    /// @param zone  lines as in a hosts file, which are also used for addresses. Other addresses, and other
    ///              names in ".test", do not exist; queries for all other names are refused.
    explicit NameServer(std::string const& zone)
        : m_process([&] {
              std::string const hosts = "--addn-hosts=" + m_folder.makeFile("zone", zone);
              std::string const log = "--log-facility=" + m_folder / "log";
              alarm(0);
              prctl(PR_SET_PDEATHSIG, SIGKILL);
              setenv("PATH", "/usr/sbin:/sbin:/usr/local/sbin:/usr/bin:/bin", 1);
              execlp(
                  "dnsmasq", "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-hosts",
                  "--no-resolv", "--listen-address=127.0.0.1", "--bind-interfaces",
                  "--pid-file=", "--user=root", "--no-round-robin", "--local=/test/",
                  "--local=/in-addr.arpa/", "--local=/ip6.arpa/", hosts.c_str(), log.c_str(),
                  static_cast<char*>(nullptr));
              _exit(127);
          }) {}

    /// Waits until the server listens. Returns false if it has ended or does not listen.
    bool waitUntilReady() const {
        siginfo_t end{};
        bool const is_decided = eventually([this, &end] {
            waitid(P_PID, static_cast<id_t>(m_process.getId()), &end, WEXITED | WNOHANG | WNOWAIT);
            // The table of the kernel is read, because the server would start a process for each connection.
            return end.si_pid != 0 || contentOf("/proc/self/net/udp").find(":0035 ") != std::string::npos;
        });
        return is_decided && end.si_pid == 0;
    }

    void stop() { m_process.kill(); }

    std::string getLog() const { return contentOf(m_folder / "log"); }

private:
    TempFolder const m_folder;
    Process m_process;
};

/// A name server that receives queries and does not answer.
class SilentNameServer : private tarnbase::NonCopyable {
public:
    SilentNameServer() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in const address = vesk::IPSocket::IPAddress::makeHandle(INADDR_LOOPBACK, 53);
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address));
    }
    ~SilentNameServer() { close(m_fd); }

    /// Returns the number of queries since the last call.
    int countQuestions() const {
        int count = 0;
        char question[512];
        while (recv(m_fd, question, sizeof question, MSG_DONTWAIT) >= 0) {
            ++count;
        }
        return count;
    }

private:
    int m_fd;
};

/// Replaces a file for the calling process, which must be a child.
inline testing::AssertionResult replaceFile(std::string const& path, std::string const& own) {
    return mount(own.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0
        ? testing::AssertionSuccess()
        : testing::AssertionFailure() << path << ": " << strerror(errno);
}

/// Moves the calling process, which must be a child, to a network namespace and files in which 127.0.0.1 is
/// the only name server. The machine is "box" in the domain "test".
/// @param folder  for the files
inline testing::AssertionResult separateNames(TempFolder const& folder) {
    if (!separateNetwork() || !separateMounts() || unshare(CLONE_NEWUTS) != 0 || sethostname("box", 3) != 0) {
        return testing::AssertionFailure() << strerror(errno);
    }
    // A daemon that resolves names for the resolver would not run in this network.
    std::error_code error;
    for (char const* const daemon : {"/run/nscd", "/var/run/nscd"}) {
        if (std::filesystem::is_directory(daemon, error) && !mountMemory(daemon)) {
            return testing::AssertionFailure() << daemon << ": " << strerror(errno);
        }
    }
    constexpr std::pair<char const*, char const*> FILES[] = {
        {"nsswitch.conf", "hosts: files dns\n"},
        {"hosts", "127.0.0.1 localhost\n127.0.1.1 box.test box\n10.1.0.1 listed.example\n"},
        {"resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"}};
    for (auto const& [name, content] : FILES) {
        testing::AssertionResult const result =
            replaceFile(std::string("/etc/") + name, folder.makeFile(name, content));
        if (!result) {
            return result;
        }
    }
    return setUp("lo");
}

inline bool maySeparateNames() {
    static bool const may = [] {
        TempFolder const folder;
        return runInChild([&folder] { EXPECT_TRUE(separateNames(folder)); }).exit_code == 0;
    }();
    return may;
}

/// Runs `body` in a child with such a network. Failures of the child become failures of the test.
inline void expectWithNames(std::function<void()> const& body) {
    TempFolder const folder;
    expectInChild([&] {
        ASSERT_TRUE(separateNames(folder));
        body();
    });
}

/// The same with a name server.
inline void
expectWithNameServer(std::string const& zone, std::function<void(NameServer& server)> const& body) {
    expectWithNames([&] {
        NameServer server(zone);
        ASSERT_TRUE(server.waitUntilReady()) << server.getLog();
        body(server);
    });
}

} // namespace support

#define VESK_SKIP_WITHOUT_NAMES()                                                                            \
    if (!support::maySeparateNames()) {                                                                      \
        GTEST_SKIP() << "a network, mounts and a host name of its own are not granted to the test";          \
    }
