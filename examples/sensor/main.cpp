// Reads sensors at a serial line, and passes on what they measure. README.md tells how to use it.
#include "Line.h"
#include "MainThread.h"
#include "Notify.h"
#include "Number.h"
#include "Output.h"
#include "Statistics.h"
#include "Tick.h"

#include <vesk/Dispatcher.h>
#include <vesk/Mutex.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorApi.h>

#include <iostream>

namespace sensor {
namespace {

/// Writing to a log may take long: this must not take time from others.
vesk::sched::Attr humble() {
    vesk::sched::Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    attributes.param = vesk::sched::Param(attributes.policy, 5);
    return attributes;
}

/// A thread that carries out messages, one after the other.
class Worker {
public:
    Worker(char const* name, vesk::sched::Attr const& attributes)
        : m_dispatcher(m_notifier),
          m_queue(m_notifier),
          m_thread(vesk::Dispatcher::main, &m_dispatcher, name, attributes, false) {
        m_dispatcher.add_source(m_queue);
    }
    ~Worker() { stop(); }
    [[nodiscard]] bool start() {
        m_is_started = m_thread.isValid() && !m_thread.start();
        return !m_is_started;
    }
    /// Ends the thread after the message that it carries out.
    void stop() {
        m_dispatcher.stop();
        static_cast<void>(std::exchange(m_is_started, false) && m_thread.join());
        while (vesk::Message* const left = m_queue.pop_nonblock()) {
            left->dismiss();
        }
    }
    vesk::Message::Sink& queue() { return m_queue; }

private:
    vesk::Dispatcher::VanillaNotifier m_notifier;
    vesk::Dispatcher m_dispatcher;
    vesk::Dispatcher::VanillaQueue m_queue;
    vesk::Thread m_thread;
    bool m_is_started = false;
};

/// The line's thread adds to the statistics, the publisher's thread takes them out.
class Daemon : private Line::Client {
public:
    explicit Daemon(std::string const& device)
        : m_publisher("publisher", humble()),
          m_summary(
              m_publisher.queue(), [](void* daemon) { static_cast<Daemon*>(daemon)->publish(); }, this),
          m_alive(
              m_publisher.queue(), [](void*) { examples::notify("WATCHDOG=1"); }, nullptr),
          m_line(device, *this) {}

    /// The order counts: nothing is measured any more, nothing is due any more, then the last summary.
    ~Daemon() {
        m_line.stop();
        static_cast<void>(m_summary.stop());
        static_cast<void>(m_alive.stop());
        m_publisher.stop();
        publish();
        m_output.close();
    }

    [[nodiscard]] bool start(std::string const& name, unsigned int period_ms) {
        unsigned int const keep_alive = examples::getKeepAliveInterval();
        return m_output.open(name, period_ms) || m_publisher.start() || m_line.start() ||
            m_summary.startFixedRate(period_ms) || (keep_alive != 0 && m_alive.startFixedRate(keep_alive));
    }

private:
    // The urgent thread may print these: it has nothing to read while the line opens or is gone.
    void lineOpened() override { tell("line open"); }
    void lineLost(std::string const& why) override {
        std::cerr << why << std::endl;
        tell("line gone");
    }
    void take(Reading const& reading) override {
        m_output.write(reading);
        vesk::MutexLock const lock(m_mutex);
        m_statistics.add(reading);
    }
    void takeBadLines(unsigned int count) override {
        vesk::MutexLock const lock(m_mutex);
        m_statistics.addBadLines(count);
    }

    void tell(char const* news) {
        std::cout << news << std::endl;
        m_output.send(news, Output::NEWS);
    }

    void publish() {
        std::string summary;
        {
            vesk::MutexLock const lock(m_mutex);
            summary = m_statistics.takeSummary();
        }
        std::cout << summary << std::flush;
        m_output.send(summary, Output::SUMMARY); // An empty one says that the daemon is alive.
    }

    Output m_output;
    // The publisher has the lowest priority: nothing may keep it from leaving the lock while the line's thread waits.
    vesk::Mutex m_mutex{false, vesk::Mutex::Protocol::INHERIT};
    Statistics m_statistics;
    Worker m_publisher;
    examples::Tick m_summary;
    examples::Tick m_alive;
    Line m_line;
};

int run(std::string const& device, std::string const& name, unsigned int period_ms) {
    examples::MainThread main_thread;
    Daemon daemon(device);
    if (daemon.start(name, period_ms)) {
        std::cerr << tarn_error.getReasonList() << '\n';
        return 1;
    }
    examples::notify("READY=1");
    main_thread.run();
    examples::notify("STOPPING=1");
    return 0;
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
