#include "Operation.h"

#include <avahi-common/error.h>

#include <stdexcept>

namespace vesk::avahi {

namespace {

/// Returns whether another attempt may succeed with the same daemon.
bool isTemporary(int number) noexcept {
    switch (number) {
    case AVAHI_ERR_TIMEOUT:
    case AVAHI_ERR_NO_NETWORK:
    case AVAHI_ERR_NO_MEMORY:
    case AVAHI_ERR_NOT_FOUND:
    case AVAHI_ERR_BAD_STATE:
    case AVAHI_ERR_DISCONNECTED:
    case AVAHI_ERR_NO_DAEMON:
    case AVAHI_ERR_DBUS_ERROR:
        return true;
    default:
        return false;
    }
}

} // namespace

void require(bool valid, char const* what) {
    if (!valid) {
        throw std::invalid_argument(what);
    }
}

bool Operation::isReady(AvahiClientState state) const noexcept {
    return state == AVAHI_CLIENT_S_RUNNING || state == AVAHI_CLIENT_S_REGISTERING ||
        state == AVAHI_CLIENT_S_COLLISION;
}

void Operation::advance(AvahiClient* daemon, AvahiClientState state, TimePoint now) {
    if (m_runs && (m_restarts || !isReady(state))) {
        halt();
    }
    if (!m_runs && now >= m_due && isReady(state)) {
        m_restarts = false;
        m_runs = true;
        m_due = {};
        if (start(daemon)) {
            fail(avahi_client_errno(daemon));
            halt();
        }
    }
}

void Operation::halt() noexcept {
    if (m_runs) {
        m_runs = false;
        stop();
    }
}

void Operation::lose() {
    m_runs = false;
    m_restarts = false;
    m_due = {};
    forget();
}

void Operation::fail(int number) {
    if (m_restarts) {
        return; // Each object at the daemon tells the failure.
    }
    m_restarts = true;
    m_due = std::chrono::steady_clock::now() + PAUSE;
    if (!isTemporary(number)) {
        m_due = NEVER;
        report([](Client& client) { client.error(); });
    }
}

} // namespace vesk::avahi
