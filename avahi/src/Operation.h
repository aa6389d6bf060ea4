#pragma once

#include "Engine.h"

#include <avahi-common/address.h>
#include <avahi-common/error.h>
#include <avahi-common/strlst.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

namespace vesk::avahi {

/// An operation of a client. The engine's thread runs it; only the engine touches `m_client`.
class Operation : private tarnbase::NonCopyable {
public:
    using Client = DnsSdBase::Client;
    using String = std::unicode::String;
    using Txt = DnsSdBase::Txt;

    Operation(Engine& engine, Client& client) noexcept : m_engine(engine), m_client(&client) {}
    virtual ~Operation() = default;

    /// Starts at the daemon, unless it runs, waits after a failure, or needs another state of the daemon.
    void advance(AvahiClient* daemon, AvahiClientState state, TimePoint now);
    /// Ends at the daemon.
    void halt() noexcept;
    /// The connection has been lost, and with it everything that belongs to it.
    void lose();
    /// Returns when `advance` must be called again at the latest, if the state of the daemon does not change.
    TimePoint getDue(TimePoint now) const noexcept {
        if (m_runs) {
            return m_restarts ? now : NEVER;
        }
        return m_due > now ? m_due : NEVER;
    }
    /// Returns the name that `name` was before `sanitize`, if this operation has reported a service that is shown so, and
    /// preferably the name itself.
    virtual std::optional<std::string>
    findRaw(std::string const& /*name*/, std::string const& /*type*/, std::string const& /*domain*/) const {
        return std::nullopt;
    }

protected:
    using Objects = std::unique_ptr<void, void (*)(void*)>;

    /// Creates the objects at the daemon. Returns true on failure.
    virtual bool start(AvahiClient* daemon) = 0;
    /// Frees the objects at the daemon.
    virtual void stop() noexcept = 0;
    /// Forgets the objects, which do not exist any more.
    virtual void forget() = 0;
    virtual bool isReady(AvahiClientState state) const noexcept;

    /// Ends the operation after the failure `number` of the daemon: it starts again in a second, or, if the
    /// daemon has refused it, with the next daemon.
    void fail(int number);
    /// Starts the operation anew with the next step of the engine.
    void restart() noexcept { m_restarts = true; }

    /// Calls the client. Returns true without memory; the operation is started again in a second then.
    template <typename Call>
    bool report(Call const& call) {
        bool const failed = m_engine.report(*this, call);
        if (failed) {
            fail(AVAHI_ERR_NO_MEMORY);
        }
        return failed;
    }
    /// Handles an event of the daemon. Without memory the operation is started again in a second.
    template <typename Handle>
    void handle(Handle const& handle) noexcept {
        if (Engine::hasNoMemory(handle)) {
            fail(AVAHI_ERR_NO_MEMORY);
        }
    }

    Engine& m_engine;

private:
    friend class Engine;

    Client* m_client; // Guarded by the engine's mutex; null once canceled.
    bool m_runs = false;
    bool m_restarts = false;
    TimePoint m_due{};
};

/// The things that network interfaces have reported: each interface and family reports them on its own.
template <typename Key>
class Sightings {
public:
    using Place = std::pair<AvahiIfIndex, AvahiProtocol>;

    /// Returns whether this is the first sighting.
    bool add(Key const& key, Place place) {
        auto& places = m_places[key];
        return places.insert(place).second && places.size() == 1;
    }
    /// Returns whether this was the last sighting.
    bool remove(Key const& key, Place place) {
        auto const found = m_places.find(key);
        if (found == m_places.end() || found->second.erase(place) == 0 || !found->second.empty()) {
            return false;
        }
        m_places.erase(found);
        return true;
    }
    std::map<Key, std::set<Place>> take() { return std::exchange(m_places, {}); }
    std::map<Key, std::set<Place>> const& get() const noexcept { return m_places; }

private:
    std::map<Key, std::set<Place>> m_places;
};

std::unique_ptr<Operation>
makeBrowser(Engine& engine, Operation::Client& client, std::string const& type, std::string const& domain);
std::unique_ptr<Operation> makeResolver(
    Engine& engine, Operation::Client& client, std::string const& name, std::string const& type,
    std::string const& domain);
std::unique_ptr<Operation> makeLookup(Engine& engine, Operation::Client& client, std::string const& name);
std::unique_ptr<Operation> makePublication(
    Engine& engine, Operation::Client& client, std::string const& name, std::string const& type,
    std::string const& domain, unsigned short port, Operation::Txt const& txt);

/// Throws `std::invalid_argument` with `what` unless `valid`.
void require(bool valid, char const* what);

} // namespace vesk::avahi
