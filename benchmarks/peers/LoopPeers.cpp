#include "../LoopBenchmark.cpp"
#include "Peers.h"

#include <functional>

#ifdef VESK_PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#endif

#ifdef VESK_PEER_POCO
#include <Poco/Process.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_thread_proc.h>
#endif

namespace {

// ---- programs ----

/// Adds the rows of a peer that starts a program and waits for its end.
#define COMMAND_ROWS(function, side)                                                                         \
    BENCHMARK(function)                                                                                      \
        ->Name("Command start and wait, MiB of the parent (at most 1.2)/" side)                              \
        ->Arg(0)                                                                                             \
        ->Arg(512)                                                                                           \
        ->UseRealTime()

#ifdef VESK_PEER_UV
void startWithUv(benchmark::State& state) {
    Ballast const ballast(state);
    UvLoop loop;
    std::string program = PROGRAM;
    std::array<char*, 2> arguments = {program.data(), nullptr};
    uv_process_options_t options{};
    options.file = PROGRAM;
    options.args = arguments.data();
    options.exit_cb = [](uv_process_t* process, int64_t, int) {
        uv_close(reinterpret_cast<uv_handle_t*>(process), nullptr);
    };
    for (auto _ : state) {
        uv_process_t process;
        check(uv_spawn(&loop.raw, &process, &options) != 0 || uv_run(&loop.raw, UV_RUN_DEFAULT) != 0);
    }
}
COMMAND_ROWS(startWithUv, "uv");
#endif

#ifdef VESK_PEER_GLIB
void startWithGlib(benchmark::State& state) {
    Ballast const ballast(state);
    std::string program = PROGRAM;
    std::array<char*, 2> arguments = {program.data(), nullptr};
    for (auto _ : state) {
        GPid child = 0;
        check(
            g_spawn_async(
                nullptr, arguments.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &child,
                nullptr) == 0);
        check(waitpid(child, nullptr, 0) != child);
    }
}
COMMAND_ROWS(startWithGlib, "glib");
#endif

#ifdef VESK_PEER_POCO
void startWithPoco(benchmark::State& state) {
    Ballast const ballast(state);
    for (auto _ : state) {
        check(Poco::Process::launch(PROGRAM, {}).wait() != 0);
    }
}
COMMAND_ROWS(startWithPoco, "poco");
#endif

#ifdef VESK_PEER_APR
void startWithApr(benchmark::State& state) {
    Ballast const ballast(state);
    std::array<char const*, 2> const arguments = {PROGRAM, nullptr};
    for (auto _ : state) {
        AprPool const pool;
        apr_procattr_t* attributes = nullptr;
        apr_proc_t process{};
        check(apr_procattr_create(&attributes, pool.raw) != APR_SUCCESS);
        check(apr_procattr_cmdtype_set(attributes, APR_PROGRAM_ENV) != APR_SUCCESS);
        check(
            apr_proc_create(&process, PROGRAM, arguments.data(), nullptr, attributes, pool.raw) !=
            APR_SUCCESS);
        check(apr_proc_wait(&process, nullptr, nullptr, APR_WAIT) != APR_CHILD_DONE);
    }
}
COMMAND_ROWS(startWithApr, "apr");
#endif

// ---- loops ----

#ifdef VESK_PEER_UV
struct UvEngine {
    struct Poll {
        uv_poll_t raw;
        vesk::loop::Fd fd;
        size_t* served;
    };
    struct Pipe {
        uv_pipe_t raw;
        size_t* served;
    };
    /// Calls of `uv_async_send` coalesce, so that posts need a queue beside it.
    UvEngine() {
        async.data = this;
        check(uv_async_init(&loop.raw, &async, serve) != 0);
        check(uv_timer_init(&loop.raw, &timer) != 0);
    }
    UvEngine(UvEngine const&) = delete;
    UvEngine& operator=(UvEngine const&) = delete;

