#include "../Often.h"
#include "../TimerBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/Timer.h>
#endif

namespace {

// ---- Start and stop ----

#define PEER_PENDING(function, peer)                                                                         \
    BENCHMARK(function)->Name("Timer start plus stop, others pending/" peer)->Arg(100)->Arg(1000)->Arg(10000)
#define PEER_ALONE(function, peer) BENCHMARK(function)->Name("Timer start plus stop, none pending/" peer)

PEER_PENDING(startStopVesk, "vesk");
PEER_PENDING(startStopByHand, "bare");

/// Starts and stops timers of `Engine` in turn, beside as many pending ones as the row requires.
template <typename Engine>
void startStopPeer(benchmark::State& state) {
    Engine engine;
    auto const pending = static_cast<unsigned int>(state.range(0));
    std::vector<std::unique_ptr<typename Engine::Timer>> others;
    for (unsigned int i = 0; i < pending; ++i) {
        others.push_back(std::make_unique<typename Engine::Timer>(engine));
        others.back()->start(Running::getInterval(i));
    }
    std::array<std::unique_ptr<typename Engine::Timer>, 64> timers;
    for (auto& timer : timers) {
        timer = std::make_unique<typename Engine::Timer>(engine);
    }
    unsigned int i = 0;
    for (auto _ : state) {
        auto& timer = *timers[i % timers.size()];
        timer.start(Running::getInterval(++i));
        timer.stop();
    }
}

template <typename Engine>
void startStopPeerAlone(benchmark::State& state) {
    Engine engine;
    typename Engine::Timer timer(engine);
    for (auto _ : state) {
        timer.start(HOUR_MS);
        timer.stop();
    }
}

// ---- Lateness ----

#define PEER_SHOT(function, peer)                                                                            \
    BENCHMARK(function)->Name("Lateness of a one-shot timer of 1 ms/" peer)->UseRealTime()->Apply(rarely)

/// One expiry takes more than a millisecond: few repetitions of many expiries.
void rarely(benchmark::internal::Benchmark* row) {
    row->Repetitions(scaled(15))->Iterations(50);
}

PEER_SHOT(oneShot, "vesk");
PEER_SHOT(bareOneShot, "bare");

/// Runs the loop of `Engine` in the calling thread, as its documentation recommends.
template <typename Engine>
void shootPeer(benchmark::State& state) {
    Engine engine;
    typename Engine::Timer timer(engine);
    std::vector<long long> delays;
    for (auto _ : state) {
        long long const start = now();
        delays.push_back(timer.shoot(1) - start - NS_PER_MS);
    }
    show(state, delays);
}

#ifdef VESK_PEER_BOOST
struct BoostEngine {
    class Timer {
    public:
        explicit Timer(BoostEngine& engine) : m_context(engine.context), m_timer(engine.context) {}

        void start(unsigned int interval_ms) {
            m_timer.expires_after(std::chrono::milliseconds(interval_ms));
            m_timer.async_wait([](boost::system::error_code const&) {});
        }
        /// The canceled wait completes in the loop.
        void stop() {
            m_timer.cancel();
            m_context.poll();
        }
        long long shoot(unsigned int interval_ms) {
            long long hit = 0;
            m_timer.expires_after(std::chrono::milliseconds(interval_ms));
            m_timer.async_wait([&hit](boost::system::error_code const&) { hit = now(); });
            m_context.restart();
            m_context.run();
            return hit;
        }

    private:
        boost::asio::io_context& m_context;
        boost::asio::steady_timer m_timer;
    };

