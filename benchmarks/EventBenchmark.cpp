#include "Often.h"

#include <vesk/Dispatcher.h>
#include <vesk/Poller.h>

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// ---- One producer to a dispatcher ----

constexpr int BATCH = 1000;

/// Counts down the jobs of a batch and signals the producer after the last one.
struct Batch {
    Batch() { sem_init(&done, 0, 0); }
    ~Batch() { sem_destroy(&done); }

    void count() {
        if (--left == 0) {
            sem_post(&done);
        }
    }

    int left = 0;
    sem_t done;
};

void countDown(void* batch) {
    static_cast<Batch*>(batch)->count();
}

void produceForDispatcher(benchmark::State& state) {
    vesk::Dispatcher::VanillaNotifier notifier;
    vesk::Dispatcher::VanillaQueue queue(notifier);
    vesk::Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    std::thread loop([&dispatcher] { vesk::Dispatcher::main(&dispatcher); });
    Batch batch;
    for (auto _ : state) {
        batch.left = BATCH;
        for (int i = 0; i < BATCH; ++i) {
            queue.push(new vesk::Message::Callback(countDown, &batch));
        }
        sem_wait(&batch.done);
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
    dispatcher.stop();
    loop.join();
}
BENCHMARK(produceForDispatcher)->Name("One producer to a dispatcher (at most 1.10)/vesk")->UseRealTime();

/// The same loop on bare pthread calls: a mutex guards a deque of jobs; a mutex, a flag and a condition form
/// the event; a third mutex guards the list of watchers that inspect each job first.
class HandMadeLoop {
public:
    class Job {
    public:
        Job(void (*function)(void*), void* argument) : m_function(function), m_argument(argument) {}
        virtual ~Job() = default;
        virtual void run() { m_function(m_argument); }

    private:
        void (*m_function)(void*);
        void* m_argument;
    };

    HandMadeLoop() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        for (pthread_mutex_t* const mutex : {&m_queue_mutex, &m_event_mutex, &m_watcher_mutex}) {
            pthread_mutex_init(mutex, &attributes);
        }
        pthread_mutexattr_destroy(&attributes);
        pthread_cond_init(&m_condition, nullptr);
    }
    ~HandMadeLoop() {
        pthread_cond_destroy(&m_condition);
        for (pthread_mutex_t* const mutex : {&m_queue_mutex, &m_event_mutex, &m_watcher_mutex}) {
            pthread_mutex_destroy(mutex);
        }
    }

    void push(Job* job) {
        pthread_mutex_lock(&m_queue_mutex);
        m_jobs.push_back(job);
        pthread_mutex_unlock(&m_queue_mutex);
        signal();
    }

    void run() {
        while (m_running.load(std::memory_order_relaxed)) {
            pthread_mutex_lock(&m_queue_mutex);
            Job* job = nullptr;
            if (!m_jobs.empty()) {
                job = m_jobs.front();
                m_jobs.pop_front();
            }
            pthread_mutex_unlock(&m_queue_mutex);
            if (job == nullptr) {
                wait();
                continue;
            }
            pthread_mutex_lock(&m_watcher_mutex);
            for (void (*const watcher)(Job*) : m_watchers) {
                watcher(job);
            }
            pthread_mutex_unlock(&m_watcher_mutex);
            job->run();
            delete job;
        }
    }

    void stop() {
        m_running.store(false, std::memory_order_relaxed);
        signal();
    }

private:
    void signal() {
        pthread_mutex_lock(&m_event_mutex);
        m_signalled = true;
        pthread_cond_signal(&m_condition);
        pthread_mutex_unlock(&m_event_mutex);
    }

    void wait() {
        pthread_mutex_lock(&m_event_mutex);
        while (!m_signalled) {
            pthread_cond_wait(&m_condition, &m_event_mutex);
        }
        m_signalled = false;
        pthread_mutex_unlock(&m_event_mutex);
    }

    std::atomic<bool> m_running{true};
    pthread_mutex_t m_queue_mutex;
    std::deque<Job*> m_jobs;
    pthread_mutex_t m_event_mutex;
    pthread_cond_t m_condition;
    bool m_signalled = false;
    pthread_mutex_t m_watcher_mutex;
    std::vector<void (*)(Job*)> m_watchers;
};

