// The log follower of ../logfollow on one loop. Its README.md tells how to use it.
#include "Follower.h"
#include "Keep.h"

#include <vesk/Vesk.h>
#include <vesk/loop/FileWatch.h>
#include <vesk/loop/Loop.h>
#include <vesk/loop/ServiceManager.h>

#include <csignal>
#include <iostream>

using namespace std::chrono_literals;
using namespace vesk::loop;
using examples::keep;

namespace logfollow {
namespace {

/// What happens in a folder is told at once. That a file grows is not: its writer keeps it open.
class Daemon {
public:
    Daemon(Loop& loop, std::string const& config, std::string const& state)
        : m_loop(loop), m_follower(config, state) {}

    [[nodiscard]] bool start() {
        if (m_follower.start()) {
            return true;
        }
        watchFolders();
        return keep(m_read, m_loop.every(200ms, [this] { read(); })) ||
            keep(m_save, m_loop.every(1s, [this] { m_follower.save(); })) ||
            keep(m_retry, m_loop.every(2s, [this] { watchFolders(); }));
    }

    void reload() {
        m_follower.reload();
        m_watches.clear();
        watchFolders();
    }

    void finish() { m_follower.save(); }

private:
    /// Watches the folders that are there. One that is not may come later, and one that has gone may be back.
    void watchFolders() {
        for (std::string const& folder : m_follower.folders()) {
            if (m_watches.count(folder) != 0) {
                continue;
            }
            auto watch =
                FileWatch::open(m_loop, [this, folder](FileEvent const& event) { see(folder, event); });
            if (watch && watch->add(folder)) {
                m_watches[folder] = std::move(*watch);
                m_follower.look(); // What has come before is not told.
            }
        }
    }

    void see(std::string const& folder, FileEvent const& event) {
        m_follower.look();
        read();
        if (event.kind == FileEvent::GONE) {
            m_watches.erase(folder); // Ends this watch, in its own callback.
        }
    }

    void read() {
        if (m_follower.read()) {
            // Called again after what else is due; it does not wait for the next tick.
            m_read.restart(0s);
        }
    }

    Loop& m_loop;
    Follower m_follower;
    std::map<std::string, FileWatch> m_watches;
    Timer m_read;
    Timer m_save;
    Timer m_retry;
};

int run(std::string const& config, std::string const& state) {
    Loop loop;
    Daemon daemon(loop, config, state);
    auto const terminate = loop.onSignal(SIGTERM, [&] { loop.stop(); });
    auto const interrupt = loop.onSignal(SIGINT, [&] { loop.stop(); });
    auto const hang_up = loop.onSignal(SIGHUP, [&] { daemon.reload(); });
    if (!terminate || !interrupt || !hang_up || daemon.start()) {
        return 1;
    }
    auto const alive = ServiceManager::keepAlive(loop);
    (void)ServiceManager::ready();
    bool const is_done = static_cast<bool>(loop.run());
    (void)ServiceManager::stopping();
    daemon.finish();
    return is_done ? 0 : 1;
}

} // namespace
} // namespace logfollow

int main(int count, char** arguments) {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " CONFIGURATION STATE\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    return logfollow::run(arguments[1], arguments[2]);
}
