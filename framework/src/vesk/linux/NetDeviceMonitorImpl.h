#pragma once

#include <vesk/NetDeviceMonitor.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>

namespace vesk {

/// The netlink part of a `NetDeviceMonitor`: subscribes to the kernel's messages, decodes them, and passes
/// them to the monitor.
///
/// When the queue of the socket is full, the kernel returns a single `ENOBUFS`, and drops all messages until
/// the queue is empty. So the recovery from a loss has a fixed order: empty the queue, request all interfaces
/// and all addresses, and remove the table entries that are missing in the answers.
class NetDeviceMonitorImpl : private tarnbase::NonCopyable {
public:
    explicit NetDeviceMonitorImpl(NetDeviceMonitor& monitor) noexcept : m_monitor(&monitor) {}

    bool watch();
    void stopWatching() noexcept;

    /// The kernel's answers to the requests for all interfaces and all addresses.
    class Snapshot {
    public:
        using AddrInfo = NetworkInterface::AddrInfo;

        /// @param is_wanted  whether to record the answers in `there`
        void begin(bool is_wanted) {
            there.clear();
            ++sequence;
            is_active = true;
            is_noting = is_wanted;
            is_cut = false;
            is_torn = false;
        }

        void end() {
            there.clear();
            is_active = false;
            is_noting = false;
        }

        void addLink(unsigned short index, AddrInfo const* link);
        void removeLink(int index);
        void addAddress(unsigned short index, AddrInfo const& address);
        void removeAddress(unsigned short index, AddrInfo const& address);

        std::map<uint32_t, std::list<AddrInfo>> there;
        uint32_t sequence = 0;  ///< The number of the current requests.
        bool is_active = false; ///< The kernel is answering.
        bool is_noting = false; ///< The answers are recorded in `there`.
        bool is_cut = false;    ///< A message was truncated.
        bool is_torn = false;   ///< A change interrupted an answer, which may be incomplete.
    };

private:
    class Subscription;

    /// Room for a single datagram.
    struct Buffer {
        alignas(uint32_t) unsigned char bytes[4096];
    };

    /// The result of an attempt to receive.
    enum class Taken { DATAGRAM, END_OF_DUMP, NOTHING, FAILURE, STOP };

    bool isStopped() noexcept;
    bool synchronise(int fd, bool& failed);
    bool receive(int fd);
    bool drain(int fd);
    Taken take(int fd, int flags, Buffer& buffer);

    std::atomic<uint32_t> m_stop{0};
    NetDeviceMonitor* m_monitor;
    std::atomic<int> m_socket{-1};
    std::atomic<int> m_wakers{0}; // Threads that may be using the descriptor in `m_socket`.

    // The fields below belong to the watching thread.
    Snapshot m_snapshot;
    bool m_has_lost = false; // Everything must be requested again.
    int m_failures = 0;      // Since the last datagram.
};

} // namespace vesk