void produceByHand(benchmark::State& state) {
    HandMadeLoop hand_made;
    std::thread loop([&hand_made] { hand_made.run(); });
    Batch batch;
    for (auto _ : state) {
        batch.left = BATCH;
        for (int i = 0; i < BATCH; ++i) {
            hand_made.push(new HandMadeLoop::Job(countDown, &batch));
        }
        sem_wait(&batch.done);
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
    hand_made.stop();
    loop.join();
}
BENCHMARK(produceByHand)->Name("One producer to a dispatcher (at most 1.10)/bare")->UseRealTime();

// ---- Throughput with one producer and with two ----

/// The fastest usual loop on bare pthread calls: one mutex, one condition, and the whole backlog taken at once.
class SwappingLoop {
public:
    using Job = HandMadeLoop::Job;

    void push(Job* job) {
        pthread_mutex_lock(&m_mutex);
        m_jobs.push_back(job);
        bool const is_first = m_jobs.size() == 1;
        pthread_mutex_unlock(&m_mutex);
        if (is_first) {
            pthread_cond_signal(&m_condition);
        }
    }

    /// Ends with a null job.
    void run() {
        std::vector<Job*> jobs;
        for (;;) {
            pthread_mutex_lock(&m_mutex);
            while (m_jobs.empty()) {
                pthread_cond_wait(&m_condition, &m_mutex);
            }
            jobs.swap(m_jobs);
            pthread_mutex_unlock(&m_mutex);
            for (Job* const job : jobs) {
                if (job == nullptr) {
                    return;
                }
                job->run();
                delete job;
            }
            jobs.clear();
        }
    }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_condition = PTHREAD_COND_INITIALIZER;
    std::vector<Job*> m_jobs;
};

struct VeskLoop {
    VeskLoop() { dispatcher.add_source(queue); }
    void post(Batch& batch) { queue.push(new vesk::Message::Callback(countDown, &batch)); }
    void run() { dispatcher.run(); }
    void end() { dispatcher.stop(); }

    vesk::Dispatcher::VanillaNotifier notifier;
    vesk::Dispatcher::VanillaQueue queue{notifier};
    vesk::Dispatcher dispatcher{notifier};
};

struct BareLoop : SwappingLoop {
    void post(Batch& batch) { push(new Job(countDown, &batch)); }
    void end() { push(nullptr); }
};

/// Each producer posts half of a batch, or all of it, when the gate opens.
template <typename Loop>
void throughput(benchmark::State& state) {
    Loop loop;
    std::thread consumer([&loop] { loop.run(); });
    auto const producers = static_cast<int>(state.range(0));
    Batch batch;
    sem_t gate;
    sem_init(&gate, 0, 0);
    std::atomic<bool> ended{false};
    auto const produce = [&] {
        for (int i = 0; i < BATCH / producers; ++i) {
            loop.post(batch);
        }
    };
    std::vector<std::thread> others;
    for (int i = 1; i < producers; ++i) {
        others.emplace_back([&] {
            for (sem_wait(&gate); !ended; sem_wait(&gate)) {
                produce();
            }
        });
    }
    for (auto _ : state) {
        batch.left = BATCH / producers * producers;
        for (size_t i = 0; i < others.size(); ++i) {
            sem_post(&gate);
        }
        produce();
        sem_wait(&batch.done);
    }
    state.SetItemsProcessed(state.iterations() * (BATCH / producers * producers));
    ended = true;
    for (std::thread& other : others) {
        sem_post(&gate);
        other.join();
    }
    loop.end();
    consumer.join();
    sem_destroy(&gate);
}
BENCHMARK(throughput<VeskLoop>)
    ->Name("Dispatcher throughput, producers (at most 1.0)/vesk")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime();
BENCHMARK(throughput<BareLoop>)
    ->Name("Dispatcher throughput, producers (at most 1.0)/bare")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime();

// ---- Poller cycle with 64 descriptors ----
// ---- Poller cycle ----

constexpr int READY_EVERY = 8;

/// A number of socket pairs. Every eighth always has a byte to read, because the rows only peek at it.
class Sockets {
public:
    explicit Sockets(size_t count) : m_pairs(count) {
        for (auto& pair : m_pairs) {
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) != 0) {
                perror("socketpair");
                abort();
            }
        }
        for (size_t i = 0; i < m_pairs.size(); i += READY_EVERY) {
            if (write(m_pairs[i][1], "x", 1) != 1) {
                perror("write");
                abort();
            }
        }
    }
    ~Sockets() {
        for (auto const& pair : m_pairs) {
            close(pair[0]);
            close(pair[1]);
        }
    }

    std::vector<std::array<int, 2>> const& getPairs() const { return m_pairs; }

private:
    std::vector<std::array<int, 2>> m_pairs;
};

void peek(int fd) {
    char byte = 0;
    benchmark::DoNotOptimize(recv(fd, &byte, 1, MSG_PEEK));
}

class Peeker : public vesk::Poller::Client {
public:
    int poll_events(int) override { return POLLIN; }
    void read(int fd) override { peek(fd); }
    void error(int) override {}
};

void cycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    Peeker client;
    vesk::Poller poller;
    for (auto const& pair : sockets.getPairs()) {
        poller.add(client, pair[0]);
    }
    for (size_t i = 0; i < sockets.getPairs().size(); ++i) {
        poller.poll(); // Drains the wake-up bytes of the additions from the pipe.
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(poller.poll());
    }
}
BENCHMARK(cycle)->Name("Poller cycle (at most 1.03)/vesk")->Apply(often)->Arg(64)->Arg(512);

void bareCycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    int wake[2];
    if (pipe(wake) != 0) {
        state.SkipWithError("pipe");
        return;
    }
    std::vector<pollfd> rows{{wake[0], POLLIN, 0}};
    for (auto const& pair : sockets.getPairs()) {
        rows.push_back({pair[0], POLLIN, 0});
    }
    for (auto _ : state) {
        int const ready = poll(rows.data(), rows.size(), -1);
        benchmark::DoNotOptimize(ready);
        if ((rows[0].revents & POLLIN) != 0) {
            break;
        }
        for (size_t i = 1; i < rows.size(); ++i) {
            if ((rows[i].revents & POLLIN) != 0) {
                peek(rows[i].fd);
            }
        }
    }
    close(wake[0]);
    close(wake[1]);
}
BENCHMARK(bareCycle)->Name("Poller cycle (at most 1.03)/bare")->Apply(often)->Arg(64)->Arg(512);

} // namespace
