#pragma once

#include "Ballast.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

/// The work that each loop does. An engine has `watch`, `echo`, `addTimer`, `restartAndStop`, `post` and `runOnce`.

constexpr size_t POSTS = 20000;
constexpr size_t MESSAGE = 64;

inline void takeByte(int fd) {
    char byte = 0;
    check(read(fd, &byte, 1) != 1);
}

/// Connected sockets. The engine owns the second ones, and closes them: thousands of them are opened in a run.
class Peers {
public:
    explicit Peers(size_t count) : m_fds(count) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (auto& pair : m_fds) {
            check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0);
        }
    }
    ~Peers() {
        for (auto& pair : m_fds) {
            close(pair[0]);
        }
    }
    Peers(Peers const&) = delete;
    Peers& operator=(Peers const&) = delete;
    std::vector<std::array<int, 2>> const& get() const { return m_fds; }

private:
    std::vector<std::array<int, 2>> m_fds;
};

template <typename Engine>
void wakeLoop(benchmark::State& state) {
    Peers const peers(1);
    auto const [writer, reader] = peers.get()[0];
    {
        Engine engine;
        size_t served = 0;
        engine.watch(reader, served);
        for (auto _ : state) {
            served = 0;
            check(write(writer, "x", 1) != 1);
            while (served == 0) {
                engine.runOnce();
            }
        }
    }
}

template <typename Engine>
void timeLoop(benchmark::State& state) {
    Engine engine;
    for (int i = 0; i < state.range(0); ++i) {
        engine.addTimer();
    }
    for (auto _ : state) {
        engine.restartAndStop();
    }
}

template <typename Engine>
void postToLoop(benchmark::State& state) {
    auto const count = static_cast<size_t>(state.range(0));
    Engine engine;
    for (auto _ : state) {
        size_t served = 0;
        std::vector<std::thread> threads;
        for (size_t i = 0; i < count; ++i) {
            threads.emplace_back([&] {
                for (size_t n = 0; n < POSTS / count; ++n) {
                    engine.post(served);
                }
            });
        }
        while (served < POSTS / count * count) {
            engine.runOnce();
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
}

template <typename Engine>
void echoInLoop(benchmark::State& state) {
    Peers const peers(static_cast<size_t>(state.range(0)));
    Engine engine;
    size_t served = 0;
    for (auto const& pair : peers.get()) {
        engine.echo(pair[1], served);
    }
    std::array<char, MESSAGE> message{};
    for (auto _ : state) {
        served = 0;
        for (auto const& pair : peers.get()) {
            check(write(pair[0], message.data(), MESSAGE) != MESSAGE);
        }
        while (served < peers.get().size()) {
            engine.runOnce();
        }
        for (auto const& pair : peers.get()) {
            check(read(pair[0], message.data(), MESSAGE) != MESSAGE);
        }
    }
}

#define LOOP_ROWS(Engine, side)                                                                              \
    BENCHMARK(wakeLoop<Engine>)->Name("Loop wake-up by a descriptor/" side);                                 \
    BENCHMARK(timeLoop<Engine>)                                                                              \
        ->Name("Loop timer start plus stop, others pending/" side)                                           \
        ->Arg(1)                                                                                             \
        ->Arg(1000)                                                                                          \
        ->Arg(100000);                                                                                       \
    BENCHMARK(postToLoop<Engine>)                                                                            \
        ->Name("Loop, 20,000 posts, threads/" side)                                                          \
        ->Arg(1)                                                                                             \
        ->Arg(4)                                                                                             \
        ->Arg(8)                                                                                             \
        ->UseRealTime();                                                                                     \
    BENCHMARK(echoInLoop<Engine>)->Name("Loop echo, connections/" side)->Arg(1)->Arg(1000)->UseRealTime()
