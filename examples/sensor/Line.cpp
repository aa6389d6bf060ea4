#include "Line.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <utility>

namespace sensor {

namespace {

constexpr unsigned int BAUD_RATE = 115200;
constexpr int PAUSE_MS = 250; ///< Between two attempts to open the line.

/// A late reader of a serial line loses bytes: real time, if this process has the right to it, otherwise as its
/// creator.
vesk::sched::Attr urgent() {
    vesk::sched::Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_RR;
    attributes.param = vesk::sched::Param(attributes.policy, 10);
    return attributes;
}

} // namespace

Line::Line(std::string const& device, Client& client)
    : m_client(client),
      m_port(device, BAUD_RATE, vesk::SerialPort::Parity::NONE, 1, false, false, false),
      m_thread([](void* line) { static_cast<Line*>(line)->run(); }, this, "sensor-line", urgent(), false) {}

bool Line::start() {
    m_is_started = m_parser.isValid() && m_end.isValid() && m_thread.isValid() && !m_thread.start();
    return !m_is_started;
}

void Line::stop() {
    m_end.end();
    static_cast<void>(std::exchange(m_is_started, false) && m_thread.join());
}

void Line::run() {
    do {
        if (!m_port.isValid()) {
            open();
        } else {
            read();
        }
    } while (m_end.wait(m_port.getDescriptor(), m_port.isValid() ? -1 : PAUSE_MS));
}

void Line::open() {
    if (m_port.open()) {
        lose();
        return;
    }
    m_parser.restart();
    m_is_reported = false;
    m_client.lineOpened();
}

void Line::read() {
    char bytes[256];
    unsigned int count = 0;
    int const result = m_port.read(bytes, sizeof bytes, count);
    m_parser.take({bytes, count}, [this](Reading const& reading) { m_client.take(reading); });
    if (unsigned int const bad = m_parser.takeBadLines()) {
        m_client.takeBadLines(bad);
    }
    if (result != 1) {
        lose(); // The adapter was pulled out, or the other end of a pseudo-terminal was closed.
    }
}

void Line::lose() {
    std::string const why = tarn_error.getReasonList();
    std::ErrorStorage::ack();
    static_cast<void>(m_port.close());
    std::ErrorStorage::ack();
    if (!m_is_reported) {
        m_is_reported = true;
        m_client.lineLost(why);
    }
}

} // namespace sensor
