#include "SignalSupport.h"
#include "support/Emulation.h"
#include "support/Sanitizers.h"

#include <vesk/SignalCatcher.h>
#include <vesk/SignalDispatcher.h>

#include <array>

namespace {

using namespace support;
using namespace vesk;

// A machine that is emulated as a whole handles a signal a hundred times more slowly.
#if defined(__arm__)
int const SIGNALS = IS_EMULATED ? 1'000'000 : 20'000;
#else
constexpr int SIGNALS = 1'000'000;
#endif

// User-mode QEMU reads the action of a signal twice before it calls the handler: when another thread changes
// it in between, it may call SIG_IGN.
bool const HANDLERS_MAY_GO = !IS_EMULATED;
constexpr char const* HANDLERS_MAY_NOT_GO =
    "the emulator cannot take a handler away while its signal arrives";

constexpr int SENDERS = 3;
constexpr int CHURNERS = 2;

/// The counts of one signal number. They are the data of its callbacks.
struct SignalCounts {
    static void count(int signal, void* data) {
        auto& self = *static_cast<SignalCounts*>(data);
        ++(signal == self.number ? self.calls : self.wrong);
    }

    int number = 0;
    std::atomic<int> sent{0};
    std::atomic<int> calls{0};
    std::atomic<int> wrong{0};
};

/// Returns whether any thread may receive a signal at any time. ThreadSanitizer handles those of the
/// processor at once, also in threads that it has not set up yet, and delays all others.
bool mayComeAnywhere(int signal) {
#if defined(__SANITIZE_THREAD__)
    for (int const fault : {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGPIPE, SIGSYS}) {
        if (signal == fault) {
            return false;
        }
    }
#endif
    return signal > 0;
}

class SignalStormTest : public testing::Test {
protected:
    SignalStormTest() {
        for (int signal = 0; signal < TARN_NSIGNALS; ++signal) {
            countsOf(signal).number = signal;
        }
    }

    SignalCounts& countsOf(int signal) { return counts[static_cast<size_t>(signal)]; }

    /// Sends a share of the signals. Those to the own thread are handled before the next one is sent, so none
    /// is merged with another; those to the process are handled in any thread.
    void send(unsigned int seed, std::vector<int> const& to_thread, std::vector<int> const& to_process) {
        for (int i = 0; i < SIGNALS / SENDERS; ++i) {
            seed = seed * 1664525 + 1013904223;
            size_t const random = seed >> 8;
            if (to_process.empty() || (i % 2 == 0 && !to_thread.empty())) {
                int const signal = to_thread[random % to_thread.size()];
                ++countsOf(signal).sent;
                raise(signal);
            } else {
                int const signal = to_process[random % to_process.size()];
                ++countsOf(signal).sent;
                i % 4 == 1 && mayComeAnywhere(signal) ? kill(getpid(), signal) : raise(signal);
            }
        }
    }

    /// Runs the senders, and beside them the churners until they are done. Each churner has its own share of
    /// signals.
    template <typename Churn>
    void storm(
        std::vector<int> const& to_thread, std::vector<int> const& to_process,
        std::vector<int> const& churned, Churn churn) {
        std::array<std::vector<int>, CHURNERS> shares;
        for (size_t i = 0; i < churned.size(); ++i) {
            shares[i % CHURNERS].push_back(churned[i]);
        }
        std::atomic<int> sending{SENDERS};
        runInThreads(SENDERS + CHURNERS, [&](int i) {
            if (i < SENDERS) {
                send(static_cast<unsigned int>(i), to_thread, to_process);
                --sending;
                return;
            }
            do {
                churn(shares[static_cast<size_t>(i - SENDERS)]);
                ++rounds;
            } while (sending > 0);
        });
    }

    /// Checks that each callback got only its own signal, and no more than were sent.
    void expectOnlySentSignals() {
        int calls = 0;
        for (SignalCounts const& each : counts) {
            EXPECT_EQ(0, each.wrong) << each.number;
            EXPECT_LE(each.calls, each.sent) << each.number;
            calls += each.calls;
        }
        EXPECT_LT(0, calls);
        EXPECT_LT(0, rounds);
    }

