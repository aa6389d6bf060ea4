// Follows log files. README.md tells how to use it.
#include "Follower.h"
#include "MainThread.h"
#include "Notify.h"
#include "Tick.h"

#include <vesk/Vesk.h>

#include <csignal>
#include <iostream>

namespace logfollow {
namespace {

constexpr unsigned int LOOK_MS = 200;
constexpr unsigned int SAVE_MS = 1000;

/// Everything happens in the main thread, so nothing needs a lock.
class Daemon {
public:
    Daemon(examples::MainThread& main_thread, std::string const& config, std::string const& state)
        : m_queue(main_thread.queue()),
          m_follower(config, state),
          m_look(m_queue, look, this),
          m_save(m_queue, save, this),
          m_alive(
              m_queue, [](void*) { examples::notify("WATCHDOG=1"); }, nullptr),
          m_hang_up(SIGHUP, main_thread.signals(), reload, this) {}

    [[nodiscard]] bool start() {
        unsigned int const keep_alive = examples::getKeepAliveInterval();
        return m_follower.start() || m_look.startFixedRate(LOOK_MS) || m_save.startFixedRate(SAVE_MS) ||
            (keep_alive != 0 && m_alive.startFixedRate(keep_alive));
    }
    void finish() { m_follower.save(); }

private:
    static void look(void* daemon) {
        static_cast<Daemon*>(daemon)->m_follower.look();
        read(daemon);
    }

    static void read(void* argument) {
        auto& daemon = *static_cast<Daemon*>(argument);
        if (daemon.m_follower.read()) {
            // A message instead of a loop: signals and the watchdog come in between.
            daemon.m_queue.push(new vesk::Message::Callback(read, argument));
        }
    }

    static void save(void* daemon) { static_cast<Daemon*>(daemon)->m_follower.save(); }
    static void reload(int, void* daemon) { static_cast<Daemon*>(daemon)->m_follower.reload(); }

    vesk::Message::Sink& m_queue;
    Follower m_follower;
    examples::Tick m_look;
    examples::Tick m_save;
    examples::Tick m_alive;
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
    examples::MainThread main_thread;
    logfollow::Daemon daemon(main_thread, arguments[1], arguments[2]);
    if (daemon.start()) {
        return 1;
    }
    examples::notify("READY=1");
    main_thread.run();
    examples::notify("STOPPING=1");
    daemon.finish();
    return 0;
}
