#include "../EventBenchmark.cpp"
#include "Peers.h"

#include <memory>

#ifdef VESK_PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/AutoPtr.h>
#include <Poco/Net/PollSet.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_network_io.h>
#include <apr_poll.h>
#include <apr_portable.h>
#endif

namespace {

#define PEER_DISPATCHER(Loop, peer)                                                                          \
    BENCHMARK(throughput<Loop>)->Name("Dispatcher throughput, producers/" peer)->Arg(1)->Arg(2)->UseRealTime()

#define PEER_CYCLE(function, peer)                                                                           \
    BENCHMARK(function)->Name("Descriptor loop cycle, descriptors/" peer)->Apply(often)->Arg(64)->Arg(512)

PEER_CYCLE(cycle, "vesk");
PEER_CYCLE(bareCycle, "bare");

/// Checks that a cycle has served every ready descriptor.
[[maybe_unused]] void expectAll(benchmark::State& state, size_t served) {
    if (served != static_cast<size_t>(state.range(0)) / READY_EVERY) {
        state.SkipWithError("a ready descriptor was not served");
    }
}

#ifdef VESK_PEER_BOOST
struct BoostLoop {
    void post(Batch& batch) {
        boost::asio::post(context, [&batch] { batch.count(); });
    }
    void run() { context.run(); }
    void end() { context.stop(); }

    boost::asio::io_context context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{context.get_executor()};
};
PEER_DISPATCHER(BoostLoop, "boost");

/// Waits for readiness again after each one, as one-shot waits require.
class BoostWatch {
public:
    BoostWatch(boost::asio::io_context& context, int fd, size_t& served)
        : m_descriptor(context, dup(fd)), m_served(served) {}

    void wait() {
        m_descriptor.async_wait(
            boost::asio::posix::descriptor_base::wait_read, [this](boost::system::error_code const& error) {
                if (!error) {
                    peek(m_descriptor.native_handle());
                    ++m_served;
                    wait();
                }
            });
    }

private:
    boost::asio::posix::stream_descriptor m_descriptor;
    size_t& m_served;
};

void boostCycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    boost::asio::io_context context(1);
    size_t served = 0;
    std::vector<std::unique_ptr<BoostWatch>> watches;
    for (auto const& pair : sockets.getPairs()) {
        watches.push_back(std::make_unique<BoostWatch>(context, pair[0], served));
        watches.back()->wait();
    }
    size_t const ready = (sockets.getPairs().size() + READY_EVERY - 1) / READY_EVERY;
    for (auto _ : state) {
        served = 0;
        while (served < ready) {
            context.run_one();
        }
    }
    expectAll(state, served);
}
PEER_CYCLE(boostCycle, "boost");
#endif

#ifdef VESK_PEER_POCO
struct PocoLoop {
    class Job : public Poco::Notification {
    public:
        explicit Job(Batch& target) : batch(target) {}
        Batch& batch;
    };

    void post(Batch& batch) { queue.enqueueNotification(new Job(batch)); }
    void run() {
        for (;;) {
            Poco::AutoPtr<Poco::Notification> const notification(queue.waitDequeueNotification());
            if (notification.isNull()) {
                return;
            }
            static_cast<Job const&>(*notification).batch.count();
        }
    }
    void end() {
        std::atomic_thread_fence(std::memory_order_seq_cst);
        // Wakes up only threads that wait already.
        while (!queue.hasIdleThreads()) {
            sched_yield();
        }
        queue.wakeUpAll();
    }

    Poco::NotificationQueue queue;
};
PEER_DISPATCHER(PocoLoop, "poco");

void pocoCycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    Poco::Net::PollSet set;
    for (auto const& pair : sockets.getPairs()) {
        set.add(
            Poco::Net::StreamSocket(new Poco::Net::StreamSocketImpl(dup(pair[0]))),
            Poco::Net::PollSet::POLL_READ);
    }
    Poco::Timespan const timeout(1, 0);
    size_t served = 0;
    for (auto _ : state) {
        served = 0;
        for (auto const& [socket, mode] : set.poll(timeout)) {
            if ((mode & Poco::Net::PollSet::POLL_READ) != 0) {
                peek(socket.impl()->sockfd());
                ++served;
            }
        }
    }
    expectAll(state, served);
}
PEER_CYCLE(pocoCycle, "poco");
#endif

#ifdef VESK_PEER_GLIB
struct GlibLoop {
    struct Job {
        Batch* batch;
    };

    GlibLoop() : queue(g_async_queue_new()) {}
    ~GlibLoop() { g_async_queue_unref(queue); }
    GlibLoop(GlibLoop const&) = delete;
    GlibLoop& operator=(GlibLoop const&) = delete;

    void post(Batch& batch) { g_async_queue_push(queue, new Job{&batch}); }
    void run() {
        for (;;) {
            auto* const job = static_cast<Job*>(g_async_queue_pop(queue));
            bool const is_end = job->batch == nullptr;
            if (!is_end) {
                job->batch->count();
            }
            delete job;
            if (is_end) {
                return;
            }
        }
    }
    void end() { g_async_queue_push(queue, new Job{nullptr}); }

    GAsyncQueue* queue;
};
PEER_DISPATCHER(GlibLoop, "glib");

