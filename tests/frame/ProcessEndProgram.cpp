// Ends while its threads use the libraries: ProcessEndProgram WAY PREFIX. Prints "ending" just before.

#include "Uses.h"
#include "support/Emulation.h"
#include "threads/SignalsToMainThread.h"

#include <vesk/SignalCatcher.h>
#include <vesk/Timer.h>
#include <vesk/Vesk.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
// Threads still own memory when the process ends.
extern "C" char const* __asan_default_options() {
    return "detect_leaks=0";
}
#endif

#if defined(__SANITIZE_THREAD__)
// Ended threads may not be joined yet when the process ends.
extern "C" char const* __tsan_default_options() {
    return "report_thread_leaks=0";
}
#endif

namespace {

/// The threads begin to use the libraries repeatedly just before the end, together.
pthread_barrier_t s_ready;

void* use(void* use) {
    auto const round = static_cast<uses::Use const*>(use)->round;
    round();
    pthread_barrier_wait(&s_ready);
    for (;;) {
        round();
    }
}

/// A global object of the program, destroyed by `exit` after main has returned.
struct ReadsTheDirectoryAtTheEnd {
    ~ReadsTheDirectoryAtTheEnd() {
        if (!expected.empty() && vesk::getDefaultConfigDir() != expected) {
            fprintf(stderr, "the configuration directory is gone\n");
            abort();
        }
    }
    std::string expected;
} s_reader;

void announce() {
    static_cast<void>(!write(STDOUT_FILENO, "ending", 6));
}

/// Not `pause`: the thread sanitizer would handle a signal that arrives just before it only after it.
void waitForSignals() {
    poll(nullptr, 0, 10);
}

/// Returns only under the thread sanitizer, which loses an expiry in about one of a hundred processes: the
/// kernel delivers the signal to the sanitizer's handler, and that does not call the handler of the library.
void waitForExpiry() {
#if defined(__SANITIZE_THREAD__)
    for (int i = 0; i < 100; ++i) {
        waitForSignals();
    }
#else
    for (;;) {
        waitForSignals();
    }
#endif
}

void endInACallback() {
    announce();
    exit(0);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    std::string const way = argv[1];
    vesk::Vesk const vesk(true, false);
    uses::setUp(argv[2]);
    s_reader.expected = vesk::getDefaultConfigDir();
    if (support::IS_EMULATED) {
        // Keep both engines: an emulator may delay an expiry until the end of an engine has released its
        // signal.
        new vesk::Timer([](vesk::Timer*) {}, false);
        new vesk::Timer([](vesk::Timer*) {}, true);
    }
    pthread_barrier_init(&s_ready, nullptr, static_cast<unsigned int>(uses::COUNT) + 1);
    for (size_t i = 0; i < uses::COUNT; ++i) {
        pthread_t thread{};
        if (pthread_create(&thread, nullptr, use, const_cast<uses::Use*>(&uses::USES[i])) != 0) {
            return 3;
        }
    }
    pthread_barrier_wait(&s_ready);
    if (way == "timer") {
        vesk::Timer timer([](vesk::Timer*) { endInACallback(); }, false);
        for (;;) {
            timer.start(1, false);
            waitForExpiry();
            timer.stop();
        }
    }
    if (way == "catcher") {
        vesk::SignalCatcher const catcher(
            SIGUSR2, [](int, void*) { endInACallback(); }, nullptr);
        kill(getpid(), SIGUSR2);
        for (;;) {
            waitForSignals();
        }
    }
    announce();
    if (way == "quick_exit") {
        quick_exit(0);
    }
    if (way == "exit") {
        exit(0);
    }
    return 0;
}
