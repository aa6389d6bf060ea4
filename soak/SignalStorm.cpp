#include "Storm.h"

#include <vesk/SignalCatcher.h>

#include <csignal>
#include <unistd.h>

namespace soak {

namespace {

/// Real-time signals, each of which must arrive, and catchers that are destroyed while their signal is pending.
class SignalStorm : public Storm {
public:
    SignalStorm() : Storm("signals") {}

    void work() override {
        deliverAll();
        destroyDuringSignals();
    }

private:
    static void countArrival(int /*signal*/, void* arrived) {
        ++*static_cast<std::atomic<unsigned int>*>(arrived);
    }

    void deliverAll() {
        std::atomic<unsigned int> arrived{0};
        vesk::SignalCatcher const catcher(SIGRTMIN + 8, countArrival, &arrived);
        unsigned int sent = 0;
        for (unsigned int left = random(200); left > 0; --left) {
            sigval value{};
            if (sigqueue(getpid(), SIGRTMIN + 8, value) == 0) {
                ++sent;
            } else {
                countProvoked(); // The queue of the system is full.
            }
        }
        check(!eventually([&] { return arrived == sent; }), "a signal is lost");
        count(sent);
    }

    /// The default action of SIGURG is none, so it may arrive without a catcher.
    void destroyDuringSignals() {
        std::atomic<unsigned int> arrived{0};
        vesk::SignalCatcher const keeps_thread(SIGRTMIN + 9, countArrival, &arrived);
        {
            vesk::SignalCatcher const catcher(SIGURG, countArrival, &m_ignored);
            for (unsigned int left = random(20); left > 0; --left) {
                kill(getpid(), SIGURG);
            }
        }
        kill(getpid(), SIGURG);
        countProvoked();
        check(arrived != 0, "a signal arrives that was not sent");
    }

    std::atomic<unsigned int> m_ignored{0};
};

} // namespace

std::unique_ptr<Storm> makeSignalStorm() {
    return std::make_unique<SignalStorm>();
}

} // namespace soak
