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

/// Service discovery for those who ask in their own time. An engine finds services on a thread of its own and calls back;
/// the synchronous clients here keep what it tells until somebody reads it.
///
///     vesk::DnsSd::SyncBrowser browser("_http._tcp", "local");
///     vesk::DnsSd::SyncBrowser::Result result;
///     while (!browser.wait(tarnbase::TimePoint::now() + tarnbase::Duration(2000))) {
///         browser.get(result);
///         ...
///     }
///
/// The engine is not in this library: a process installs one with `setEngine`. A client that was made without an engine asks
/// nobody; it keeps what its callbacks are given by whoever else calls them.
class VESK_API DnsSd : public DnsSdBase {
public:
    class DnsSdThread;
    class Engine;
    class Client;
    class SyncBrowser;
    class SyncResolver;
    class SyncLookup;
    class SyncService;

    /// The thread of the process for discovery. It exists while somebody holds a reference: every client of an engine
    /// holds one for its whole life, and a client without an engine takes one for a moment when it is destroyed.
    static std::Shared<DnsSdThread> DEFAULT;

    /// Installs the engine for clients that are made from now on, and gives back the one before it; null is none. Those
    /// that exist stay with the engine that they have: it must live until the last of them is destroyed. Callable from any
    /// thread.
    static Engine* setEngine(Engine* engine) noexcept;

    /// The engine that is installed, null if none is.
    static Engine* getEngine() noexcept;

private:
    template <typename Result>
    class ResultQueue;

    static std::atomic<Engine*> s_engine;
};

/// The thread "vesk::DnsSd", which runs from the constructor to the destructor; it ends at once, since its body is empty
/// in this library. Used through `DnsSd::DEFAULT`.
class VESK_API DnsSd::DnsSdThread : private tarnbase::NonCopyable {
public:
    /// Makes and starts the thread. Nobody could handle a failure, since clients come and go without a result: it is told
    /// as a warning of `std::GlobalErrorHandler`, and acknowledged.
    DnsSdThread();

    /// Waits for the end of the thread. The calling thread is not cancelled meanwhile.
    ~DnsSdThread();

private:
    Thread m_thread;
    bool m_started;
};

/// What finds services: to be derived from by whoever brings one. The constructors of the synchronous clients call the
/// first four operations, their destructors `cancel`, with the cancellation of the thread disabled; any thread may do so,
/// also several at once.
///
///     class Resident : public vesk::DnsSd::Engine { ... };
///
///     static Resident engine;
///     vesk::DnsSd::setEngine(&engine);
///
/// An operation registers the client and returns; what it finds goes to the callbacks of the client, from any one thread
/// other than that which makes or destroys the client, possibly before the operation has returned. No lock of the library
/// is held during the operations. An exception passes through the client's constructor, and the client counts as never
/// registered then.
class VESK_API DnsSd::Engine {
public:
    virtual ~Engine();

    /// Begins to tell `client` of services that come and go: `service_appeared`, `service_disappeared`, `all_for_now`.
    virtual void browse(DnsSdBase::Client& client, std::string const& type, std::string const& domain) = 0;

    /// Begins to look where a service instance is: `resolved`.
    virtual void resolve(
        DnsSdBase::Client& client, std::unicode::String const& name, std::string const& type,
        std::string const& domain) = 0;

    /// Begins to look up the addresses of a host: `address`.
    virtual void lookup(DnsSdBase::Client& client, std::string const& name) = 0;

    /// Announces a service of this host until it is cancelled.
    /// @param port  in the host's byte order
    virtual void publish(
        DnsSdBase::Client& client, std::unicode::String const& name, std::string const& type,
        std::string const& domain, unsigned short port, DnsSdBase::Txt const& txt) = 0;

    /// Ends what was begun for `client`. A callback that is under way may be waited for: once this has returned the
    /// client is not called any more, and is destroyed. Must not throw.
    virtual void cancel(DnsSdBase::Client& client) = 0;
};

/// What the synchronous clients have in common: their engine, and their reference on `DnsSd::DEFAULT`.
class VESK_API DnsSd::Client : public DnsSdBase::Client, private tarnbase::NonCopyable {
public:
    ~Client() override;

protected:
    Client() noexcept;

    /// Gives the engine of the process with which this client is to register itself, and takes the reference on `DEFAULT`
    /// for as long as the client lives. Null, and no reference, without an engine.
    Engine* enlist();

    /// Cancels at the engine, if there is one, and lets go of the thread: without an engine the reference is taken here.
    /// For the destructors of what derives, while their fields still exist.
    void leave();

private:
    Engine* m_engine;
    std::SharedBase::Ptr<DnsSdThread> m_thread;
};

/// What an engine told and nobody has read so far, the oldest first; without a limit.
template <typename Result>
class DnsSd::ResultQueue : private tarnbase::NonCopyable {
public:
    ResultQueue();

    template <typename... Fields>
    void push(char const* callback, Fields const&... fields);

