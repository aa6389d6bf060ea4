#pragma once

#include "support/NetworkNamespace.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/// For tests of real names: a network of their own with a name server of their own at 127.0.0.1, which is the only one that
/// the resolver of a test knows. No question leaves the machine: there is no way out of that network.

namespace support {

/// The program `dnsmasq` as the server of the network of the calling process, a child with a private network. It goes away
/// with the object, and with the process.
class NameServer {
public:
    /// @param zone  lines as in a hosts file, also for the way back from address to name. What ends in ".test", and
    ///              addresses that are not there, do not exist; for other names the server refuses to answer.
    explicit NameServer(std::string const& zone) {
        std::vector<std::string> const options = {
            "dnsmasq",
            "--keep-in-foreground",
            "--conf-file=/dev/null",
            "--no-hosts",
            "--no-resolv",
            "--listen-address=127.0.0.1",
            "--bind-interfaces",
            "--pid-file=",
            "--user=root",
            "--no-round-robin",
            "--addn-hosts=" + m_folder.makeFile("zone", zone),
            "--local=/test/",
            "--local=/in-addr.arpa/",
            "--local=/ip6.arpa/",
            "--log-facility=" + m_folder / "log"};
        std::vector<char*> arguments;
        for (std::string const& option : options) {
            arguments.push_back(const_cast<char*>(option.c_str()));
        }
        arguments.push_back(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("PATH", "/usr/sbin:/sbin:/usr/local/sbin:/usr/bin:/bin", 1);
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
    }
    ~NameServer() { stop(); }

    NameServer(NameServer const&) = delete;
    NameServer& operator=(NameServer const&) = delete;

    /// Waits until it answers. False if it has ended, or does not begin for a minute.
    bool waitUntilReady() {
        for (int round = 0; round < 60000; ++round) {
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                return false;
            }
            // Seen from outside, as the server would start a process for each connection.
            if (contentOf("/proc/self/net/udp").find(":0035 ") != std::string::npos) {
                return true;
            }
            usleep(1000);
        }
        return false;
    }

    void stop() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {}
            m_pid = -1;
        }
    }

    std::string getLog() const { return contentOf(m_folder / "log"); }

    static sockaddr_in getAddress() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

private:
    TempFolder const m_folder;
    pid_t m_pid = -1;
};

/// A name server that takes questions and answers none.
class SilentNameServer {
public:
    SilentNameServer() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in const address = NameServer::getAddress();
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address));
    }
    ~SilentNameServer() { close(m_fd); }

    SilentNameServer(SilentNameServer const&) = delete;
    SilentNameServer& operator=(SilentNameServer const&) = delete;

    /// How many questions have come since it was asked last.
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

/// Puts a file of its own in the place of one of the system's, for the calling process.
inline testing::AssertionResult replaceFile(std::string const& path, std::string const& own) {
    if (mount(own.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return testing::AssertionFailure() << path << ": " << strerror(errno);
    }
    return testing::AssertionSuccess();
}

/// Gives the calling process, a child, a network and files in which 127.0.0.1 is the one and only name server. The machine is
/// "box" in the domain "test" there.
/// @param folder  for the files
inline testing::AssertionResult separateNames(TempFolder const& folder) {
    if (!separateNetwork() || !separateMounts() || unshare(CLONE_NEWUTS) != 0 || sethostname("box", 3) != 0) {
        return testing::AssertionFailure() << strerror(errno);
    }
    // Whoever answers there for the resolver does not live in this network.
    std::error_code error;
    for (char const* const daemon : {"/run/nscd", "/var/run/nscd"}) {
        if (std::filesystem::is_directory(daemon, error) && !mountMemory(daemon)) {
            return testing::AssertionFailure() << daemon << ": " << strerror(errno);
        }
    }
    struct File {
        char const* name;
        char const* content;
    };
    for (File const file :
         {File{"nsswitch.conf", "hosts: files dns\n"},
          File{"hosts", "127.0.0.1 localhost\n127.0.1.1 box.test box\n10.1.0.1 listed.example\n"},
          File{"resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"}}) {
        testing::AssertionResult const result =
            replaceFile(std::string("/etc/") + file.name, folder.makeFile(file.name, file.content));
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

/// Runs `body` in a child with such a network, whose failures become those of the test.
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
