#include "processes/ProcessSupport.h"

#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Processes.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tracing/Channel.h>

#include <csignal>
#include <iostream>
#include <locale.h>
#include <memory>
#include <sys/syscall.h>
#include <thread>

// Many children, from many threads.
namespace {

using support::chainIs;
using support::hasExitedWith;
using support::HeldProbe;
using support::run;
using support::setProbe;
using support::SLOWDOWN;
using support::waitFor;
using vesk::ProcessTNG;
using ExitState = ProcessTNG::ExitState;

class ProcessCrowd : public support::ProcessTest {};

/// Checks that the ends come in the order of the starts, and each of them once.
class CountingListener : public ProcessTNG::ExitListener {
public:
    void processExited(ExitState const* state) override {
        if (!hasExitedWith(*state, calls % 100)) {
            ++wrong;
        }
        ++calls; // Last: the test takes it for the end of the call.
    }
    std::atomic<int> calls{0};
    std::atomic<int> wrong{0};
};

TEST_F(ProcessCrowd, losesNoneOf20000ChildrenThatEndAtOnce) {
    constexpr int THREADS = 4;
    constexpr int CHILDREN = 20000 / SLOWDOWN / THREADS;
    support::EventRecorder recorder;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&] {
            CountingListener listener;
            ProcessTNG process;
            process.setExitListener(&listener);
            for (int i = 0; i < CHILDREN; ++i) {
                setProbe(process, {"exit", std::to_string(i % 100)});
                ExitState state;
                if (process.start() <= 0 || process.wait(state, false, 0) || !hasExitedWith(state, i % 100) ||
                    state.process != &process) {
                    ++wrong;
                }
                // The listener comes after the waiter, but before the end of any other child.
                if (!support::eventually([&] { return listener.calls == i + 1; })) {
                    ++wrong;
                }
            }
            EXPECT_EQ(CHILDREN, listener.calls);
            EXPECT_EQ(0, listener.wrong);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
    EXPECT_EQ(1U, support::countCollectors());
}

TEST_F(ProcessCrowd, runsManyChildrenAtATime) {
    constexpr int COUNT = SLOWDOWN > 10 ? 20 : 200;
    ProcessTNG processes[COUNT];
    ProcessTNG* all = processes;
    HeldProbe held;
    for (int i = 0; i < COUNT; ++i) {
        held.set(all[i]);
        EXPECT_GT(all[i].start(), 0);
    }
    held.waitUntilBegun(COUNT);
    held.release();
    for (int i = 0; i < COUNT; ++i) {
        EXPECT_TRUE(hasExitedWith(waitFor(all[i]), 0));
    }
}

TEST_F(ProcessCrowd, killsAndWaitsOfManyThreadsEndInOneStatePerChild) {
    constexpr int ROUNDS = 200 / SLOWDOWN + 5;
    for (int round = 0; round < ROUNDS; ++round) {
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        EXPECT_GT(process.start(), 0);
        std::atomic<int> fetched{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, t] {
                EXPECT_FALSE(process.kill(t != 0));
                ExitState state;
                while (fetched == 0) {
                    if (process.wait(state, true, 5)) {
                        EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
                        break;
                    }
                    if (state.hasExited()) {
                        ++fetched;
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1, fetched);
    }
}

/// Threads that do one thing over and over while a test starts children.
class Hammers {
public:
    template <typename Blow>
    void add(Blow blow) {
        m_threads.emplace_back([this, blow] {
            while (!m_stop) {
                blow();
                ++m_blows;
            }
        });
    }
    ~Hammers() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        EXPECT_GT(m_blows, 0);
    }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_blows{0};
    std::vector<std::thread> m_threads;
};

/// All that a child can do between fork and exec, each with its failure: reports, warnings and lines on standard error,
/// while other threads hold whatever there is to be held for that.
TEST_F(ProcessCrowd, noChildIsHeldUpByWhatOtherThreadsDo) {
    support::ChildEnd const end = support::runInChild([] {
        alarm(110);
        int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(STDERR_FILENO, dup2(null, STDERR_FILENO));
        close(null);
        tracing::Channel channel("Hammer", 7, tracing::Channel::WITH_THREAD | tracing::Channel::WITH_TIME);
        Hammers hammers;
        hammers.add([] {
            for (int level = 0; level < 10; ++level) { // Long enough to map memory, too.
                std::ErrorOutput("hammer", level, level == 0)(
                    vesk::SysError, vesk::SysErrorId::UNCLASSIFIED, "text");
            }
            EXPECT_NE("", tarn_error.getReasonList());
            std::ErrorStorage::ack();
        });
        hammers.add([] { std::ErrorStorage const errors(std::ErrorStorage::action_dump_to_stdout); });
        hammers.add([] {
            std::vector<std::unique_ptr<std::string>> memory;
            for (size_t size = 1; size < 100000; size *= 3) {
                memory.push_back(std::make_unique<std::string>(size, 'x'));
            }
        });
        hammers.add([&channel] {
            channel.logCV(3, "a line of %d", 1);
            tracing::Channel::setThreshold("Hammer", 3);
            tracing::Channel const other("Other", 1, 0);
        });
        hammers.add([] { std::GlobalErrorHandler::doWarning("hammer", 1, "hammer", "%s", "a warning"); });
        hammers.add([] { std::cerr << "a line " << 1 << std::endl; });
        hammers.add([] { freelocale(newlocale(LC_ALL_MASK, "C.UTF-8", nullptr)); });
        hammers.add([] {
            ProcessTNG process; // The collector's lock and the object's.
            process.setArguments({"x"});
            ExitState state;
            EXPECT_TRUE(process.wait(state, false, 0));
            std::ErrorStorage::ack();
            EXPECT_NE("", ProcessTNG::getOwnProcessName());
        });
        constexpr int CHILDREN = SLOWDOWN > 1 ? 15 : 500;
        for (int i = 0; i < CHILDREN; ++i) {
            ProcessTNG process;
            setProbe(process, {"exit", std::to_string(i % 100)});
            vesk::sched::Attr attributes;
            attributes.policy = vesk::sched::VESK_SCHED_POLICY_RR;
            attributes.param.priority = 100000;
            process.setSchedAttrs(attributes);
            process.setAffinity({false});
            process.setEnvironment({{"NAME", std::string(10000, 'v')}});
            process.setStdoutFile("/no/such/directory/file", false);
            process.setStderrFile("/no/such/directory/file", false);
            process.setStdinFile("/no/such/file");
            process.setNewGroup(true);
            EXPECT_TRUE(hasExitedWith(run(process), i % 100));
            if (i % 10 == 0) {
                EXPECT_TRUE(process.setExecutable("/no/such/program"));
                std::ErrorStorage::ack();
                EXPECT_TRUE(support::wasKilledBy(run(process), SIGABRT));
            }
        }
    });
    EXPECT_EQ(0, end.exit_code) << end.output.substr(0, 2000);
}

/// A locale with a pipe as its file: the thread that loads it waits for a writer and holds libc's locale lock.
TEST_F(ProcessCrowd, noChildIsHeldUpByAThreadThatLoadsALocale) {
    support::TempDir const locales;
    std::string const folder = locales / "slow";
    std::string const pipe = folder + "/LC_CTYPE";
    ASSERT_EQ(0, mkdir(folder.c_str(), 0700));
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    support::ChildEnd const end = support::runInChild([&] {
        setenv("LOCPATH", (locales / "").c_str(), 1);
        std::atomic<pid_t> loader{0};
        std::thread thread([&] {
            loader = static_cast<pid_t>(syscall(SYS_gettid));
            EXPECT_EQ(nullptr, newlocale(LC_CTYPE_MASK, "slow", nullptr));
        });
        EXPECT_TRUE(support::eventually([&] { return loader != 0; }));
        support::waitUntilAsleep(getpid(), loader);
        ProcessTNG process;
        setProbe(process, {"exit", "3"});
        process.setStdinFile("/no/such/file");
        process.setAffinity({false});
        EXPECT_GT(process.start(), 0);
        ExitState state;
        EXPECT_FALSE(process.wait(state, true, 20'000));
        EXPECT_TRUE(hasExitedWith(state, 3));
        EXPECT_FALSE(process.kill(false)); // Where it hangs.
        close(open(pipe.c_str(), O_WRONLY | O_CLOEXEC));
        thread.join();
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    unlink(pipe.c_str());
    rmdir(folder.c_str());
}

TEST_F(ProcessCrowd, startsFromManyThreadsDoNotStopEachOther) {
    // Objects, the collector and the listeners, whose locks go in one order.
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 300 / SLOWDOWN + 3;
    struct Restarter : ProcessTNG::ExitListener {
        void processExited(ExitState const* state) override {
            if (ends + 1 < ROUNDS) {
                EXPECT_GT(state->process->start(), 0);
            }
            ++ends;
        }
        std::atomic<int> ends{0};
    };
    Restarter listeners[THREADS];
    {
        std::vector<std::unique_ptr<ProcessTNG>> processes;
        for (Restarter& listener : listeners) {
            processes.push_back(std::make_unique<ProcessTNG>());
            setProbe(*processes.back(), {"exit", "0"});
            processes.back()->setExitListener(&listener);
        }
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t) {
            threads.emplace_back([&, t] {
                EXPECT_GT(processes[static_cast<size_t>(t)]->start(), 0);
                while (listeners[t].ends < ROUNDS) {
                    ExitState state;
                    if (processes[static_cast<size_t>(t)]->wait(state, true, 1)) {
                        std::ErrorStorage::ack();
                    }
                    processes[static_cast<size_t>(t)]->getPid();
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    for (Restarter const& listener : listeners) {
        EXPECT_EQ(ROUNDS, listener.ends);
    }
}

} // namespace
