#include "Tour.h"

#include <vesk/RealtimeStopWatch.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>

#include <atomic>
#include <pthread.h>
#include <string>
#include <vector>

namespace tour {

namespace {

/// The states of `vesk::Thread`, by value.
constexpr char const* STATES[] = {"created", "running", "suspended", "finished", "dead"};

char const* stateOf(vesk::Thread const& thread) {
    return STATES[thread.getThreadState()];
}

/// Waits at most a minute until a thread is in a state. Returns true on failure.
bool waitForState(vesk::Thread const& thread, vesk::Thread::State state) {
    for (int i = 0; i < 60 * 1000 && thread.getThreadState() != state; ++i) {
        static_cast<void>(vesk::Time::sleep(1));
    }
    return thread.getThreadState() != state;
}

/// The state of a thread that works, suspends itself until it is woken up, and works again.
struct Sleeper {
    vesk::Thread* thread = nullptr;
    std::atomic<int> rounds{0};
    bool failed = true;
};

std::atomic<int> s_exits{0};

void workSleepWork(void* argument) {
    auto& sleeper = *static_cast<Sleeper*>(argument);
    sleeper.failed =
        vesk::Thread::registerExitHandler([](vesk::Thread::ThreadId const&, vesk::Thread::ExitReason reason) {
            s_exits += reason == vesk::Thread::EXIT_NORMAL ? 1 : 0;
        });
    ++sleeper.rounds;
    sleeper.failed = sleeper.thread->suspend(0) || sleeper.failed;
    ++sleeper.rounds;
}

} // namespace

void threads() {
    section("Threads: created, started, suspended, resumed, joined");
    Sleeper sleeper;
    vesk::Thread thread(workSleepWork, &sleeper, "a name whose tail is seen: night-shift");
    if (failed(!thread.isValid(), "making a thread")) {
        return;
    }
    sleeper.thread = &thread;
    std::string seen(16, '\0');
    vesk::RealtimeStopWatch watch(true);
    failed(thread.start(), "start");
    watch.stop();
    failed(waitForState(thread, vesk::Thread::SUSPENDED), "the thread suspends itself");
    pthread_getname_np(thread.getThreadId().getValue(), seen.data(), seen.size());
    tell(
        "\"%s\" waited for its start, which took %lld us; after %d round it is %s", seen.c_str(),
        watch.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS), sleeper.rounds.load(),
        stateOf(thread));
    std::vector<bool> processors;
    if (!failed(thread.getCPUAffinity(processors), "getCPUAffinity")) {
        size_t allowed = 0;
        for (bool const processor : processors) {
            allowed += processor;
        }
        tell(
            "it may run on %zu of %zu processors, with priority %d", allowed, processors.size(),
            thread.getPriority());
    }
    tell("joining it within 20 ms returns %d: it still runs", thread.joinTimeout(20));
    failed(thread.wakeup(), "wakeup");
    failed(thread.join(), "join");
    failed(
        sleeper.failed || sleeper.rounds != 2 || s_exits != 1, "two rounds and one call of the exit handler");
    tell("resumed and joined after %d rounds: it is %s", sleeper.rounds.load(), stateOf(thread));
}

} // namespace tour
