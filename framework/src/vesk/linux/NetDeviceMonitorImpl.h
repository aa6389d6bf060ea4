#pragma once

#include <vesk/NetDeviceMonitor.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>

namespace vesk {

/// The netlink side of a `NetDeviceMonitor`: subscribes to the kernel's messages, decodes them, and hands them on.
///
/// When the queue of the socket is full, the kernel tells so by one `ENOBUFS`, and drops all messages until the queue is
/// empty. So a loss is made good in this order: the queue is emptied, all interfaces and all addresses are asked for, and
/// what the table has beyond the answers has gone.
class NetDeviceMonitorImpl : private tarnbase::NonCopyable {
public:
    explicit NetDeviceMonitorImpl(NetDeviceMonitor& monitor) noexcept : m_monitor(&monitor) {}

    bool watch();
    void stopWatching() noexcept;

    /// What the kernel tells while it answers the requests for all interfaces and all addresses.
    class Snapshot {
    public:
        using AddrInfo = NetworkInterface::AddrInfo;

        /// @param is_wanted  whether to note what is there
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
        uint32_t sequence = 0;  ///< The number of the requests.
        bool is_active = false; ///< The kernel is answering.
        bool is_noting = false; ///< What it tells is kept in `there`.
        bool is_cut = false;    ///< There was no room for a whole answer.
        bool is_torn = false;   ///< A change came in the middle of an answer, which may lack what is there.
    };

private:
    class Subscription;

    /// Room for one datagram.
    struct Buffer {
        alignas(uint32_t) unsigned char bytes[4096];
    };

    /// What came of an attempt to receive.
    enum class Taken { DATAGRAM, END_OF_DUMP, NOTHING, FAILURE, STOP };

    bool isStopped() noexcept;
    bool synchronise(int fd, bool& failed);
    bool receive(int fd);
    bool drain(int fd);
    Taken take(int fd, int flags, Buffer& buffer);

    std::atomic<uint32_t> m_stop{0};
    NetDeviceMonitor* m_monitor;
    std::atomic<int> m_socket{-1};
    std::atomic<int> m_wakers{0}; // Threads that may be using the number in `m_socket`.

    // What follows belongs to the watching thread.
    Snapshot m_snapshot;
    bool m_has_lost = false; // All is to be asked for again.
    int m_failures = 0;      // Since the last datagram.
};

} // namespace vesk
