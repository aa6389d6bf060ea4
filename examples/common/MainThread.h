#pragma once

#include <vesk/Dispatcher.h>
#include <vesk/SignalCatcher.h>
#include <vesk/SignalQueue.h>

#include <csignal>
#include <functional>
#include <utility>

namespace examples {

/// The main thread of a daemon, which carries out messages until `SIGTERM` or `SIGINT`. Other threads only push messages,
/// so what the main thread works with needs no lock. Outlives all that pushes.
class MainThread {
public:
    MainThread() {
        m_dispatcher.add_source(m_signals); // First: a signal overtakes the rest.
        m_dispatcher.add_source(m_calls);
    }
    /// Discards what was not carried out. A queue itself does not delete what is left in it.
    ~MainThread() {
        while (vesk::Message* const left = m_calls.pop_nonblock()) {
            left->dismiss();
        }
    }

    /// Where other threads push messages.
    vesk::Message::Sink& queue() { return m_calls; }
    /// For further signals.
    vesk::SignalQueue& signals() { return m_signals; }
    /// Sets what the signals do instead of `stop`. Before `run`.
    void onEnd(std::function<void()> function) { m_on_end = std::move(function); }

    void run() { m_dispatcher.run(); }
    /// Lets `run` return.
    void stop() { m_dispatcher.stop(); }

private:
    static void end(int, void* main_thread) { static_cast<MainThread*>(main_thread)->m_on_end(); }

    vesk::SignalQueue::Notifier m_notifier;
    vesk::SignalQueue m_signals{m_notifier};
    vesk::Dispatcher::VanillaQueue m_calls{m_notifier};
    vesk::Dispatcher m_dispatcher{m_notifier};
    std::function<void()> m_on_end = [this] { stop(); };
    vesk::SignalCatcher m_terminate{SIGTERM, m_signals, end, this};
    vesk::SignalCatcher m_interrupt{SIGINT, m_signals, end, this};
};

} // namespace examples