    void watch(int fd, size_t& served) {
        auto& poll = *polls.emplace_back(std::make_unique<Poll>(Poll{{}, vesk::loop::Fd(fd), &served}));
        poll.raw.data = &poll;
        check(uv_poll_init(&loop.raw, &poll.raw, fd) != 0);
        uv_poll_start(&poll.raw, UV_READABLE, [](uv_poll_t* raw, int, int) {
            auto& self = *static_cast<Poll*>(raw->data);
            takeByte(self.fd.get());
            ++*self.served;
        });
    }
    void echo(int fd, size_t& served) {
        auto& pipe = *pipes.emplace_back(std::make_unique<Pipe>(Pipe{{}, &served}));
        pipe.raw.data = &pipe;
        check(uv_pipe_init(&loop.raw, &pipe.raw, 0) != 0 || uv_pipe_open(&pipe.raw, fd) != 0);
        uv_read_start(
            reinterpret_cast<uv_stream_t*>(&pipe.raw),
            [](uv_handle_t*, size_t, uv_buf_t* buffer) {
                static std::array<char, 16 * 1024> s_buffer;
                *buffer = uv_buf_init(s_buffer.data(), s_buffer.size());
            },
            [](uv_stream_t* stream, ssize_t size, uv_buf_t const* buffer) {
                uv_buf_t const part = uv_buf_init(buffer->base, static_cast<unsigned int>(size));
                check(uv_try_write(stream, &part, 1) != size);
                ++*static_cast<Pipe*>(stream->data)->served;
            });
    }
    void addTimer() {
        auto& added = *timers.emplace_back(std::make_unique<uv_timer_t>());
        uv_timer_init(&loop.raw, &added);
        uv_timer_start(
            &added, [](uv_timer_t*) {}, 3600000, 0);
    }
    void restartAndStop() {
        uv_timer_start(
            &timer, [](uv_timer_t*) {}, 3600000, 0);
        uv_timer_stop(&timer);
    }
    void post(size_t& served) {
        {
            std::lock_guard<std::mutex> const held(mutex);
            posts.push_back([&served] { ++served; });
        }
        uv_async_send(&async);
    }
    static void serve(uv_async_t* raw) {
        auto& self = *static_cast<UvEngine*>(raw->data);
        std::vector<std::function<void()>> batch;
        {
            std::lock_guard<std::mutex> const held(self.mutex);
            batch.swap(self.posts);
        }
        for (auto const& call : batch) {
            call();
        }
    }
    void runOnce() { uv_run(&loop.raw, UV_RUN_ONCE); }

    uv_async_t async{};
    uv_timer_t timer{};
    std::vector<std::unique_ptr<Poll>> polls;
    std::vector<std::unique_ptr<Pipe>> pipes;
    std::vector<std::unique_ptr<uv_timer_t>> timers;
    std::mutex mutex;
    std::vector<std::function<void()>> posts;
    UvLoop loop; // The first to be destroyed: it closes the handles.
};
LOOP_ROWS(UvEngine, "uv");
#endif

#ifdef VESK_PEER_GLIB
struct GlibEngine {
    struct Watched {
        vesk::loop::Fd fd;
        size_t* served;
    };
    ~GlibEngine() {
        for (GSource* const source : sources) {
            g_source_destroy(source);
            g_source_unref(source);
        }
        g_main_context_unref(context);
    }

