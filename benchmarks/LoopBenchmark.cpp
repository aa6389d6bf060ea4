#include "Ballast.h"
#include "LoopWork.h"

#include <vesk/loop/Command.h>
#include <vesk/loop/Connection.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char const* PROGRAM = "/bin/true";

void startWithCommand(benchmark::State& state) {
    Ballast const ballast(state);
    vesk::loop::Command const command(PROGRAM);
    for (auto _ : state) {
        auto child = command.start();
        check(!child || !child->wait());
    }
}

void startBare(benchmark::State& state) {
    Ballast const ballast(state);
    for (auto _ : state) {
        pid_t const child = vfork();
        if (child == 0) {
            execl(PROGRAM, PROGRAM, nullptr);
            _exit(127);
        }
        check(waitpid(child, nullptr, 0) != child);
    }
}

BENCHMARK(startWithCommand)
    ->Name("Command start and wait, MiB of the parent (at most 1.2)/vesk")
    ->Arg(0)
    ->Arg(512)
    ->UseRealTime();
BENCHMARK(startBare)
    ->Name("Command start and wait, MiB of the parent (at most 1.2)/bare")
    ->Arg(0)
    ->Arg(512)
    ->UseRealTime();

// ---- the loop: each engine does the work of LoopWork.h ----

/// Fails the benchmark without a result.
template <typename T>
T need(vesk::loop::Result<T> result) {
    check(!result);
    return std::move(*result);
}

struct VeskEngine {
    void watch(int fd, size_t& served) {
        fds.emplace_back(fd);
        watches.push_back(need(loop.onReadable(fd, [fd, &served] {
            takeByte(fd);
            ++served;
        })));
    }
    void echo(int fd, size_t& served) {
        auto& connection = *connections.emplace_back(std::make_unique<vesk::loop::Connection>(
            need(vesk::loop::Connection::adopt(loop, vesk::loop::Fd(fd)))));
        check(!connection.onData([&connection, &served](std::string_view data) {
            check(!connection.write(data));
            ++served;
        }));
    }
    void addTimer() {
        timers.push_back(need(loop.after(std::chrono::hours(1), [] {})));
    }
    void restartAndStop() {
        timer.restart(std::chrono::hours(1));
        timer.stop();
    }
    void post(size_t& served) {
        check(!loop.post([&served] { ++served; }));
    }
    void runOnce() { check(!loop.runOnce(std::chrono::seconds(1))); }

    vesk::loop::Loop loop;
    std::vector<vesk::loop::Fd> fds;
    std::vector<vesk::loop::Watch> watches;
    std::vector<std::unique_ptr<vesk::loop::Connection>> connections;
    std::vector<vesk::loop::Timer> timers;
    vesk::loop::Timer timer = need(loop.after(std::chrono::hours(1), [] {}));
};
LOOP_ROWS(VeskEngine, "vesk");

/// What a program would write that has only one kind of each.
struct BareEngine {
    BareEngine() { add(event); }
    ~BareEngine() {
        close(event);
        close(timer);
        close(epoll);
    }
    BareEngine(BareEngine const&) = delete;
    BareEngine& operator=(BareEngine const&) = delete;

    void add(int fd) const {
        epoll_event row{};
        row.events = EPOLLIN;
        row.data.fd = fd;
        check(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &row) != 0);
    }
    void watch(int fd, size_t& count) {
        fds.emplace_back(fd);
        add(fd);
        served = &count;
    }
    void echo(int fd, size_t& count) {
        watch(fd, count);
        echoes = true;
    }
    void addTimer() {}
    void restartAndStop() const {
        itimerspec setting{};
        setting.it_value.tv_sec = 3600;
        timerfd_settime(timer, 0, &setting, nullptr);
        setting = {};
        timerfd_settime(timer, 0, &setting, nullptr);
    }
    void post(size_t& count) {
        std::lock_guard<std::mutex> const held(mutex);
        posts.push_back(&count);
        if (posts.size() == 1) {
            eventfd_write(event, 1);
        }
    }
    void serve(int fd) {
        if (fd == event) {
            eventfd_t value = 0;
            eventfd_read(event, &value);
            std::vector<size_t*> batch;
            {
                std::lock_guard<std::mutex> const held(mutex);
                batch.swap(posts);
            }
            for (size_t* const count : batch) {
                ++*count;
            }
        } else if (echoes) {
            std::array<char, 16 * 1024> buffer;
            ssize_t const size = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
            check(send(fd, buffer.data(), static_cast<size_t>(size), MSG_DONTWAIT) != size);
            ++*served;
        } else {
            takeByte(fd);
            ++*served;
        }
    }
    void runOnce() {
        std::array<epoll_event, 128> rows;
        int const count = epoll_wait(epoll, rows.data(), static_cast<int>(rows.size()), 1000);
        for (int i = 0; i < count; ++i) {
            serve(rows[static_cast<size_t>(i)].data.fd);
        }
    }

    int epoll = epoll_create1(EPOLL_CLOEXEC);
    int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    size_t* served = nullptr;
    bool echoes = false;
    std::vector<vesk::loop::Fd> fds;
    std::mutex mutex;
    std::vector<size_t*> posts;
};
LOOP_ROWS(BareEngine, "bare");

} // namespace
