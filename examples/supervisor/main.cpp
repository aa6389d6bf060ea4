// Supervises programs. README.md tells how to use it.
#include "Notify.h"
#include "Supervisor.h"
#include "Tick.h"

#include <vesk/Dispatcher.h>
#include <vesk/SignalCatcher.h>
#include <vesk/SignalQueue.h>
#include <vesk/Vesk.h>

#include <csignal>
#include <iostream>

namespace supervisor {
namespace {

/// The main thread's dispatcher. Other threads only push messages, so nothing here needs a lock.
class Daemon {
public:
    Daemon(std::string const& config, std::string const& socket)
        : m_signals(m_notifier),
          m_calls(m_notifier),
          m_dispatcher(m_notifier),
          m_supervisor(m_calls, config, socket, [this] { m_dispatcher.stop(); }),
          m_alive(
              m_calls, [](void*) { examples::notify("WATCHDOG=1"); }, nullptr),
          m_terminate(SIGTERM, m_signals, end, this),
          m_interrupt(SIGINT, m_signals, end, this),
          m_hang_up(SIGHUP, m_signals, reload, this) {
        m_dispatcher.add_source(m_signals);
        m_dispatcher.add_source(m_calls);
    }
    /// A queue does not delete what is left in it: late rings, clients that were not answered.
    ~Daemon() {
        static_cast<void>(m_alive.stop());
        while (vesk::Message* const left = m_calls.pop_nonblock()) {
            left->dismiss();
        }
    }

    [[nodiscard]] bool start() {
        unsigned int const keep_alive = examples::getKeepAliveInterval();
        return m_supervisor.start() || (keep_alive != 0 && m_alive.startFixedRate(keep_alive));
    }
    void run() { m_dispatcher.run(); }

private:
    static void end(int, void* daemon) {
        examples::notify("STOPPING=1");
        static_cast<Daemon*>(daemon)->m_supervisor.stop();
    }
    static void reload(int, void* daemon) { static_cast<Daemon*>(daemon)->m_supervisor.reload(); }

    vesk::SignalQueue::Notifier m_notifier;
    vesk::SignalQueue m_signals;
    vesk::Dispatcher::VanillaQueue m_calls;
    vesk::Dispatcher m_dispatcher;
    Supervisor m_supervisor;
    examples::Tick m_alive;
    vesk::SignalCatcher m_terminate;
    vesk::SignalCatcher m_interrupt;
    vesk::SignalCatcher m_hang_up;
};

} // namespace
} // namespace supervisor

int main(int count, char** arguments) {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " CONFIGURATION SOCKET\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    supervisor::Daemon daemon(arguments[1], arguments[2]);
    if (daemon.start()) {
        return 1;
    }
    // All services have been started, or have reported why not.
    examples::notify("READY=1");
    daemon.run();
    return 0;
}