gboolean glibPeek(int fd, GIOCondition, void* served) {
    peek(fd);
    ++*static_cast<size_t*>(served);
    return G_SOURCE_CONTINUE;
}

void glibCycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    GMainContext* const context = g_main_context_new();
    size_t served = 0;
    for (auto const& pair : sockets.getPairs()) {
        GSource* const source = g_unix_fd_source_new(pair[0], G_IO_IN);
        g_source_set_callback(source, G_SOURCE_FUNC(glibPeek), &served, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
    }
    for (auto _ : state) {
        served = 0;
        g_main_context_iteration(context, 1);
    }
    expectAll(state, served);
    g_main_context_unref(context);
}
PEER_CYCLE(glibCycle, "glib");
#endif

#ifdef VESK_PEER_UV
/// Calls of `uv_async_send` coalesce, so that the jobs need a queue beside it.
class UvDispatcher {
public:
    UvDispatcher() {
        m_wake.data = this;
        if (uv_mutex_init(&m_mutex) != 0 || uv_async_init(&m_loop.raw, &m_wake, serve) != 0) {
            abort();
        }
    }
    ~UvDispatcher() { uv_mutex_destroy(&m_mutex); }
    UvDispatcher(UvDispatcher const&) = delete;
    UvDispatcher& operator=(UvDispatcher const&) = delete;

    void post(Batch& batch) { push(new HandMadeLoop::Job(countDown, &batch)); }
    void run() { uv_run(&m_loop.raw, UV_RUN_DEFAULT); }
    void end() { push(nullptr); }

private:
    void push(HandMadeLoop::Job* job) {
        uv_mutex_lock(&m_mutex);
        m_jobs.push_back(job);
        uv_mutex_unlock(&m_mutex);
        uv_async_send(&m_wake);
    }
    static void serve(uv_async_t* wake) {
        auto& self = *static_cast<UvDispatcher*>(wake->data);
        uv_mutex_lock(&self.m_mutex);
        self.m_serving.swap(self.m_jobs);
        uv_mutex_unlock(&self.m_mutex);
        for (HandMadeLoop::Job* const job : self.m_serving) {
            if (job == nullptr) {
                uv_stop(&self.m_loop.raw);
            } else {
                job->run();
                delete job;
            }
        }
        self.m_serving.clear();
    }

    uv_mutex_t m_mutex{};
    std::vector<HandMadeLoop::Job*> m_jobs;
    std::vector<HandMadeLoop::Job*> m_serving;
    uv_async_t m_wake{};
    UvLoop m_loop;
};
PEER_DISPATCHER(UvDispatcher, "uv");

struct UvWatch {
    static void call(uv_poll_t* handle, int, int) {
        auto const& self = *static_cast<UvWatch*>(handle->data);
        peek(self.fd);
        ++*self.served;
    }

    uv_poll_t handle{};
    int fd = -1;
    size_t* served = nullptr;
};

void uvCycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    size_t served = 0;
    std::vector<UvWatch> watches(sockets.getPairs().size());
    UvLoop loop;
    for (size_t i = 0; i < watches.size(); ++i) {
        UvWatch& watch = watches[i];
        watch.fd = sockets.getPairs()[i][0];
        watch.served = &served;
        uv_poll_init(&loop.raw, &watch.handle, watch.fd);
        watch.handle.data = &watch;
        uv_poll_start(&watch.handle, UV_READABLE, UvWatch::call);
    }
    for (auto _ : state) {
        served = 0;
        uv_run(&loop.raw, UV_RUN_ONCE);
    }
    expectAll(state, served);
}
PEER_CYCLE(uvCycle, "uv");
#endif

#ifdef VESK_PEER_APR
void aprCycle(benchmark::State& state) {
    Sockets const sockets(static_cast<size_t>(state.range(0)));
    AprPool const pool;
    apr_pollset_t* set = nullptr;
    if (apr_pollset_create(&set, static_cast<apr_uint32_t>(state.range(0)), pool.raw, 0) != APR_SUCCESS) {
        abort();
    }
    for (auto const& pair : sockets.getPairs()) {
        apr_pollfd_t row{};
        apr_os_sock_t fd = pair[0];
        row.p = pool.raw;
        row.desc_type = APR_POLL_SOCKET;
        row.reqevents = APR_POLLIN;
        if (apr_os_sock_put(&row.desc.s, &fd, pool.raw) != APR_SUCCESS ||
            apr_pollset_add(set, &row) != APR_SUCCESS) {
            abort();
        }
    }
    size_t served = 0;
    for (auto _ : state) {
        served = 0;
        apr_int32_t count = 0;
        apr_pollfd_t const* rows = nullptr;
        if (apr_pollset_poll(set, -1, &count, &rows) != APR_SUCCESS) {
            abort();
        }
        for (apr_int32_t i = 0; i < count; ++i) {
            apr_os_sock_t fd = -1;
            apr_os_sock_get(&fd, rows[i].desc.s);
            peek(fd);
            ++served;
        }
    }
    expectAll(state, served);
    apr_pollset_destroy(set);
}
PEER_CYCLE(aprCycle, "apr");
#endif

} // namespace
