#pragma once

#include <vesk/DnsSd.h>
#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <dlfcn.h>

namespace vesk::avahi {

/// The engine of service discovery on the Avahi daemon, loaded at run time from `libvesk-avahi.so`: it is
/// installed for `vesk::DnsSd` during the lifetime of this object. A program needs neither Avahi nor the plug-in
/// to be built, and runs without them; discovery then finds nothing.
///
///     vesk::avahi::Plugin const discovery;
///     if (!discovery.isLoaded()) {
///         std::cerr << "no service discovery: the plug-in is not installed\n";
///     }
///     vesk::DnsSd::SyncBrowser browser("_http._tcp", "local");
///
/// The engine connects to the daemon through the system's message bus, in the thread "vesk::Avahi", which
/// accepts no signals. While the bus or the daemon is absent it tries again every second. When the daemon
/// ends, browsers are told that their services have disappeared; when it is there again, all operations are
/// started again, without a call of the client.
///
/// The operations of the engine return at once and throw `std::invalid_argument` for a name, type, domain or
/// record that the protocol excludes: a name of an instance has 1 to 63 bytes of UTF-8, an entry of a TXT
/// record at most 255. They call the callbacks as follows:
/// - `browse`: services are reported once, even if they are seen on several network interfaces. The domain
///   may be empty for the default of the daemon.
/// - `resolve`: reports again when the host, the port or the record has changed, and waits for a service that
///   does not answer. The name may be the one that a running browser has reported, although `sanitize` has
///   changed it.
/// - `lookup`: reports all addresses, each once, IPv6 addresses of a link as "fe80::1%eth0".
/// - `publish`: a name that is taken in the network becomes "name #2" and so on. `service_appeared` of the
///   client reports the name under which the service has been announced.
///
/// `error` is called when the daemon refuses an operation, for example because its configuration forbids to
/// publish. The operation is started again when the daemon has been restarted.
///
/// Operations may throw `std::bad_alloc`, too. A callback may throw nothing else: it ends the process. Without memory the
/// handler of warnings is called, and the operation is started again in a second, so that what it reports comes again.
///
/// A callback may start operations and cancel any, its own included. The constructor and the destructor may
/// block until the thread has started and ended; they must not be called by several threads at once, nor
/// while clients exist. Not for a forked child, in which the thread does not exist. In a process that changes
/// the action of `SIGPIPE` at the same time as the engine connects, the change may be lost.
class Plugin : private tarnbase::NonCopyable {
public:
    /// Loads the library (`dlopen`), creates the engine and installs it. Changes nothing if the library is not
    /// found or has no memory.
    Plugin() noexcept : m_library(dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
        using Create = DnsSd::Engine* (*)();
        if (m_library != nullptr) {
            auto const create = reinterpret_cast<Create>(dlsym(m_library, "veskCreateDnsSdEngine"));
            m_engine = create != nullptr ? create() : nullptr;
        }
        if (m_engine != nullptr) {
            m_previous = DnsSd::setEngine(m_engine);
        }
    }

    /// Installs the previous engine again and destroys this one. The library stays loaded, because the library of
    /// the message bus keeps data of the process.
    ~Plugin() {
        if (m_engine != nullptr) {
            DnsSd::setEngine(m_previous);
            delete m_engine;
        }
        if (m_library != nullptr) {
            static_cast<void>(dlclose(m_library));
        }
    }

    /// Returns whether the engine is installed. Says nothing about the daemon.
    bool isLoaded() const noexcept { return m_engine != nullptr; }

    /// Returns the engine, for clients that are no synchronous ones; null if it is not loaded.
    DnsSd::Engine* getEngine() const noexcept { return m_engine; }

private:
    static constexpr char const* LIBRARY = "libvesk-avahi.so.0.1";

    void* m_library;
    DnsSd::Engine* m_engine = nullptr;
    DnsSd::Engine* m_previous = nullptr;
};

} // namespace vesk::avahi
