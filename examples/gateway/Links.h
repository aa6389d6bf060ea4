#pragma once

#include "Post.h"

#include <vesk/NetDeviceMonitor.h>
#include <vesk/Thread.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <optional>
#include <string>
#include <utility>

namespace gateway {

/// Watches the IPv4 addresses of this machine, except those of the loopback, in a thread of its own.
class Links : private vesk::NetDeviceMonitor::Listener {
public:
    /// @param changed  is called in the thread of the gateway with an address, and whether it is there
    Links(Post post, std::function<void(std::string const&, bool)> changed)
        : m_post(std::move(post)), m_changed(std::move(changed)) {}
    ~Links() override {
        m_monitor.stopWatching();
        static_cast<void>(m_is_started && m_thread->join());
    }
    [[nodiscard]] bool start() {
        // The thread is created here, not with this object: it must block the signals that the caller blocks then, because
        // a signal would interrupt the monitor.
        m_thread.emplace(&watch, this, "links");
        m_is_started = m_thread->isValid() && !m_thread->start();
        return !m_is_started;
    }

private:
    void address_operable(AddrInfo const& address, Info const& interface) override {
        tell(address, interface, true);
    }
    void address_inoperable(AddrInfo const& address, Info const& interface) override {
        tell(address, interface, false);
    }
    void tell(AddrInfo const& address, Info const& interface, bool is_there) {
        if (address.address.getType() == vesk::NetworkAddress::IPV4 && !interface.loopback) {
            m_post([this, text = address.address.getText(), is_there] { m_changed(text, is_there); });
        }
    }
    static void watch(void* links) {
        if (static_cast<Links*>(links)->m_monitor.watch()) {
            std::cerr << "links: " << tarn_error.getReasonList() << std::endl;
            std::ErrorStorage::ack();
        }
    }

    Post const m_post;
    std::function<void(std::string const&, bool)> const m_changed;
    vesk::NetDeviceMonitor m_monitor{this};
    std::optional<vesk::Thread> m_thread;
    bool m_is_started = false;
};

} // namespace gateway
