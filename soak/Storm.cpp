#include "Storm.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace soak {

namespace {

std::atomic<unsigned int> s_faults{0};

} // namespace

void fault(std::string const& text) {
    ++s_faults;
    printf("FAULT %s\n", text.c_str());
    fflush(stdout);
}

unsigned int countFaults() noexcept {
    return s_faults;
}

std::string makeName(char const* what) {
    static pid_t const process = getpid();
    return "soak-" + std::to_string(process) + "-" + what;
}

void Storm::run(unsigned long seed) {
    m_random.seed(static_cast<std::mt19937::result_type>(seed));
    m_ends = false;
    m_thread = std::make_unique<vesk::Thread>(loop, this, m_name);
    if (!m_thread->isValid() || m_thread->start()) {
        fault(std::string(m_name) + ": starting the thread");
    }
}

void Storm::end() {
    m_ends = true;
    if (m_thread && m_thread->join()) {
        fault(std::string(m_name) + ": joining the thread");
    }
    m_thread.reset();
}

void Storm::loop(void* storm) {
    auto& self = *static_cast<Storm*>(storm);
    while (!self.m_ends) {
        self.work();
    }
}

void Storm::countProvoked() noexcept {
    ++m_provoked;
    std::ErrorStorage::ack();
}

bool Storm::check(bool failed, char const* what) {
    if (failed) {
        fault(std::string(m_name) + ": " + what + ": " + tarn_error.getReasonList());
        std::ErrorStorage::ack();
    } else {
        ++m_operations;
    }
    return failed;
}

bool Storm::eventually(std::function<bool()> const& condition) const {
    constexpr int ROUNDS = 60000;
    for (int round = 0; round < ROUNDS; ++round) {
        if (condition()) {
            return true;
        }
        timespec const pause{0, round < 100 ? 50000 : 1000000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

std::vector<std::unique_ptr<Storm>> makeStorms() {
    std::vector<std::unique_ptr<Storm>> storms;
#if !defined(__SANITIZE_THREAD__)
    // The thread sanitizer runs handlers later than the kernel would, and keeps only one pending signal of each
    // number: signals, and with them expiries of timers, are lost.
    storms.push_back(makeSignalStorm());
    storms.push_back(makeTimerStorm());
#endif
    storms.push_back(makeChildStorm());
    storms.push_back(makeTcpStorm());
    storms.push_back(makeUnixStorm());
    storms.push_back(makeQueueStorm());
    storms.push_back(makeRingStorm());
    storms.push_back(makeNetworkStorm());
    storms.push_back(makeSerialStorm());
    return storms;
}

} // namespace soak