    void add(GSource* source, GSourceFunc call, void* data, GDestroyNotify done) {
        g_source_set_callback(source, call, data, done);
        g_source_attach(source, context);
        sources.push_back(source);
    }
    static void destroy(void* watched) { delete static_cast<Watched*>(watched); }
    void watch(int fd, size_t& served) {
        constexpr auto CALL = [](int own, GIOCondition, void* data) -> gboolean {
            takeByte(own);
            ++*static_cast<Watched*>(data)->served;
            return G_SOURCE_CONTINUE;
        };
        add(g_unix_fd_source_new(fd, G_IO_IN), G_SOURCE_FUNC(+CALL), new Watched{vesk::loop::Fd(fd), &served},
            destroy);
    }
    void echo(int fd, size_t& served) {
        constexpr auto CALL = [](int own, GIOCondition, void* data) -> gboolean {
            std::array<char, 16 * 1024> buffer;
            ssize_t const size = read(own, buffer.data(), buffer.size());
            check(write(own, buffer.data(), static_cast<size_t>(size)) != size);
            ++*static_cast<Watched*>(data)->served;
            return G_SOURCE_CONTINUE;
        };
        add(g_unix_fd_source_new(fd, G_IO_IN), G_SOURCE_FUNC(+CALL), new Watched{vesk::loop::Fd(fd), &served},
            destroy);
    }
    static gboolean ignore(void* /*data*/) { return G_SOURCE_REMOVE; }
    void addTimer() { add(g_timeout_source_new(3600000), ignore, nullptr, nullptr); }
    void restartAndStop() const {
        GSource* const source = g_timeout_source_new(3600000);
        g_source_set_callback(source, ignore, nullptr, nullptr);
        g_source_attach(source, context);
        g_source_destroy(source);
        g_source_unref(source);
    }
    void post(size_t& served) const {
        GSource* const source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        constexpr auto CALL = [](void* count) -> gboolean {
            ++*static_cast<size_t*>(count);
            return G_SOURCE_REMOVE;
        };
        g_source_set_callback(source, +CALL, &served, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
    }
    void runOnce() const { g_main_context_iteration(context, 1); }

    GMainContext* context = g_main_context_new();
    std::vector<GSource*> sources;
};
LOOP_ROWS(GlibEngine, "glib");
#endif

#ifdef VESK_PEER_BOOST
struct BoostEngine {
    using Socket = boost::asio::local::stream_protocol::socket;
    struct Echo {
        void read() {
            socket.async_read_some(
                boost::asio::buffer(buffer), [this](boost::system::error_code const& error, size_t size) {
                    if (!error) {
                        check(socket.write_some(boost::asio::buffer(buffer.data(), size)) != size);
                        ++*served;
                        read();
                    }
                });
        }
        Socket socket;
        size_t* served;
        std::array<char, 16 * 1024> buffer;
    };
    struct Watched {
        void wait() {
            descriptor.async_wait(
                boost::asio::posix::stream_descriptor::wait_read,
                [this](boost::system::error_code const& error) {
                    if (!error) {
                        takeByte(descriptor.native_handle());
                        ++*served;
                        wait();
                    }
                });
        }
        boost::asio::posix::stream_descriptor descriptor;
        size_t* served;
    };

    void watch(int fd, size_t& served) {
        watches.push_back(
            std::make_unique<Watched>(Watched{boost::asio::posix::stream_descriptor(context, fd), &served}));
        watches.back()->wait();
    }
    void echo(int fd, size_t& served) {
        echoes.push_back(std::unique_ptr<Echo>(
            new Echo{Socket(context, boost::asio::local::stream_protocol(), fd), &served, {}}));
        echoes.back()->read();
    }
    void addTimer() {
        timers.push_back(std::make_unique<boost::asio::steady_timer>(context, std::chrono::hours(1)));
        timers.back()->async_wait([](boost::system::error_code const&) {});
    }
    void restartAndStop() {
        timer.expires_after(std::chrono::hours(1));
        timer.async_wait([](boost::system::error_code const&) {});
        timer.cancel();
        context.poll();
    }
    void post(size_t& served) {
        boost::asio::post(context, [&served] { ++served; });
    }
    void runOnce() {
        context.restart();
        context.run_one_for(std::chrono::seconds(1));
    }

    boost::asio::io_context context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{context.get_executor()};
    boost::asio::steady_timer timer{context};
    std::vector<std::unique_ptr<Watched>> watches;
    std::vector<std::unique_ptr<Echo>> echoes;
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
};
LOOP_ROWS(BoostEngine, "boost");
#endif

} // namespace
