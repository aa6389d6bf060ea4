#include "Supervisor.h"

#include "Call.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <utility>

namespace supervisor {

Supervisor::Supervisor(
    vesk::Message::Sink& queue, std::string config_path, std::string const& socket_path,
    std::function<void()> stopped)
    : m_stopped(std::move(stopped)),
      m_services(
          std::move(config_path),
          [&queue](auto const& name, auto const& config, auto then) {
              return std::make_shared<Service>(queue, name, config, std::move(then));
          },
          [&queue](auto call) { queue.push(new examples::Call(std::move(call))); }),
      m_door(socket_path, queue, [this](std::string const& line) { return m_services.answer(line); }) {}

bool Supervisor::start() {
    if (m_door.open()) {
        std::cerr << "socket: " << tarn_error.getReasonList() << '\n';
        std::ErrorStorage::ack();
        return true;
    }
    reload();
    return m_services.isEmpty();
}

void Supervisor::stop() {
    if (!std::exchange(m_is_stopping, true)) {
        m_door.close();
        m_services.stop(m_stopped);
    }
}

} // namespace supervisor
