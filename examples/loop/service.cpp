// A service that runs a program for each line that a client sends, and answers with its output:
//
//     loop_service unix:/tmp/service /etc/hosts &
//     echo date | nc -U /tmp/service
//
// One thread waits for the clients, their programs, a file, a timer and signals. SIGTERM ends the service.

#include <vesk/Vesk.h>
#include <vesk/loop/Command.h>
#include <vesk/loop/FileWatch.h>
#include <vesk/loop/Listener.h>
#include <vesk/loop/ServiceManager.h>
#include <vesk/loop/Watchdog.h>

#include <csignal>
#include <iostream>
#include <map>
#include <string>

using namespace std::chrono_literals;
using namespace vesk::loop;

namespace {

/// A client. Its members may be destroyed in any order, and in each of their callbacks.
struct Session {
    Connection connection;
    std::string line;
    Process program;
};

class Service {
public:
    explicit Service(Loop& loop) : m_loop(loop) {}

    void accept(Connection peer) {
        int const id = ++m_last_id;
        Session& session = m_sessions[id];
        session.connection = std::move(peer);
        session.connection.setDeadlines({0s, 10s, 60s});
        session.connection.onEnd([this, id](Result<> const& how) {
            if (!how) {
                m_sessions.erase(id);
            }
        });
        (void)session.connection.onData([this, id](std::string_view data) { take(id, data); });
    }

    std::size_t count() const { return m_sessions.size(); }

private:
    void take(int id, std::string_view data) {
        Session& session = m_sessions.at(id);
        session.line += data;
        auto const end = session.line.find('\n');
        if (end == std::string::npos) {
            return;
        }
        auto program = m_loop.start(
            Command(session.line.substr(0, end))
                .in(Stream::null())
                .out(Stream::capture())
                .err(Stream::sameAsOut()),
            [this, id](Output const& output) { answer(id, output.out); });
        if (program) {
            session.connection.pause();
            session.program = std::move(*program);
        } else {
            answer(id, program.error().text() + '\n');
        }
    }

    void answer(int id, std::string const& text) {
        Connection& connection = m_sessions.at(id).connection;
        (void)connection.write(text);
        (void)connection.close([this, id](Result<> const&) { m_sessions.erase(id); });
    }

    Loop& m_loop;
    std::map<int, Session> m_sessions;
    int m_last_id = 0;
};

int run(std::string const& address, std::string const& file) {
    Loop loop;
    Service service(loop);
    auto const quit = loop.onSignal(SIGTERM, [&] { loop.stop(); });
    auto const server =
        Listener::open(loop, address, [&](Connection peer) { service.accept(std::move(peer)); });
    if (!server) {
        std::cerr << server.error() << '\n';
        return 1;
    }
    auto files = FileWatch::open(
        loop, [](FileEvent const& event) { std::cout << "changed: " << event.path << std::endl; });
    if (Result<> const added = files ? files->add(file) : Result<>(files.error()); !added) {
        std::cerr << added.error() << '\n';
        return 1;
    }
    auto const status =
        loop.every(10s, [&] { (void)ServiceManager::status(std::to_string(service.count()) + " clients"); });
    auto const alive = ServiceManager::keepAlive(loop);
    auto const watchdog = Watchdog::start(loop, 2s, [](Place const& place) {
        std::cerr << "stuck: the callback of " << place.file << ':' << place.line << '\n';
    });
    std::cout << "listening at " << server->address().text() << std::endl;
    (void)ServiceManager::ready();
    bool const done = static_cast<bool>(loop.run());
    (void)ServiceManager::stopping();
    return done ? 0 : 1;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " ADDRESS FILE\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    return run(argv[1], argv[2]);
}