    bool wait();
    bool wait(tarnbase::TimePoint const& deadline);
    bool get(Result& out);

private:
    threadsafe::MutexImpl m_mutex; // Guards the results.
    threadsafe::ConditionImpl m_condition;
    std::list<Result> m_results;
};

/// Watches which services come and go.
///
/// One thread reads with `wait` and `get`, while the engine adds; several may read, but then `get` may find nothing after a
/// `wait` that succeeded. Destroying it loses what was not read, in silence. It may not be destroyed by a callback, nor while
/// somebody waits. This holds for `SyncResolver` and `SyncLookup` as well. An internal lock that fails ends the process
/// through `std::GlobalErrorHandler::doAbort`, with "error locking" or "error unlocking".
///
/// The callbacks are for the engine, or for whoever delivers in its place: each adds one result and wakes one waiter. Do not
/// derive from these classes: the engine may call until their own destructors have cancelled.
class VESK_API DnsSd::SyncBrowser : private DnsSd::Client {
public:
    /// What has happened to one service.
    struct Result {
        std::unicode::String name; ///< Of the service instance.
        std::string type;
        std::string domain;
        bool appeared = false; ///< False: it is gone.
    };

    /// Begins to browse (`Engine::browse`), if there is an engine.
    /// @param type    "_http._tcp"
    /// @param domain  "local"
    SyncBrowser(std::string const& type, std::string const& domain);

    /// Ends what the constructor began: waits for the engine, and for the thread "vesk::DnsSd" if this was the last client.
    ~SyncBrowser() override;

    /// Waits until there is something to read, for ever if nothing comes. Takes nothing. A cancellation point.
    /// @return false
    bool wait();

    /// The same until `deadline`. A result that is there already is not missed, however long past the deadline is.
    /// @return true if the time has run out; nothing is reported
    bool wait(tarnbase::TimePoint const& deadline);

    /// Takes the oldest result. Does not wait.
    /// @param out  as it was if there is nothing
    /// @return true if there is nothing; nothing is reported
    bool get(Result& out);

    /// A synchronous client has no way to tell that its engine has failed: a broken invariant, which goes to
    /// `std::GlobalErrorHandler::doAssert`.
    void error() override;

    void service_appeared(
        std::unicode::String const& name, std::string const& type, std::string const& domain) override;
    void service_disappeared(
        std::unicode::String const& name, std::string const& type, std::string const& domain) override;

private:
    ResultQueue<Result> m_queue;
};

/// Asks where a service instance is: its host, port and TXT record. Used as `SyncBrowser`; see there for threads, failures
/// and results.
class VESK_API DnsSd::SyncResolver : private DnsSd::Client {
public:
    /// Where a service instance is. It has a TXT record of its own.
    struct Result {
        Result() = default;
        Result(
            std::unicode::String const& its_name, std::string const& its_type, std::string const& its_domain,
            std::string const& its_host, unsigned short its_port, DnsSdBase::Txt const& its_txt);

        std::unicode::String name; ///< Of the service instance.
        std::string type;
        std::string domain;
        std::string host;        ///< That offers the service.
        unsigned short port = 0; ///< In the host's byte order.
        DnsSdBase::Txt txt;
    };

    /// Begins to resolve (`Engine::resolve`), if there is an engine. Arguments are as `SyncBrowser::Result` gives them.
    SyncResolver(std::unicode::String const& name, std::string const& type, std::string const& domain);
    ~SyncResolver() override;

    bool wait();
    bool wait(tarnbase::TimePoint const& deadline);
    bool get(Result& out);

    void error() override;
    void resolved(
        std::unicode::String const& name, std::string const& type, std::string const& domain,
        std::string const& host, unsigned short port, DnsSdBase::Txt const& txt) override;

private:
    ResultQueue<Result> m_queue;
};

/// Asks for the addresses of a host. Used as `SyncBrowser`; see there for threads, failures and results.
class VESK_API DnsSd::SyncLookup : private DnsSd::Client {
public:
    /// One address of a host.
    struct Result {
        std::string name; ///< That was looked up.
        std::string address;
    };

    /// Begins to look up (`Engine::lookup`), if there is an engine.
    /// @param name  the host, as `SyncResolver::Result` gives it
    explicit SyncLookup(std::string const& name);
    ~SyncLookup() override;

    bool wait();
    bool wait(tarnbase::TimePoint const& deadline);
    bool get(Result& out);

    void error() override;
    void address(std::string const& name, std::string const& address) override;

private:
    ResultQueue<Result> m_queue;
};

/// Announces a service as long as it lives. There is nothing to read.
class VESK_API DnsSd::SyncService : private DnsSd::Client {
public:
    /// Begins to announce (`Engine::publish`), if there is an engine.
    /// @param name    of the service instance
    /// @param type    "_http._tcp"
    /// @param domain  "local"
    /// @param port    where the service listens, in the host's byte order
    SyncService(
        std::unicode::String const& name, std::string const& type, std::string const& domain,
        unsigned short port, DnsSdBase::Txt const& txt = DnsSdBase::Txt::EMPTY);

    /// Ends the announcement; see `SyncBrowser`.
    ~SyncService() override;

    void error() override;
};

} // namespace vesk
