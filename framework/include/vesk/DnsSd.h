#pragma once

#include <common/Shared.h>
#include <vesk/DnsSdBase.h>
#include <vesk/Export.h>
#include <vesk/Thread.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/ConditionImpl.h>
#include <tarncommon/threadsafe/MutexImpl.h>
#include <tarncommon/unicode/String.h>

#include <atomic>
#include <list>
#include <string>

namespace vesk {

/// Synchronous clients for service discovery. An engine finds services in its own thread and calls back; the
/// synchronous clients queue the results until the caller reads them.
///
///     vesk::DnsSd::SyncBrowser browser("_http._tcp", "local");
///     vesk::DnsSd::SyncBrowser::Result result;
///     while (!browser.wait(tarnbase::TimePoint::now() + tarnbase::Duration(2000))) {
///         browser.get(result);
///         ...
///     }
///
/// This library contains no engine: a process installs one with `setEngine`. A client that is created without
/// an engine sends no requests; it only queues what other code passes to its callbacks.
class VESK_API DnsSd : public DnsSdBase {
public:
    class DnsSdThread;
    class Engine;
    class Client;
    class SyncBrowser;
    class SyncResolver;
    class SyncLookup;
    class SyncService;

    /// The discovery thread of the process. It exists while it is referenced: every client of an engine holds
    /// a reference for its whole lifetime, and a client without an engine takes a reference for a moment when
    /// it is destroyed.
    static std::Shared<DnsSdThread> DEFAULT;

    /// Installs the engine for clients that are created from now on, and returns the previous engine; null
    /// stands for none. Existing clients keep their engine, which must exist until the last of them is
    /// destroyed. Callable from any thread.
    static Engine* setEngine(Engine* engine) noexcept;

    /// Returns the installed engine, null if there is none.
    static Engine* getEngine() noexcept;

private:
    template <typename Result>
    class ResultQueue;

    static std::atomic<Engine*> s_engine;
};

/// The thread "vesk::DnsSd", which is started by the constructor and joined by the destructor. It ends
/// immediately, since its body is empty in this library. Used through `DnsSd::DEFAULT`.
class VESK_API DnsSd::DnsSdThread : private tarnbase::NonCopyable {
public:
    /// Creates and starts the thread. A failure is acknowledged and only becomes a warning of
    /// `std::GlobalErrorHandler`, since the constructors and destructors of clients cannot return it.
    DnsSdThread();

    /// Waits for the end of the thread, with the cancellation of the calling thread disabled.
    ~DnsSdThread();

private:
    Thread m_thread;
    bool m_started;
};

/// The interface of the implementation that finds services. The constructors of the synchronous clients call
/// the first four operations. Their destructors call `cancel`, with the cancellation of the thread disabled.
/// Any thread may call, also several at once.
///
///     class Resident : public vesk::DnsSd::Engine { ... };
///
///     static Resident engine;
///     vesk::DnsSd::setEngine(&engine);
///
/// An operation registers the client and returns. The results go to the callbacks of the client, from a
/// single thread other than the one that creates or destroys the client, possibly before the operation has
/// returned. No lock of the library is held during the operations. An exception passes through the client's
/// constructor, and the client then counts as never registered.
class VESK_API DnsSd::Engine {
public:
    virtual ~Engine();

    /// Starts to report services that appear and disappear to `client`: `service_appeared`,
    /// `service_disappeared`, `all_for_now`.
    virtual void browse(DnsSdBase::Client& client, std::string const& type, std::string const& domain) = 0;

    /// Starts to resolve a service instance: `resolved`.
    virtual void resolve(
        DnsSdBase::Client& client, std::unicode::String const& name, std::string const& type,
        std::string const& domain) = 0;

    /// Starts to look up the addresses of a host: `address`.
    virtual void lookup(DnsSdBase::Client& client, std::string const& name) = 0;

    /// Announces a service of this host until `cancel`.
    /// @param port  in host byte order
    virtual void publish(
        DnsSdBase::Client& client, std::unicode::String const& name, std::string const& type,
        std::string const& domain, unsigned short port, DnsSdBase::Txt const& txt) = 0;

    /// Ends the operation that was started for `client`. May wait for a callback in progress: after the
    /// return the client is not called any more, and is destroyed. Must not throw.
    virtual void cancel(DnsSdBase::Client& client) = 0;
};

/// The common part of the synchronous clients: their engine, and their reference to `DnsSd::DEFAULT`.
class VESK_API DnsSd::Client : public DnsSdBase::Client, private tarnbase::NonCopyable {
public:
    ~Client() override;

protected:
    Client() noexcept;

    /// Returns the engine with which this client must register itself, and takes the reference to `DEFAULT`
    /// for the lifetime of the client. Returns null, and takes no reference, without an engine.
    Engine* enlist();

    /// Cancels at the engine, if there is one, and releases the thread. Without an engine the reference is
    /// taken and released here. Called by the destructors of the derived classes, while their fields still
    /// exist.
    void leave();

private:
    Engine* m_engine;
    std::SharedBase::Ptr<DnsSdThread> m_thread;
};

/// The results of an engine that have not been read yet, the oldest first, without a limit.
template <typename Result>
class DnsSd::ResultQueue : private tarnbase::NonCopyable {
public:
    ResultQueue();

    template <typename... Fields>
    void push(char const* callback, Fields const&... fields);

