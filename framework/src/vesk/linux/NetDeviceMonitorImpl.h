#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>

namespace vesk {

class NetDeviceMonitor;

/// The netlink side of a `NetDeviceMonitor`: subscribes to the kernel's messages, decodes them, and hands them on.
class NetDeviceMonitorImpl : private tarnbase::NonCopyable {
public:
    explicit NetDeviceMonitorImpl(NetDeviceMonitor& monitor) noexcept : m_monitor(&monitor) {}

    bool watch();
    void stopWatching() noexcept;

private:
    class Subscription;

    bool isStopped() noexcept;
    bool receive(int fd);

    std::atomic<uint32_t> m_stop{0};
    NetDeviceMonitor* m_monitor;
    std::atomic<int> m_socket{-1};
    std::atomic<int> m_wakers{0}; // Threads that may be using the number in `m_socket`.
};

} // namespace vesk
