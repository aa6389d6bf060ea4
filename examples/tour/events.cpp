#include "Tour.h"

#include <vesk/Dispatcher.h>
#include <vesk/Poller.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/SignalCatcher.h>
#include <vesk/Thread.h>

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <unistd.h>

namespace tour {

namespace {

double microseconds(vesk::RealtimeStopWatch const& watch) {
    return static_cast<double>(watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
}

// ---- a dispatcher with two sources ----

constexpr int URGENT = 3;
constexpr int ORDINARY = 100000;

/// The record that the messages of both sources write. Only the dispatcher's thread accesses it.
struct Log {
    vesk::Dispatcher* dispatcher = nullptr;
    int urgent = 0;
    int ordinary = 0;
    int ordinary_before_urgent = 0; // Ordinary messages before the last urgent one.
};

void takeUrgent(void* log) {
    auto& entries = *static_cast<Log*>(log);
    ++entries.urgent;
    entries.ordinary_before_urgent = entries.ordinary;
}

void takeOrdinary(void* log) {
    auto& entries = *static_cast<Log*>(log);
    if (++entries.ordinary == ORDINARY) {
        entries.dispatcher->stop();
    }
}

void dispatchTwoSources() {
    section("Events: a dispatcher with an urgent and an ordinary source");
    vesk::Dispatcher::VanillaNotifier notifier;
    vesk::Dispatcher::VanillaQueue urgent(notifier);
    vesk::Dispatcher::VanillaQueue ordinary(notifier);
    vesk::Dispatcher dispatcher(notifier);
    dispatcher.add_source(urgent);
    dispatcher.add_source(ordinary);
    Log log;
    log.dispatcher = &dispatcher;
    for (int i = 0; i < ORDINARY; ++i) {
        ordinary.push(new vesk::Message::Callback(takeOrdinary, &log));
    }
    for (int i = 0; i < URGENT; ++i) {
        urgent.push(new vesk::Message::Callback(takeUrgent, &log));
    }
    vesk::RealtimeStopWatch const watch(true);
    vesk::Thread loop(vesk::Dispatcher::main, &dispatcher, "tour loop");
    if (failed(loop.start(), "starting the loop") || failed(loop.join(), "joining the loop")) {
        return;
    }
    double const us = microseconds(watch);
    failed(
        log.urgent != URGENT || log.ordinary != ORDINARY || log.ordinary_before_urgent != 0,
        "every message arrived, the urgent ones first");
    tell(
        "%d ordinary messages were pending when %d urgent ones arrived: all urgent ones came first; %.2f us "
        "each",
        log.ordinary, log.urgent, us / (URGENT + ORDINARY));
}

// ---- a signal ----

constexpr int SIGNALS = 1000;

struct Reception {
    Reception() { sem_init(&received, 0, 0); }
    ~Reception() { sem_destroy(&received); }

    sem_t received;
    int signal = 0;
    std::array<char, 32> thread_name{};
};

void receive(int signal, void* argument) {
    auto& reception = *static_cast<Reception*>(argument);
    reception.signal = signal;
    pthread_getname_np(pthread_self(), reception.thread_name.data(), reception.thread_name.size());
    sem_post(&reception.received);
}

void catchSignals() {
    section("Events: SIGUSR1, sent to the process, received on a thread");
    Reception reception;
    vesk::SignalCatcher const catcher(SIGUSR1, receive, &reception);
    vesk::RealtimeStopWatch const watch(true);
    for (int i = 0; i < SIGNALS; ++i) {
        kill(getpid(), SIGUSR1);
        while (sem_wait(&reception.received) != 0) {} // The signal may interrupt the wait.
    }
    double const us = microseconds(watch);
    // The library gives the system the last 15 characters of a longer thread name.
    std::string const name = reception.thread_name.data();
    failed(reception.signal != SIGUSR1 || name != "ignalDispatcher", "the signal is received on its thread");
    tell(
        "%d round trips: received as an ordinary call on \"...%s\", %.1f us each", SIGNALS, name.c_str(),
        us / SIGNALS);
}

// ---- a poller ----

constexpr size_t PIPES = 32;
constexpr size_t PASSERS = 2000;
constexpr int BYTES = 20000;

/// Counts the bytes that are read from pipes.
class Counter : public vesk::Poller::Client {
public:
    int poll_events(int) override { return POLLIN; }
    void read(int fd) override {
        std::array<char, 256> bytes;
        ssize_t const count = ::read(fd, bytes.data(), bytes.size());
        m_bytes += count > 0 ? static_cast<long>(count) : 0;
    }

    void error(int fd) override { tell("descriptor %d has failed", fd); }

    long getBytes() const { return m_bytes; }

private:
    std::atomic<long> m_bytes{0};
};

/// A client that is added, polled without receiving an event, and removed.
class Passer : public vesk::Poller::Client {
public:
    int poll_events(int) override {
        m_asked = true;
        return POLLIN;
    }
    void error(int fd) override { tell("descriptor %d has failed", fd); }

    bool wasAsked() const { return m_asked; }

private:
    std::atomic<bool> m_asked{false};
};

struct Pipes {
    Pipes() {
        for (auto& ends : all) {
            failed(pipe(ends.data()) != 0, "pipe");
        }
    }
    ~Pipes() {
        for (auto const& ends : all) {
            close(ends[0]);
            close(ends[1]);
        }
    }
    std::array<std::array<int, 2>, PIPES> all{};
};

void pollLoop(void* poller) {
    while (!static_cast<vesk::Poller*>(poller)->poll()) {}
}

void pollPipes() {
    section("Events: a poller on pipes while another thread adds and removes");
    Pipes const pipes;
    std::array<int, 2> silent{};
    failed(pipe(silent.data()) != 0, "pipe");
    Counter counter;
    auto const passers = std::make_unique<std::array<Passer, PASSERS>>();
    vesk::Poller poller;
    for (auto const& ends : pipes.all) {
        poller.add(counter, ends[0]);
    }
    vesk::Thread loop(pollLoop, &poller, "tour poller");
    struct Changer {
        vesk::Poller& poller;
        std::array<Passer, PASSERS>& passers;
        int fd;
    } changer{poller, *passers, silent[0]};
    vesk::Thread changes(
        [](void* argument) {
            auto const& [changed, clients, fd] = *static_cast<Changer*>(argument);
            for (Passer& client : clients) {
                changed.add(client, fd);
                while (!client.wasAsked()) {
                    static_cast<void>(vesk::Thread::yield());
                }
                changed.remove(client);
            }
        },
        &changer, "tour changes");
    vesk::RealtimeStopWatch const watch(true);
    failed(loop.start(), "starting the loop");
    failed(changes.start(), "starting the changes");
    for (int i = 0; i < BYTES; ++i) {
        failed(write(pipes.all[static_cast<size_t>(i) % PIPES][1], "x", 1) != 1, "writing");
    }
    failed(changes.join(), "joining the changes");
    while (counter.getBytes() < BYTES) {
        static_cast<void>(vesk::Thread::yield());
    }
    double const us = microseconds(watch);
    poller.stop();
    failed(loop.join(), "joining the loop");
    close(silent[0]);
    close(silent[1]);
    tell(
        "%ld of %d bytes through %zu pipes, while %zu other clients were added and removed: %.0f ms",
        counter.getBytes(), BYTES, PIPES, PASSERS, us / 1000);
}

} // namespace

void events() {
    dispatchTwoSources();
    catchSignals();
    pollPipes();
}

} // namespace tour
