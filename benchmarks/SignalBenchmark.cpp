#include "Often.h"
#include "Together.h"

#include <vesk/SignalCatcher.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

namespace {

constexpr int SIGNAL = SIGUSR1;

/// A semaphore that the callback posts.
struct Answer {
    Answer() { sem_init(&arrived, 0, 0); }
    ~Answer() { sem_destroy(&arrived); }

    static void give(int, void* answer) { sem_post(&static_cast<Answer*>(answer)->arrived); }
    void wait() {
        while (sem_wait(&arrived) != 0) {}
    }

    sem_t arrived;
};

void roundTrip(benchmark::State& state) {
    OneProcessor const together;
    Answer answer;
    vesk::SignalCatcher const catcher(SIGNAL, Answer::give, &answer);
    measureTogether(state, [&answer] {
        raise(SIGNAL);
        answer.wait();
    });
}
BENCHMARK(roundTrip)->Name("Signal to callback and back (at most 1.3)/vesk")->UseManualTime()->Apply(often);

int s_pipe[2];

void writeByte(int) {
    int const saved_errno = errno;
    char const byte = 0;
    benchmark::DoNotOptimize(write(s_pipe[1], &byte, 1));
    errno = saved_errno;
}

/// Waits for bytes from the handler and calls back for each one until the pipe is closed.
void* callForEachByte(void* answer) {
    char byte = 0;
    while (read(s_pipe[0], &byte, 1) == 1) {
        Answer::give(SIGNAL, answer);
    }
    return nullptr;
}

void bareRoundTrip(benchmark::State& state) {
    OneProcessor const together;
    Answer answer;
    if (pipe(s_pipe) != 0) {
        state.SkipWithError("pipe");
        return;
    }
    fcntl(s_pipe[1], F_SETFL, O_NONBLOCK);
    pthread_t thread;
    pthread_create(&thread, nullptr, callForEachByte, &answer);
    struct sigaction action {};
    action.sa_handler = writeByte;
    sigfillset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    struct sigaction before {};
    sigaction(SIGNAL, &action, &before);
    measureTogether(state, [&answer] {
        raise(SIGNAL);
        answer.wait();
    });
    sigaction(SIGNAL, &before, nullptr);
    close(s_pipe[1]);
    pthread_join(thread, nullptr);
    close(s_pipe[0]);
}
BENCHMARK(bareRoundTrip)
    ->Name("Signal to callback and back (at most 1.3)/bare")
    ->UseManualTime()
    ->Apply(often);

} // namespace
