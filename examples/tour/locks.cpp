#include "Tour.h"

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>

#include <new>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tour {

namespace {

constexpr int FIGHT_ROUNDS = 200000;
constexpr int MEETINGS = 20000;

/// The shared state of two sides: a counter that both increment, and the side that has the ball.
template <typename Mutex, typename Condition>
struct Arena {
    Mutex mutex;
    Condition ball_moved;
    long long counter = 0; // Not atomic: the lock alone protects it.
    int ball_at = 0;
};

template <typename Mutex, typename Condition>
bool fight(Arena<Mutex, Condition>& arena) {
    for (int i = 0; i < FIGHT_ROUNDS; ++i) {
        vesk::ScopedLock<Mutex const> const lock(arena.mutex);
        if (!lock.isLocked()) {
            return true;
        }
        ++arena.counter;
    }
    return false;
}

template <typename Mutex, typename Condition>
bool throwBall(Arena<Mutex, Condition>& arena, int side) {
    for (int i = 0; i < MEETINGS; ++i) {
        vesk::ScopedLock<Mutex const> const lock(arena.mutex);
        while (arena.ball_at != side) {
            if (arena.ball_moved.wait(arena.mutex)) {
                return true;
            }
        }
        arena.ball_at = 1 - side;
        if (arena.ball_moved.signal()) {
            return true;
        }
    }
    return false;
}

/// Runs `play` on both sides at the same time. Returns how many microseconds that took.
template <typename OtherSide, typename Play>
double bothSides(OtherSide const& other_side, Play const& play) {
    vesk::RealtimeStopWatch watch(true);
    failed(other_side(play), "a side of the arena");
    watch.stop();
    return static_cast<double>(watch.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
}

template <typename Mutex, typename Condition, typename OtherSide>
void runArena(Arena<Mutex, Condition>& arena, OtherSide const& other_side) {
    double const fight_us = bothSides(other_side, [&arena](int) { return fight(arena); });
    tell(
        "contention on a counter: %lld of %d, %.3f us per round", arena.counter, 2 * FIGHT_ROUNDS,
        fight_us / (2 * FIGHT_ROUNDS));
    failed(arena.counter != 2LL * FIGHT_ROUNDS, "the counter is right");
    double const ball_us = bothSides(other_side, [&arena](int side) { return throwBall(arena, side); });
    tell("ping-pong: %d round trips, %.2f us each", MEETINGS, ball_us / MEETINGS);
}

} // namespace

void locks() {
    section("Locks: two threads, Mutex and Condition");
    Arena<vesk::Mutex, vesk::Condition> local;
    runArena(local, [](auto const& play) {
        bool other_failed = true;
        std::thread other([&] { other_failed = play(1); });
        bool const mine_failed = play(0);
        other.join();
        return mine_failed || other_failed;
    });

    section("Locks: two processes, ShmMutex and ShmCondition");
    using SharedArena = Arena<vesk::ShmMutex, vesk::ShmCondition>;
    void* const memory =
        mmap(nullptr, sizeof(SharedArena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (failed(memory == MAP_FAILED, "mapping memory")) {
        return;
    }
    auto* const shared = new (memory) SharedArena;
    if (!failed(!shared->mutex.isValid() || !shared->ball_moved.isValid(), "locks in shared memory")) {
        runArena(*shared, [](auto const& play) {
            pid_t const child = fork();
            if (child == 0) {
                _exit(play(1) ? 1 : 0);
            }
            bool const mine_failed = play(0);
            int status = 0;
            return waitpid(child, &status, 0) != child || status != 0 || mine_failed;
        });
    }
    shared->~SharedArena();
    munmap(memory, sizeof(SharedArena));
}

} // namespace tour
