#include "Composite.h"

#include <algorithm>
#include <cerrno>

namespace vesk::loop::detail {

bool Composite::isActive() const noexcept {
    return std::any_of(m_parts.begin(), m_parts.end(), [](auto const& part) { return part->isActive(); });
}

int Composite::start(std::shared_ptr<ReadySource> const& part) const {
    int const error = getCore().attach(*part);
    return error == EEXIST ? 0 : error;
}

void Composite::stopAll() const noexcept {
    for (auto const& part : m_parts) {
        stop(part);
    }
}

void Composite::silence() noexcept {
    if (!m_is_silent.exchange(true)) {
        for (auto const& part : m_parts) {
            part->cancel();
        }
    }
}

} // namespace vesk::loop::detail