    CatchableSignals catchable;
    std::array<SignalCounts, TARN_NSIGNALS> counts;
    std::atomic<int> rounds{0};
};

TEST_F(SignalStormTest, losesNoSignalOfACatcherWhileOthersAreMadeAndDestroyed) {
    std::vector<int> staying;
    std::vector<int> passing;
    for (size_t i = 0; i < catchable.get().size(); ++i) {
        int const signal = catchable.get()[i];
        // Of stopping and continuing the kernel drops the one that waits when the other one is sent.
        bool const fleeting =
            signal == SIGCONT || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
        (i % 4 == 0 && !fleeting ? staying : passing).push_back(signal);
    }
    std::vector<std::unique_ptr<SignalCatcher>> catchers;
    for (int const signal : staying) {
        catchers.push_back(std::make_unique<SignalCatcher>(signal, SignalCounts::count, &countsOf(signal)));
    }
    std::vector<int> const none;
    storm(staying, HANDLERS_MAY_GO ? passing : none, passing, [this](std::vector<int> const& share) {
        for (size_t i = 1; i < share.size(); ++i) {
            SignalCatcher const first(share[i - 1], SignalCounts::count, &countsOf(share[i - 1]));
            SignalCatcher const second(share[i], SignalCounts::count, &countsOf(share[i]));
            sched_yield();
        }
    });
    for (int const signal : staying) {
        EXPECT_TRUE(eventually([&] { return countsOf(signal).calls == countsOf(signal).sent; }))
            << signal << ": " << countsOf(signal).calls << " of " << countsOf(signal).sent;
    }
    catchers.clear();
    for (int const signal : staying) {
        EXPECT_EQ(countsOf(signal).sent, countsOf(signal).calls) << signal;
    }
    expectOnlySentSignals();
}

/// Makes and destroys catchers of all signals during a storm of them.
class SignalStormOfDestroyed : public SignalStormTest {
protected:
    template <typename Use>
    void run(Use use) {
        if (!HANDLERS_MAY_GO) {
            GTEST_SKIP() << HANDLERS_MAY_NOT_GO;
        }
        storm({}, catchable.get(), catchable.get(), [&](std::vector<int> const& share) {
            for (int const signal : share) {
                use(signal);
            }
        });
        expectOnlySentSignals();
    }
};

TEST_F(SignalStormOfDestroyed, usesNoDestroyedDispatcher) {
    run([this](int signal) {
        // Usually the last one of the process.
        SignalCatcher const catcher(signal, SignalCounts::count, &countsOf(signal));
        sched_yield();
    });
}

TEST_F(SignalStormOfDestroyed, usesNoDestroyedQueueOfAClient) {
    run([this](int signal) {
        // On the heap, where a use after its end is found.
        auto const dispatcher = std::make_unique<SignalDispatcher>("client", vesk::sched::Attr());
        SignalCatcher const catcher(signal, dispatcher->getQueue(), SignalCounts::count, &countsOf(signal));
        sched_yield();
    });
}

// The rounds of the storm of canceled threads: each starts two threads and cancels them.
constexpr int CANCELED_ROUNDS = IS_SLOW ? 100 : 500;

/// Cancels threads while signals arrive in them. Only these threads receive the signal.
class SignalStormOfCanceled : public testing::Test {
protected:
    static constexpr int MOST_PENDING = 64;

    /// Receives signals until it is canceled: in a cancellation point, or anywhere.
    static void* receive(void* test) {
        auto& self = *static_cast<SignalStormOfCanceled*>(test);
        bool const anywhere = self.started++ % 2 == 0;
        pthread_sigmask(SIG_UNBLOCK, &self.signals, nullptr);
        if (anywhere) {
            pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
            for (unsigned int volatile spins = 0;;) {
                spins = spins + 1;
            }
        }
        for (;;) {
            pause();
        }
    }

    /// Starts and cancels threads while another thread sends.
    void storm() {
        std::atomic<bool> sending{true};
        std::thread sender([&] {
            while (sending) {
                if (counts.sent - counts.calls >= MOST_PENDING) {
                    sched_yield();
                    continue;
                }
                ++counts.sent;
                kill(getpid(), counts.number);
            }
        });
        cancelThreads();
        sending = false;
        sender.join();
    }

    void cancelThreads() {
        for (int round = 0; round < CANCELED_ROUNDS; ++round) {
            pthread_t threads[2];
            for (pthread_t& thread : threads) {
                ASSERT_EQ(0, pthread_create(&thread, nullptr, receive, this));
            }
            while (started < 2 * (round + 1)) {
                sched_yield();
            }
            for (pthread_t const thread : threads) {
                ASSERT_EQ(0, pthread_cancel(thread));
            }
            for (pthread_t const thread : threads) {
                void* result = nullptr;
                ASSERT_EQ(0, pthread_join(thread, &result));
                ASSERT_EQ(PTHREAD_CANCELED, result);
            }
        }
    }

    sigset_t signals{};
    SignalCounts counts;
    std::atomic<int> started{0};
};

TEST_F(SignalStormOfCanceled, doesNotCancelAHandler) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    if (!FOLLOWS_CANCELED_THREADS) {
        GTEST_SKIP() << "the thread sanitizer does not follow a thread that is canceled in a system call";
    }
    expectInChild([this] {
        // Real-time signals are queued: none is merged with another.
        counts.number = SIGRTMIN + 5;
        sigemptyset(&signals);
        sigaddset(&signals, counts.number);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        {
            SignalCatcher const catcher(counts.number, SignalCounts::count, &counts);
            storm();
            pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
            EXPECT_TRUE(eventually([this] { return counts.calls == counts.sent; }))
                << counts.calls << " of " << counts.sent;
            alarm(20); // The destructor waits for a handler that was canceled.
        }
        EXPECT_EQ(counts.sent, counts.calls);
        EXPECT_EQ(0, counts.wrong);
        EXPECT_LT(CANCELED_ROUNDS, counts.calls);
    });
}

} // namespace
