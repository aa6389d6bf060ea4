#pragma once

#include "OperationRow.h"

namespace operations {

/// Returns whether a client connects to a server, which accepts it.
template <typename Server, typename Socket>
bool isAccepted(Server& server, Socket& client) {
    Closing const closing_client(client);
    if (server.hadError() || isBroken(client) || client.connect()) {
        return false;
    }
    auto const accepted = server.acceptConnection();
    if (server.hadError()) {
        return false;
    }
    Socket peer(true, 100, 100, accepted);
    Closing const closing_peer(peer);
    return !isBroken(peer);
}

/// Operations on what is shared with other processes and hosts.
Row const OUTSIDE_ROWS[] = {
    // ---- ipc ----
    {"SharedMemory", "TRT",
     [] {
         vesk::SharedMemoryServer server;
         server.setUnlinkOnClose(true);
         return server.create(getName("memory").c_str(), 8192, vesk::Creatable::REPLACE) ||
             isBroken(server.addMapping(vesk::MemMapping::READ, 4096)) || server.close();
     }},
    {"SharedMemory_ring", "TRRRT",
     [] {
         vesk::SharedMemoryServer server;
         server.setUnlinkOnClose(true);
         return server.create(getName("ring").c_str(), 8192, vesk::Creatable::REPLACE) ||
             isBroken(server.addMapping(vesk::MemMapping::READ, 4096, 0, nullptr, true)) || server.close();
     }},
    {"MsgQueue", "T",
     [] {
         vesk::MsgQueueServer server;
         server.setUnlinkOnClose(true);
         return server.create(getName("queue").c_str(), 8, 2, vesk::Creatable::REPLACE) || server.close();
     }},
    {"MsgQueue_systemMax", "R--R--",
     [] {
         return vesk::MsgQueueBase::systemMaxMsgSize() == 0 || vesk::MsgQueueBase::systemMaxMsgCount() == 0;
     },
     "`close` needs no buffer"},
    {"SemaphoreClient", "*TR-",
     [] {
         vesk::SemaphoreClient client;
         return client.attach(getName("attached").c_str()) || client.close();
     },
     "the C library finds the open semaphore without it"},
    {"Semaphore", "*TR-",
     [] {
         vesk::SemaphoreCreator creator;
         creator.setUnlinkOnClose(true);
         return creator.create(getName("semaphore").c_str(), 1, vesk::Creatable::REPLACE) || creator.close();
     },
     "the C library creates it without a name in its table"},
    // ---- network ----
    {"NetDevice", "RR",
     [] {
         vesk::NetDevice device("lo");
         vesk::NetDevice::InterfaceInfo info{};
         return isBroken(device) || device.getNextInfo(info) == -1;
     }},
    {"NetDevice_setAddress", "*R-",
     [] {
         vesk::NetDevice device("lo");
         return isBroken(device) || !isRefused(device.setAddress("::1")) ||
             !isRefused(device.setNetmask("::1"));
     },
     "the C library goes on without it"},
    {"NetDevice_all", "*R",
     [] {
         vesk::NetDevice device(nullptr);
         return isBroken(device);
     }},
    {"NetDeviceMonitor", "PTTTTTTT",
     [] {
         vesk::NetDeviceMonitor::Listener listener;
         vesk::NetDeviceMonitor monitor(&listener);
         vesk::NetDeviceMonitor::AddrInfo const address;
         monitor.interface_appeared(7, LONG);
         monitor.interface_up(8, false, false, false, 1500, true, true);
         monitor.address_appeared(9, address);
         monitor.address_disappeared(10, address);
         monitor.interface_disappeared(11);
         return false;
     },
     "a constructor has no result"},
    {"NetDeviceMonitor_watch", "*AT",
     [] {
         struct Listener : vesk::NetDeviceMonitor::Listener {
             void interface_appeared(Info const&) override { monitor->stopWatching(); }
             vesk::NetDeviceMonitor* monitor = nullptr;
         };
         Listener listener;
         vesk::NetDeviceMonitor monitor(&listener);
         listener.monitor = &monitor;
         return monitor.watch();
     },
     "`watch` asserts that the monitor was created"},
    {"NetworkAddress", "T",
     [] {
         unsigned char const bytes[16] = {0x20, 1, 0xd, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
         vesk::NetworkAddress address;
         return !address.set(AF_INET6, bytes) && address.getText().empty();
     }},
    // ---- services and processes ----
    {"User_id2name", "*F-", [] { return vesk::User::id2name(0) != "root"; },
     "a lookup without memory finds nothing, as documented"},
    {"User_name2id", "*F-", [] { return vesk::User::name2id("root") != 0; },
     "a lookup without memory finds nothing, as documented"},
    {"Group_id2name", "*F-", [] { return vesk::Group::id2name(0) != "root"; },
     "a lookup without memory finds nothing, as documented"},
    {"User_getId", "*F-", [] { return vesk::User("root").getId() != 0 || vesk::Group("root").getId() != 0; },
     "a lookup without memory finds nothing, as documented"},
    {"Group_getName", "*F-", [] { return vesk::Group(0).getName() != "root"; },
     "a lookup without memory finds nothing, as documented"},
    {"SharedObj", "",
     [] {
         vesk::SharedObj object;
         vesk::SharedObj const same(object);
         return object.load("libm.so.6") || object.unload();
     }},
    {"ProcessInfo", "",
     [] {
         vesk::ProcessInfo info(getpid());
         info.init();
         return !info.valid;
     }},
    {"ProcessInfo_getPIDs", "*RT",
     [] {
         std::vector<int> pids;
         return vesk::ProcessInfo::getPIDs(pids) || pids.empty();
     }},
    {"SystemLoad", "R-",
     [] {
         vesk::SystemLoad load;
         return load.sample();
     },
     "the C library reads without a buffer"},
    {"ProcessTNG_settings", "TTTTTTTTTTTTTTTTT",
     [] {
         vesk::ProcessTNG process("/bin/true", {LONG});
         process.setEnvironment({{LONG, LONG}});
         process.setStdoutFile(LONG, false);
         process.setAffinity({true});
         return process.setExecutable("/bin/sh");
     }},
    {"ProcessTNG_start", "TTTTTTTTWWWW",
     [] {
         vesk::ProcessTNG process("/bin/true", {"argument"});
         process.setEnvironment({{"NAME", LONG}});
         return process.start() == -1 || process.wait(g_state, false, 0);
     }},
    {"KeptChildren", "",
     [] {
         constexpr int CHILD = 1 << 30; // No process has this id.
         vesk::KeptChildren::Start start;
         start.keep(CHILD);
         bool const kept = vesk::KeptChildren::isKept(CHILD);
         vesk::KeptChildren::release(CHILD);
         return !kept;
     }},
    {"ProcessTNG_getOwnProcessName", "T", [] { return vesk::ProcessTNG::getOwnProcessName().empty(); }},
    {"ProcessTNG_getProcessId", "*PT-",
     [] {
         std::vector<int> pids;
         vesk::ProcessTNG::getProcessId("no such process", pids, true);
         return !pids.empty();
     },
     "it has no result; a process with an unreadable command line is left out"},
    // ---- sockets ----
    {"IPAddress", "T",
     [] {
         sockaddr_in6 address{};
         address.sin6_family = AF_INET6;
         memset(&address.sin6_addr, 0x21, sizeof address.sin6_addr);
         return IPSocket::IPAddress(address).host.empty();
     }},
    {"IPAddress_getBinary", "*RT",
     [] {
         sockaddr_in binary{};
         return IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 80).getBinary(binary);
     }},
    {"IPResolver", "*RT",
     [] {
         IPSocket::IPResolver resolver;
         return resolver.resolveName("127.0.0.1", IPSocket::IPV4) < 0;
     }},
    {"IPResolver_resolveIP", "*RT-",
     [] {
         IPSocket::IPResolver resolver;
         return resolver.resolveIP("127.0.0.1", false, IPSocket::IPV4) < 0;
     },
     "the C library goes on without it"},
    {"RawSocket", "RR",
     [] {
         vesk::RawSocket const socket(true, 100, 100);
         return isBroken(socket) || socket.hadError();
     }},
    {"IPSocket_getHostname", "*R",
     [] {
         std::string name;
         return IPSocket::getHostname(name);
     }},
    {"TCPSocket", "*RT",
     [] {
         vesk::TCPServerSocket server(getLoopback(), true, true, IPSocket::IPV4);
         Closing const closing_server(server);
         if (isBroken(server) || server.hadError()) {
             return true; // Must not listen.
         }
         server.enableListen(1);
         server.updateLocalAddress();
         vesk::TCPSocket client(
             true, 100, 100, getLoopback(), server.getLocalAddress(), false, IPSocket::IPV4);
         return !isAccepted(server, client);
     }},
    {"UDPSocket", "*RT",
     [] {
         vesk::UDPSocket socket(true, 100, 100, getLoopback(), getLoopback(), IPSocket::IPV4);
         Closing const closing(socket);
         if (isBroken(socket) || socket.hadError()) {
             return true; // Must not be opened.
         }
         socket.open();
         return socket.hadError();
     }},
    {"UnixSocket", "TTTTTRRTTRRT",
     [] {
         vesk::UnixServerSocket server(getName("server").c_str(), true, vesk::UnixSocketBase::ABSTRACT);
         Closing const closing_server(server);
         if (isBroken(server) || server.hadError()) {
             return true; // Must not listen.
         }
         server.enableListen(1);
         vesk::UnixSocket client(
             true, 100, 100, "", getName("server").c_str(), vesk::UnixSocketBase::ABSTRACT);
         return !isAccepted(server, client);
     }},
    // ---- service discovery ----
    {"DnsSd_Txt", "TR",
     [] {
         vesk::DnsSdBase::Txt txt(8, "\7key=val");
         return txt.size() != 1 || isBroken(txt.data());
     }},
    {"DnsSd_sanitize", "TT",
     [] { return vesk::DnsSdBase::sanitize(std::unicode::String::fromUTF8(g_long)).isEmpty(); }},
    {"DnsSd_unescape", "TTT",
     [] {
         char const* at = LONG;
         return vesk::DnsSdBase::unescape(at, ".").empty();
     }},
    {"DnsSd_SyncBrowser", "TTTTW-",
     [] {
         vesk::DnsSd::SyncBrowser browser(g_long, LONG);
         browser.service_appeared(std::unicode::String(U'n'), g_long, g_long);
         vesk::DnsSd::SyncBrowser::Result result;
         return browser.get(result);
     },
     "the thread has no name then"},
    {"DnsSd_SyncBrowser_disappeared", "TTTTW-",
     [] {
         vesk::DnsSd::SyncBrowser browser(g_long, LONG);
         browser.service_disappeared(std::unicode::String(U'n'), g_long, g_long);
         vesk::DnsSd::SyncBrowser::Result result;
         return browser.get(result);
     },
     "the thread has no name then"},
    {"DnsSd_SyncResolver", "TTTTTTW-",
     [] {
         std::unicode::String const name(U'n');
         vesk::DnsSd::SyncResolver resolver(name, g_long, g_long);
         resolver.resolved(name, g_long, g_long, g_long, 80, vesk::DnsSdBase::Txt(8, "\7key=val"));
         vesk::DnsSd::SyncResolver::Result result;
         return resolver.get(result);
     },
     "the thread has no name then"},
    {"DnsSd_SyncLookup", "TTTTW-",
     [] {
         vesk::DnsSd::SyncLookup lookup(g_long);
         lookup.address(g_long, LONG);
         vesk::DnsSd::SyncLookup::Result result;
         return lookup.get(result);
     },
     "the thread has no name then"},
    {"DnsSd_Thread", "W-",
     [] {
         vesk::DnsSd::DnsSdThread const thread;
         return false;
     },
     "the thread has no name then"},
};

} // namespace operations