    boost::asio::io_context context{1};
};

/// `poll` stops a context without work, so that the row needs another timer.
void boostAlone(benchmark::State& state) {
    BoostEngine engine;
    auto const work = boost::asio::make_work_guard(engine.context);
    BoostEngine::Timer timer(engine);
    for (auto _ : state) {
        timer.start(HOUR_MS);
        timer.stop();
    }
}
PEER_PENDING(startStopPeer<BoostEngine>, "boost");
PEER_ALONE(boostAlone, "boost");
PEER_SHOT(shootPeer<BoostEngine>, "boost");
#endif

#ifdef VESK_PEER_POCO
// `Poco::Timer` has a thread each, and `Poco::Util::Timer` keeps a canceled task until its time comes: there is
// no row with many pending ones.
class PocoTarget {
public:
    void hit(Poco::Timer&) { m_shot.hit(); }
    long long wait() { return m_shot.wait(); }

private:
    Shot m_shot;
};

void pocoAlone(benchmark::State& state) {
    PocoTarget target;
    Poco::TimerCallback<PocoTarget> const callback(target, &PocoTarget::hit);
    Poco::Timer timer(HOUR_MS, 0);
    for (auto _ : state) {
        timer.start(callback);
        timer.stop();
    }
}
PEER_ALONE(pocoAlone, "poco");

void pocoShot(benchmark::State& state) {
    PocoTarget target;
    Poco::TimerCallback<PocoTarget> const callback(target, &PocoTarget::hit);
    Poco::Timer timer(1, 0);
    std::vector<long long> delays;
    for (auto _ : state) {
        long long const start = now();
        timer.start(callback);
        delays.push_back(target.wait() - start - NS_PER_MS);
        timer.stop();
    }
    show(state, delays);
}
PEER_SHOT(pocoShot, "poco");
#endif

#ifdef VESK_PEER_GLIB
struct GlibEngine {
    GlibEngine() : context(g_main_context_new()) {}
    ~GlibEngine() { g_main_context_unref(context); }
    GlibEngine(GlibEngine const&) = delete;
    GlibEngine& operator=(GlibEngine const&) = delete;

    class Timer {
    public:
        explicit Timer(GlibEngine& engine) : m_context(engine.context) {}
        ~Timer() { stop(); }
        Timer(Timer const&) = delete;
        Timer& operator=(Timer const&) = delete;

        void start(unsigned int interval_ms) {
            m_source = g_timeout_source_new(interval_ms);
            g_source_set_callback(m_source, hit, &m_hit, nullptr);
            g_source_attach(m_source, m_context);
        }
        void stop() {
            if (m_source != nullptr) {
                g_source_destroy(m_source);
                g_source_unref(m_source);
                m_source = nullptr;
            }
        }
        long long shoot(unsigned int interval_ms) {
            m_hit = 0;
            start(interval_ms);
            while (m_hit == 0) {
                g_main_context_iteration(m_context, 1);
            }
            stop();
            return m_hit;
        }

    private:
        static gboolean hit(void* time) {
            *static_cast<long long*>(time) = now();
            return G_SOURCE_REMOVE;
        }

        GMainContext* m_context;
        GSource* m_source = nullptr;
        long long m_hit = 0;
    };

    GMainContext* context;
};
PEER_PENDING(startStopPeer<GlibEngine>, "glib");
PEER_ALONE(startStopPeerAlone<GlibEngine>, "glib");
PEER_SHOT(shootPeer<GlibEngine>, "glib");
#endif

#ifdef VESK_PEER_UV
struct UvEngine {
    class Timer {
    public:
        explicit Timer(UvEngine& engine) : m_handle(new uv_timer_t) {
            uv_timer_init(&engine.loop.raw, m_handle.get());
            m_handle->data = &m_hit;
        }
        ~Timer() {
            // The loop needs the memory until the handle is closed.
            uv_close(reinterpret_cast<uv_handle_t*>(m_handle.release()), [](uv_handle_t* handle) {
                delete reinterpret_cast<uv_timer_t*>(handle);
            });
        }
        Timer(Timer const&) = delete;
        Timer& operator=(Timer const&) = delete;

        void start(unsigned int interval_ms) { uv_timer_start(m_handle.get(), hit, interval_ms, 0); }
        void stop() { uv_timer_stop(m_handle.get()); }
        /// The loop keeps the time of its last turn, which would be too early.
        long long shoot(unsigned int interval_ms) {
            uv_update_time(m_handle->loop);
            start(interval_ms);
            uv_run(m_handle->loop, UV_RUN_DEFAULT);
            return m_hit;
        }

    private:
        static void hit(uv_timer_t* handle) { *static_cast<long long*>(handle->data) = now(); }

        std::unique_ptr<uv_timer_t> m_handle;
        long long m_hit = 0;
    };

    UvLoop loop;
};
PEER_PENDING(startStopPeer<UvEngine>, "uv");
PEER_ALONE(startStopPeerAlone<UvEngine>, "uv");
PEER_SHOT(shootPeer<UvEngine>, "uv");
#endif

} // namespace
