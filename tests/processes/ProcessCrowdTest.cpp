#include "processes/ProcessSupport.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/tracing/Channel.h>

#include <iostream>
#include <locale.h>

// Many children of many threads.
namespace {

using namespace support;

class ProcessCrowd : public ProcessTest {};

TEST_F(ProcessCrowd, losesNoneOf20000ChildrenThatEndAtOnce) {
    constexpr int THREADS = 4;
    constexpr int CHILDREN = 20000 / SLOWDOWN / THREADS;
    EventRecorder recorder;
    std::atomic<int> wrong{0};
    runInThreads(THREADS, [&](int) {
        ProcessTNG process;
        RecordingListener listener([&](ExitState const& state) {
            // In the order of the starts, and each of them once.
            wrong += hasExitedWith(state, listener.calls % 100) ? 0 : 1;
        });
        process.setExitListener(&listener);
        for (int i = 0; i < CHILDREN; ++i) {
            setExit(process, i % 100);
            ExitState state;
            // The listener follows the waiter, but precedes the end of any other child.
            if (process.start() <= 0 || process.wait(state, false, 0) || !hasExitedWith(state, i % 100) ||
                state.process != &process || !eventually([&] { return listener.calls == i + 1; })) {
                ++wrong;
            }
        }
        EXPECT_EQ(CHILDREN, listener.calls);
    });
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
    EXPECT_EQ(1U, countCollectors());
}

TEST_F(ProcessCrowd, runsAThousandChildrenAtATime) {
    constexpr int COUNT = 1000 / SLOWDOWN;
    std::vector<ProcessTNG> processes(COUNT);
    HeldProbe held;
    for (ProcessTNG& process : processes) {
        held.set(process);
        EXPECT_GT(process.start(), 0);
    }
    held.waitUntilBegun(COUNT);
    held.release();
    for (ProcessTNG& process : processes) {
        EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    }
}

TEST_F(ProcessCrowd, killsAndWaitsInManyThreadsFetchOneStatePerChild) {
    constexpr int ROUNDS = 200 / SLOWDOWN + 5;
    for (int round = 0; round < ROUNDS; ++round) {
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        EXPECT_GT(process.start(), 0);
        std::atomic<int> fetched{0};
        runInThreads(3, [&](int t) {
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
        EXPECT_EQ(1, fetched);
    }
}

/// Threads that each repeat one action while a test starts children.
class Workers {
public:
    template <typename Action>
    void add(Action action) {
        m_threads.emplace_back([this, action] {
            while (!m_stop) {
                action();
                ++m_actions;
            }
        });
    }
    ~Workers() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        EXPECT_GT(m_actions, 0);
    }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_actions{0};
    std::vector<std::thread> m_threads;
};

// The child does everything that it can do between fork and exec, each with its failure, while other threads
// hold the locks that reports, warnings and lines on standard error take.
TEST_F(ProcessCrowd, noChildIsBlockedByOtherThreads) {
    expectInChild([] {
        alarm(110);
        int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(STDERR_FILENO, dup2(null, STDERR_FILENO));
        close(null);
        tracing::Channel channel("Worker", 7, tracing::Channel::WITH_THREAD | tracing::Channel::WITH_TIME);
        Workers workers;
        workers.add([] {
            for (int level = 0; level < 10; ++level) { // Long enough to map memory, too.
                std::ErrorOutput("worker", level, level == 0)(
                    vesk::SysError, vesk::SysErrorId::UNCLASSIFIED, "text");
            }
            EXPECT_NE("", tarn_error.getReasonList());
            std::ErrorStorage::ack();
        });
        workers.add([] { std::ErrorStorage const errors(std::ErrorStorage::action_dump_to_stdout); });
        workers.add([] {
            std::vector<std::unique_ptr<std::string>> memory;
            for (size_t size = 1; size < 100000; size *= 3) {
                memory.push_back(std::make_unique<std::string>(size, 'x'));
            }
        });
        workers.add([&channel] {
            channel.logCV(3, "a line of %d", 1);
            tracing::Channel::setThreshold("Worker", 3);
            tracing::Channel const other("Other", 1, 0);
        });
        workers.add([] { std::GlobalErrorHandler::doWarning("worker", 1, "worker", "%s", "a warning"); });
        workers.add([] { std::cerr << "a line " << 1 << std::endl; });
        workers.add([] { freelocale(newlocale(LC_ALL_MASK, "C.UTF-8", nullptr)); });
        workers.add([] {
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
            setExit(process, i % 100);
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
                EXPECT_TRUE(wasKilledBy(run(process), SIGABRT));
            }
        }
    });
}

// The file of the locale is a pipe: the thread that loads it waits for a writer and holds libc's locale lock.
TEST_F(ProcessCrowd, noChildIsBlockedByAThreadThatLoadsALocale) {
    TempFolder const locales;
    std::string const folder = locales / "slow";
    std::string const pipe = folder + "/LC_CTYPE";
    ASSERT_EQ(0, mkdir(folder.c_str(), 0700));
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    expectInChild([&] {
        setenv("LOCPATH", (locales / "").c_str(), 1);
        SleepingThread loader([] { EXPECT_EQ(nullptr, newlocale(LC_CTYPE_MASK, "slow", nullptr)); });
        ProcessTNG process;
        setExit(process, 3);
        process.setStdinFile("/no/such/file");
        process.setAffinity({false});
        EXPECT_GT(process.start(), 0);
        ExitState state;
        EXPECT_FALSE(process.wait(state, true, 20'000));
        EXPECT_TRUE(hasExitedWith(state, 3));
        EXPECT_FALSE(process.kill(false)); // If it hangs.
        close(open(pipe.c_str(), O_WRONLY | O_CLOEXEC));
        loader.join();
    });
}

// The locks of the objects, the collector and the listeners have one order.
TEST_F(ProcessCrowd, startsFromManyThreadsDoNotBlockEachOther) {
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
        ProcessTNG processes[THREADS];
        runInThreads(THREADS, [&](int t) {
            ProcessTNG& process = processes[t];
            setExit(process, 0);
            process.setExitListener(&listeners[t]);
            EXPECT_GT(process.start(), 0);
            while (listeners[t].ends < ROUNDS) {
                ExitState state;
                if (process.wait(state, true, 1)) {
                    std::ErrorStorage::ack();
                }
                process.getPid();
            }
        });
    }
    for (Restarter const& listener : listeners) {
        EXPECT_EQ(ROUNDS, listener.ends);
    }
}

} // namespace
