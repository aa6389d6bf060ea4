// Follows log files. README.md tells how to use it.
#include "Follower.h"
#include "Notify.h"
#include "Tick.h"

#include <vesk/Dispatcher.h>
#include <vesk/SignalCatcher.h>
#include <vesk/SignalQueue.h>
#include <vesk/Vesk.h>

#include <csignal>
#include <iostream>

namespace logfollow {
namespace {

constexpr unsigned int LOOK_MS = 200;
constexpr unsigned int SAVE_MS = 1000;

/// The main thread's dispatcher: everything happens there, so nothing needs a lock.
class Daemon {
public:
    Daemon(std::string const& config, std::string const& state)
        : m_signals(m_notifier),
          m_calls(m_notifier),
          m_dispatcher(m_notifier),
          m_follower(config, state),
          m_look(m_calls, look, this),
          m_save(m_calls, save, this),
          m_alive(
              m_calls, [](void*) { examples::notify("WATCHDOG=1"); }, nullptr),
          m_terminate(SIGTERM, m_signals, end, this),
          m_interrupt(SIGINT, m_signals, end, this),
          m_hang_up(SIGHUP, m_signals, reload, this) {
        m_dispatcher.add_source(m_signals); // First: a signal overtakes the rest.
        m_dispatcher.add_source(m_calls);
    }

    /// What has not been carried out is discarded. Nothing calls back any more.
    ~Daemon() {
        for (examples::Tick* const tick : {&m_look, &m_save, &m_alive}) {
            static_cast<void>(tick->stop());
        }
        while (vesk::Message* const left = m_calls.pop_nonblock()) {
            left->dismiss();
        }
    }

    [[nodiscard]] bool start() {
        unsigned int const keep_alive = examples::getKeepAliveInterval();
        return m_follower.start() || m_look.startFixedRate(LOOK_MS) || m_save.startFixedRate(SAVE_MS) ||
            (keep_alive != 0 && m_alive.startFixedRate(keep_alive));
    }

    void run() {
        m_dispatcher.run();
        m_follower.save();
    }

private:
    static void look(void* daemon) {
        static_cast<Daemon*>(daemon)->m_follower.look();
        read(daemon);
    }

    static void read(void* argument) {
        auto& daemon = *static_cast<Daemon*>(argument);
        if (daemon.m_follower.read()) {
            // A message instead of a loop: signals and the watchdog come in between.
            daemon.m_calls.push(new vesk::Message::Callback(read, argument));
        }
    }

    static void save(void* daemon) { static_cast<Daemon*>(daemon)->m_follower.save(); }
    static void end(int, void* daemon) { static_cast<Daemon*>(daemon)->m_dispatcher.stop(); }
    static void reload(int, void* daemon) { static_cast<Daemon*>(daemon)->m_follower.reload(); }

    vesk::SignalQueue::Notifier m_notifier;
    vesk::SignalQueue m_signals;
    vesk::Dispatcher::VanillaQueue m_calls;
    vesk::Dispatcher m_dispatcher;
    Follower m_follower;
    examples::Tick m_look;
    examples::Tick m_save;
    examples::Tick m_alive;
    vesk::SignalCatcher m_terminate;
    vesk::SignalCatcher m_interrupt;
    vesk::SignalCatcher m_hang_up;
};

} // namespace
} // namespace logfollow

int main(int count, char** arguments) {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " CONFIGURATION STATE\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    logfollow::Daemon daemon(arguments[1], arguments[2]);
    if (daemon.start()) {
        return 1;
    }
    examples::notify("READY=1");
    daemon.run();
    examples::notify("STOPPING=1");
    return 0;
}