    [[nodiscard]] bool wait();
    [[nodiscard]] bool wait(tarnbase::TimePoint const& deadline);
    [[nodiscard]] bool get(Result& out);

private:
    threadsafe::MutexImpl m_mutex;
    threadsafe::ConditionImpl m_condition;
    std::list<Result> m_results TARN_GUARDED_BY(m_mutex);
};

/// Watches which services appear and disappear.
///
/// A single thread reads with `wait` and `get`, while the engine adds. Several threads may read, but `get`
/// may then find nothing after a successful `wait`. Destruction discards unread results without a report. The
/// object must not be destroyed by a callback, nor while a thread waits. All this applies to `SyncResolver`
/// and `SyncLookup` as well. An internal lock that fails ends the process through
/// `std::GlobalErrorHandler::doAbort`, with "error locking" or "error unlocking".
///
/// The callbacks are for the engine, or for code that replaces it: each adds a result and wakes a single
/// waiter. Do not derive from these classes: the engine may call until their own destructors have called
/// `cancel`.
class VESK_API DnsSd::SyncBrowser : private DnsSd::Client {
public:
    /// A change of a single service.
    struct Result {
        std::unicode::String name; ///< The name of the service instance.
        /// The type of the service.
        std::string type;
        /// The domain of the service.
        std::string domain;
        bool appeared = false; ///< False: it has disappeared.
    };

    /// Starts to browse (`Engine::browse`), if there is an engine.
    /// @param type    "_http._tcp"
    /// @param domain  "local"
    SyncBrowser(std::string const& type, std::string const& domain);

    /// Ends the operation that the constructor started. Waits for the engine, and for the thread
    /// "vesk::DnsSd" if this was the last client.
    ~SyncBrowser() override;

    /// Blocks until there is a result to read, without a time limit. Does not remove it. A cancellation
    /// point.
    /// @return false
    [[nodiscard]] bool wait();

    /// Blocks until there is a result to read, or until `deadline`. An existing result is found even if the
    /// deadline has passed. Does not remove it. A cancellation point.
    /// @return true if the time has run out; nothing is reported
    [[nodiscard]] bool wait(tarnbase::TimePoint const& deadline);

    /// Removes and returns the oldest result. Does not block.
    /// @param out  unchanged if there is no result
    /// @return true if there is no result; nothing is reported
    [[nodiscard]] bool get(Result& out);

    /// Asserts (`std::GlobalErrorHandler::doAssert`): a synchronous client cannot return a failure of its
    /// engine, so a call breaks an invariant.
    void error() override;

    void service_appeared(
        std::unicode::String const& name, std::string const& type, std::string const& domain) override;
    /// Queues a result.
    void service_disappeared(
        std::unicode::String const& name, std::string const& type, std::string const& domain) override;

private:
    ResultQueue<Result> m_queue;
};

/// Resolves a service instance to its host, port and TXT record. Used like `SyncBrowser`; see there for
/// threads, failures and results.
class VESK_API DnsSd::SyncResolver : private DnsSd::Client {
public:
    /// A resolved service instance, with its own copy of the TXT record.
    struct Result {
        Result() = default;
        /// Creates a result from its parts.
        Result(
            std::unicode::String const& its_name, std::string const& its_type, std::string const& its_domain,
            std::string const& its_host, unsigned short its_port, DnsSdBase::Txt const& its_txt);

        std::unicode::String name; ///< The name of the service instance.
        /// The type of the service.
        std::string type;
        /// The domain of the service.
        std::string domain;
        std::string host;        ///< The host that offers the service.
        unsigned short port = 0; ///< In host byte order.
        /// The additional data of the service.
        DnsSdBase::Txt txt;
    };

    /// Starts to resolve (`Engine::resolve`), if there is an engine. The arguments are as in
    /// `SyncBrowser::Result`.
    SyncResolver(std::unicode::String const& name, std::string const& type, std::string const& domain);
    ~SyncResolver() override;

    /// @{
    /// See `SyncBrowser`.
    [[nodiscard]] bool wait();
    [[nodiscard]] bool wait(tarnbase::TimePoint const& deadline);
    [[nodiscard]] bool get(Result& out);
    /// @}

    void error() override;
    void resolved(
        std::unicode::String const& name, std::string const& type, std::string const& domain,
        std::string const& host, unsigned short port, DnsSdBase::Txt const& txt) override;

private:
    ResultQueue<Result> m_queue;
};

/// Looks up the addresses of a host. Used like `SyncBrowser`; see there for threads, failures and results.
class VESK_API DnsSd::SyncLookup : private DnsSd::Client {
public:
    /// A single address of a host.
    struct Result {
        std::string name; ///< The host that was looked up.
        /// The address of the host.
        std::string address;
    };

    /// Starts to look up (`Engine::lookup`), if there is an engine.
    /// @param name  the host, as in `SyncResolver::Result`
    explicit SyncLookup(std::string const& name);
    ~SyncLookup() override;

    /// @{
    /// See `SyncBrowser`.
    [[nodiscard]] bool wait();
    [[nodiscard]] bool wait(tarnbase::TimePoint const& deadline);
    [[nodiscard]] bool get(Result& out);
    /// @}

    void error() override;
    void address(std::string const& name, std::string const& address) override;

private:
    ResultQueue<Result> m_queue;
};

/// Announces a service during its lifetime. It has no results.
class VESK_API DnsSd::SyncService : private DnsSd::Client {
public:
    /// Starts to announce (`Engine::publish`), if there is an engine.
    /// @param name    of the service instance
    /// @param type    "_http._tcp"
    /// @param domain  "local"
    /// @param port    where the service listens, in host byte order
    SyncService(
        std::unicode::String const& name, std::string const& type, std::string const& domain,
        unsigned short port, DnsSdBase::Txt const& txt = DnsSdBase::Txt::EMPTY);

    /// Ends the announcement; see `SyncBrowser`.
    ~SyncService() override;

    void error() override;
};

} // namespace vesk
