// The sensor daemon of ../sensor on one loop, in one thread. Its README.md tells how to use it.
#include "Keep.h"
#include "Number.h"
#include "Output.h"
#include "Parser.h"
#include "Statistics.h"

#include <vesk/SerialPort.h>
#include <vesk/Vesk.h>
#include <vesk/loop/Loop.h>
#include <vesk/loop/ServiceManager.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <csignal>
#include <iostream>
#include <pthread.h>

using namespace std::chrono_literals;
using namespace vesk::loop;
using examples::keep;

namespace sensor {
namespace {

constexpr unsigned int BAUD_RATE = 115200;
constexpr Clock::duration PAUSE = 250ms; ///< Between two attempts to open the line.

class Daemon {
public:
    Daemon(Loop& loop, std::string const& device)
        : m_loop(loop), m_port(device, BAUD_RATE, vesk::SerialPort::Parity::NONE, 1, false, false, false) {}

    [[nodiscard]] bool start(std::string const& name, unsigned int period_ms) {
        if (!m_parser.isValid() || m_output.open(name, period_ms)) {
            std::cerr << tarn_error.getReasonList() << '\n';
            return true;
        }
        openLine();
        return keep(m_summary, m_loop.every(std::chrono::milliseconds(period_ms), [this] { publish(); }));
    }

    void finish() {
        publish();
        m_output.close();
    }

private:
    void openLine() {
        if (m_port.open()) {
            loseLine(tarn_error.getReasonList());
            return;
        }
        m_parser.restart();
        m_is_reported = false;
        tell("line open");
        // The line first: its bytes get lost if they are not taken in time.
        if (keep(
                m_data,
                m_loop.onReadable(
                    m_port.getDescriptor(), [this] { read(); }, Priority::HIGH))) {
            m_loop.stop();
        }
    }

    void read() {
        char bytes[256];
        unsigned int count = 0;
        int const result = m_port.read(bytes, sizeof bytes, count);
        m_parser.take({bytes, count}, [this](Reading const& reading) {
            m_output.write(reading);
            m_statistics.add(reading);
        });
        m_statistics.addBadLines(m_parser.takeBadLines());
        if (result != 1) {
            loseLine(tarn_error.getReasonList());
        }
    }

    void loseLine(std::string const& why) {
        std::ErrorStorage::ack();
        m_data.cancel(); // Before the descriptor closes.
        static_cast<void>(m_port.close());
        std::ErrorStorage::ack();
        if (!m_is_reported) {
            m_is_reported = true;
            std::cerr << why << std::endl;
            tell("line gone");
        }
        if (keep(m_pause, m_loop.after(PAUSE, [this] { openLine(); }))) {
            m_loop.stop();
        }
    }

    void tell(char const* news) {
        std::cout << news << std::endl;
        m_output.send(news, Output::NEWS);
    }

    void publish() {
        std::string const summary = m_statistics.takeSummary();
        std::cout << summary << std::flush;
        m_output.send(summary, Output::SUMMARY); // An empty one says that the daemon is alive.
    }

    Loop& m_loop;
    Output m_output;
    Statistics m_statistics;
    Parser m_parser;
    vesk::SerialPort m_port;
    bool m_is_reported = false; ///< Whether it was told that the line is gone.
    Watch m_data;               ///< After the port: it ends before the descriptor closes.
    Timer m_pause;
    Timer m_summary;
};

/// A late reader of a serial line loses bytes: real time, if this process has the right to it.
void becomeUrgent() {
    sched_param const priority{10};
    static_cast<void>(pthread_setschedparam(pthread_self(), SCHED_RR, &priority));
}

int run(std::string const& device, std::string const& name, unsigned int period_ms) {
    Loop loop;
    auto const terminate = loop.onSignal(SIGTERM, [&] { loop.stop(); });
    auto const interrupt = loop.onSignal(SIGINT, [&] { loop.stop(); });
    Daemon daemon(loop, device);
    if (!terminate || !interrupt || daemon.start(name, period_ms)) {
        return 1;
    }
    auto const alive = ServiceManager::keepAlive(loop);
    becomeUrgent();
    (void)ServiceManager::ready();
    bool const is_done = static_cast<bool>(loop.run());
    (void)ServiceManager::stopping();
    daemon.finish();
    return is_done ? 0 : 1;
}

} // namespace
} // namespace sensor

int main(int count, char** arguments) {
    unsigned int period = 1000;
    if (count < 3 || count > 4 || (count == 4 && !examples::readNumber(arguments[3], 1, 3600000, period))) {
        std::cerr << "usage: " << arguments[0] << " DEVICE NAME [MILLISECONDS]\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    return sensor::run(arguments[1], arguments[2], period);
}
