// Storms of all subsystems at once, for hours if wanted. Fails if an operation fails that should succeed or
// succeeds that should fail, if a storm hangs, or if the process uses more of a resource after it than before.
//
//   soak SECONDS [SEED]

#include "Storm.h"
#include "Usage.h"

#include <vesk/Vesk.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace soak {

namespace {

constexpr unsigned int WARM_UP_SECONDS = 5;
constexpr unsigned int HANG_SECONDS = 60;

using Storms = std::vector<std::unique_ptr<Storm>>;

/// Moves the process into a network namespace of its own, without privileges through a user namespace. Must run
/// before there are threads.
bool separateNetwork() {
    uid_t const user = geteuid();
    if (unshare(CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
            return false;
        }
        std::string const map = "0 " + std::to_string(user) + " 1";
        int const fd = open("/proc/self/uid_map", O_WRONLY | O_CLOEXEC);
        bool const mapped = write(fd, map.data(), map.size()) == static_cast<ssize_t>(map.size());
        close(fd);
        if (!mapped) {
            return false;
        }
    }
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq device{};
    strncpy(device.ifr_name, "lo", sizeof device.ifr_name - 1);
    device.ifr_flags = IFF_UP | IFF_LOOPBACK;
    bool const up = ioctl(fd, SIOCSIFFLAGS, &device) == 0;
    close(fd);
    return up;
}

/// Makes every assertion, abort and warning of the library a fault, except in a forked child.
bool noteEvent(std::GlobalErrorHandler::Event const& event, void* process) {
    if (getpid() == *static_cast<pid_t const*>(process)) {
        fault(std::string("event: ") + event.file + " " + event.function);
    }
    return false;
}

/// Starts the storms. Those that cannot work here are removed.
void startAll(Storms& storms, unsigned long seed) {
    for (size_t i = 0; i < storms.size();) {
        std::string const reason = storms[i]->start();
        if (!reason.empty()) {
            printf("%s: left out: %s\n", storms[i]->getName(), reason.c_str());
            storms.erase(storms.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        storms[i]->run(seed + i);
        ++i;
    }
}

void stopAll(Storms& storms) {
    for (std::unique_ptr<Storm> const& storm : storms) {
        storm->end();
    }
    for (std::unique_ptr<Storm> const& storm : storms) {
        storm->stop();
    }
}

/// Detects a storm that makes no progress.
class HangWatch {
public:
    explicit HangWatch(Storms const& storms)
        : m_storms(storms), m_last(storms.size()), m_since(storms.size()) {}

    void look() {
        for (size_t i = 0; i < m_storms.size(); ++i) {
            unsigned long long const now = m_storms[i]->getOperations();
            m_since[i] = now == m_last[i] ? m_since[i] + 1 : 0;
            m_last[i] = now;
            if (m_since[i] == HANG_SECONDS) {
                fault(std::string(m_storms[i]->getName()) + ": hangs");
                abort();
            }
        }
    }

private:
    Storms const& m_storms;
    std::vector<unsigned long long> m_last;
    std::vector<unsigned int> m_since;
};

void blow(Storms& storms, unsigned int seconds, unsigned long seed, bool prints) {
    startAll(storms, seed);
    HangWatch watch(storms);
    for (unsigned int second = 1; second <= seconds; ++second) {
        timespec pause{1, 0};
        while (nanosleep(&pause, &pause) != 0) {}
        watch.look();
        if (prints) {
            printf("%5u s ", second);
            for (std::unique_ptr<Storm> const& storm : storms) {
                printf(" %s %llu", storm->getName(), storm->getOperations());
            }
            printf("\n");
        }
    }
    stopAll(storms);
}

int soak(unsigned int seconds, unsigned long seed) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("seed %lu\n", seed);
    if (!separateNetwork()) {
        printf("no separate network namespace\n");
    }
    rlimit const no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    vesk::Vesk const vesk(true, false);
    pid_t process = getpid();
    std::GlobalErrorHandler::Hook const hook{noteEvent, &process};
    std::GlobalErrorHandler::setHook(&hook);

    // Starts what stays: the collector of children, pools, the arenas of the heap.
    Storms storms = makeStorms();
    blow(storms, WARM_UP_SECONDS, seed + 1000, false);
    Usage const before = Usage::measure(0);
    blow(storms, seconds, seed, true);
    Usage const after = Usage::measure(static_cast<int>(before.rows[0].amount));

    printf("\n%-16s %12s %12s\n", "", "operations", "provoked");
    for (std::unique_ptr<Storm> const& storm : storms) {
        printf("%-16s %12llu %12llu\n", storm->getName(), storm->getOperations(), storm->getProvoked());
    }
    bool const grown = hasGrown(before, after);
    printf("\n%u faults\n", countFaults());
    return grown || countFaults() != 0 ? 1 : 0;
}

} // namespace

} // namespace soak

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "--ring") == 0) {
        return soak::writeRing(argv[2]);
    }
    if (argc < 2) {
        fprintf(stderr, "soak SECONDS [SEED]\n");
        return 2;
    }
    unsigned long const seed =
        argc > 2 ? strtoul(argv[2], nullptr, 10) : static_cast<unsigned long>(time(nullptr)) * 7919 % 1000000;
    return soak::soak(static_cast<unsigned int>(strtoul(argv[1], nullptr, 10)), seed);
}
