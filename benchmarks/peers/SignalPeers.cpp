#include "../SignalBenchmark.cpp"
#include "Peers.h"

#include <thread>

#ifdef VESK_PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#endif
#ifdef VESK_PEER_APR
#include <apr_signal.h>
#include <apr_thread_proc.h>
#endif

namespace {

#define PEER_SIGNAL(function, peer)                                                                          \
    BENCHMARK(function)->Name("Signal to callback and back, one CPU/" peer)->UseManualTime()->Apply(often)

PEER_SIGNAL(roundTrip, "vesk");
PEER_SIGNAL(bareRoundTrip, "bare");

/// Raises the signal for a thread that runs `loop`, and waits for the answer of its callback.
template <typename Loop>
void peerRoundTrip(benchmark::State& state) {
    OneProcessor const together;
    Answer answer;
    Loop loop(answer);
    std::thread thread([&loop] { loop.run(); });
    loop.awaitStart();
    measureTogether(state, [&answer] {
        raise(SIGNAL);
        answer.wait();
    });
    loop.end();
    thread.join();
}

#ifdef VESK_PEER_BOOST
class BoostSignals {
public:
    explicit BoostSignals(Answer& answer) : m_answer(answer) { wait(); }

    void run() { m_context.run(); }
    void awaitStart() {}
    void end() { m_context.stop(); }

private:
    void wait() {
        m_signals.async_wait([this](boost::system::error_code const& error, int signal) {
            if (!error) {
                Answer::give(signal, &m_answer);
                wait();
            }
        });
    }

    Answer& m_answer;
    boost::asio::io_context m_context{2};
    boost::asio::signal_set m_signals{m_context, SIGNAL};
};
PEER_SIGNAL(peerRoundTrip<BoostSignals>, "boost");
#endif

#ifdef VESK_PEER_GLIB
class GlibSignals {
public:
    explicit GlibSignals(Answer& answer)
        : m_context(g_main_context_new()),
          m_loop(g_main_loop_new(m_context, 0)),
          m_source(g_unix_signal_source_new(SIGNAL)) {
        g_source_set_callback(m_source, call, &answer, nullptr);
        g_source_attach(m_source, m_context);
    }
    ~GlibSignals() {
        g_source_destroy(m_source);
        g_source_unref(m_source);
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context);
    }
    GlibSignals(GlibSignals const&) = delete;
    GlibSignals& operator=(GlibSignals const&) = delete;

    void run() { g_main_loop_run(m_loop); }
    void awaitStart() {
        while (g_main_loop_is_running(m_loop) == 0) {
            sched_yield();
        }
    }
    void end() { g_main_loop_quit(m_loop); }

private:
    static gboolean call(void* answer) {
        Answer::give(SIGNAL, answer);
        return G_SOURCE_CONTINUE;
    }

    GMainContext* m_context;
    GMainLoop* m_loop;
    GSource* m_source;
};
PEER_SIGNAL(peerRoundTrip<GlibSignals>, "glib");
#endif

#ifdef VESK_PEER_UV
class UvSignals {
public:
    explicit UvSignals(Answer& answer) {
        m_handle.data = &answer;
        if (uv_signal_init(&m_loop.raw, &m_handle) != 0 || uv_signal_start(&m_handle, call, SIGNAL) != 0 ||
            uv_async_init(&m_loop.raw, &m_end, stop) != 0) {
            abort();
        }
    }

    void run() { uv_run(&m_loop.raw, UV_RUN_DEFAULT); }
    void awaitStart() {}
    void end() { uv_async_send(&m_end); }

private:
    static void call(uv_signal_t* handle, int signal) { Answer::give(signal, handle->data); }
    static void stop(uv_async_t* handle) { uv_stop(handle->loop); }

    uv_signal_t m_handle{};
    uv_async_t m_end{};
    UvLoop m_loop;
};
PEER_SIGNAL(peerRoundTrip<UvSignals>, "uv");
#endif

#ifdef VESK_PEER_APR
/// `apr_signal_thread` takes signals of the process that all other threads block.
Answer* s_apr_answer = nullptr;
bool s_apr_end = false;

int takeSignal(int signal) {
    if (s_apr_end) {
        return 1;
    }
    Answer::give(signal, s_apr_answer);
    return 0;
}

void aprRoundTrip(benchmark::State& state) {
    OneProcessor const together;
    AprPool const pool;
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGNAL);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    Answer answer;
    s_apr_answer = &answer;
    s_apr_end = false;
    std::thread thread([] { apr_signal_thread(takeSignal); });
    measureTogether(state, [&answer] {
        kill(getpid(), SIGNAL);
        answer.wait();
    });
    s_apr_end = true;
    kill(getpid(), SIGNAL);
    thread.join();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
PEER_SIGNAL(aprRoundTrip, "apr");
#endif

} // namespace
