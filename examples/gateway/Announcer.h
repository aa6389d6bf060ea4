#pragma once

#include <vesk/UDPSocket.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <map>
#include <string>

namespace gateway {

/// Sends announcements to a multicast group, on each link.
class Announcer {
public:
    static constexpr char const* GROUP = "239.255.77.1";
    static constexpr unsigned short PORT = 7701;

    ~Announcer() {
        while (!m_sockets.empty()) {
            setLink(m_sockets.begin()->first, false);
        }
    }

    /// The address of a link is there, or gone.
    void setLink(std::string const& address, bool is_there) {
        if (auto const found = m_sockets.find(address); found != m_sockets.end()) {
            static_cast<void>(found->second.isValid() && found->second.close(false));
            m_sockets.erase(found);
        }
        if (is_there) {
            // A local address selects the interface.
            vesk::IPSocket::IPAddress const local(address, 0);
            vesk::IPSocket::IPAddress const group(GROUP, PORT);
            auto const position =
                m_sockets.try_emplace(address, false, 0U, 0U, local, group, vesk::IPSocket::IPV4);
            if (position.first->second.isValid()) {
                position.first->second.open();
            }
        }
        if (std::ErrorStorage::isError(false)) {
            std::cerr << "no announcements at " << address << ": " << tarn_error.getReasonList() << std::endl;
            std::ErrorStorage::ack();
        }
    }

    /// Sends a datagram on each link. A link without a cable is no failure.
    void send(std::string const& text) {
        for (auto& [address, socket] : m_sockets) {
            unsigned int count = 0;
            static_cast<void>(socket.write(text.data(), static_cast<unsigned int>(text.size()), count));
        }
        std::ErrorStorage::ack();
    }

private:
    std::map<std::string, vesk::UDPSocket> m_sockets;
};

} // namespace gateway
