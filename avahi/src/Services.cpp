#include "Operation.h"

#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/domain.h>
#include <avahi-common/malloc.h>

#include <optional>

namespace vesk::avahi {

namespace {

std::unicode::String toShown(std::string const& name) {
    return DnsSdBase::sanitize(std::unicode::String::fromUTF8(name));
}

char const* orDefault(std::string const& domain) noexcept {
    return domain.empty() ? nullptr : domain.c_str();
}

/// Watches the services of a type.
class Browser : public Operation {
public:
    Browser(Engine& engine, Client& client, std::string type, std::string domain)
        : Operation(engine, client), m_type(std::move(type)), m_domain(std::move(domain)) {}

    std::optional<std::string>
    findRaw(std::string const& name, std::string const& type, std::string const& domain) const override {
        std::optional<std::string> result;
        for (auto const& [service, places] : m_services.get()) {
            if (service.type != type || (!domain.empty() && service.domain != domain)) {
                continue;
            }
            if (service.name == name) {
                return name;
            }
            if (toShown(service.name).toUTF8() == name) {
                result = service.name;
            }
        }
        return result;
    }

protected:
    bool start(AvahiClient* daemon) override {
        m_browser = avahi_service_browser_new(
            daemon, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, m_type.c_str(), orDefault(m_domain),
            static_cast<AvahiLookupFlags>(0), &onEvent, this);
        return m_browser == nullptr;
    }
    void stop() noexcept override {
        if (m_browser != nullptr) {
            avahi_service_browser_free(std::exchange(m_browser, nullptr));
        }
        loseServices();
    }
    void forget() override {
        m_browser = nullptr;
        loseServices();
    }

private:
    struct Service {
        std::string name;
        std::string type;
        std::string domain;
        friend bool operator<(Service const& a, Service const& b) {
            return std::tie(a.name, a.type, a.domain) < std::tie(b.name, b.type, b.domain);
        }
    };

    static void onEvent(
        AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol family, AvahiBrowserEvent event,
        char const* name, char const* type, char const* domain, AvahiLookupResultFlags /*unused*/,
        void* operation) noexcept {
        Browser& self = *static_cast<Browser*>(operation);
        switch (event) {
        case AVAHI_BROWSER_NEW:
            self.handle([&] { self.add({name, type, domain}, {interface, family}); });
            break;
        case AVAHI_BROWSER_REMOVE:
            self.handle([&] { self.remove({name, type, domain}, {interface, family}); });
            break;
        case AVAHI_BROWSER_ALL_FOR_NOW:
            self.report([](Client& client) { client.all_for_now(); });
            break;
        case AVAHI_BROWSER_FAILURE:
            self.fail(avahi_client_errno(avahi_service_browser_get_client(browser)));
            break;
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            break;
        }
    }

    void add(Service const& service, Sightings<Service>::Place place) {
        if (m_services.add(service, place)) {
            report([&](Client& client) {
                client.service_appeared(toShown(service.name), service.type, service.domain);
            });
        }
    }

    void remove(Service const& service, Sightings<Service>::Place place) {
        if (m_services.remove(service, place)) {
            reportGone(service);
        }
    }

    void reportGone(Service const& service) {
        report([&](Client& client) {
            client.service_disappeared(toShown(service.name), service.type, service.domain);
        });
    }

    void loseServices() {
        for (auto const& [service, places] : m_services.take()) {
            reportGone(service);
        }
    }

    std::string const m_type;
    std::string const m_domain;
    AvahiServiceBrowser* m_browser = nullptr;
    Sightings<Service> m_services;
};

/// Resolves a service, and follows its changes.
class Resolver : public Operation {
public:
    Resolver(Engine& engine, Client& client, std::string name, std::string type, std::string domain)
        : Operation(engine, client),
          m_name(std::move(name)),
          m_type(std::move(type)),
          m_domain(std::move(domain)) {}

protected:
    bool start(AvahiClient* daemon) override {
        m_resolver = avahi_service_resolver_new(
            daemon, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, m_engine.findRaw(m_name, m_type, m_domain).c_str(),
            m_type.c_str(), orDefault(m_domain), AVAHI_PROTO_UNSPEC, static_cast<AvahiLookupFlags>(0),
            &onEvent, this);
        return m_resolver == nullptr;
    }
    void stop() noexcept override {
        if (m_resolver != nullptr) {
            avahi_service_resolver_free(std::exchange(m_resolver, nullptr));
        }
    }
    void forget() override {
        m_resolver = nullptr;
        m_last.reset();
    }

private:
    using Found = std::tuple<std::string, unsigned short, Txt>;

    static Txt readTxt(AvahiStringList* strings) {
        std::string record(avahi_string_list_serialize(strings, nullptr, 0), '\0');
        avahi_string_list_serialize(strings, record.data(), record.size());
        return Txt(static_cast<unsigned short>(record.size()), record.data());
    }

    static void onEvent(
        AvahiServiceResolver* resolver, AvahiIfIndex /*unused*/, AvahiProtocol /*unused*/,
        AvahiResolverEvent event, char const* name, char const* type, char const* domain, char const* host,
        AvahiAddress const* /*unused*/, uint16_t port, AvahiStringList* txt,
        AvahiLookupResultFlags /*unused*/, void* operation) noexcept {
        Resolver& self = *static_cast<Resolver*>(operation);
        if (event == AVAHI_RESOLVER_FAILURE) {
            self.fail(avahi_client_errno(avahi_service_resolver_get_client(resolver)));
            return;
        }
        self.handle([&] {
            // Each network interface and family may tell the same.
            Found found(host, port, readTxt(txt));
            if (self.m_last == found) {
                return;
            }
            bool const failed = self.report([&](Client& client) {
                client.resolved(toShown(name), type, domain, host, port, std::get<Txt>(found));
            });
            if (!failed) {
                self.m_last = std::move(found);
            }
        });
    }

    std::string const m_name;
    std::string const m_type;
    std::string const m_domain;
    AvahiServiceResolver* m_resolver = nullptr;
    std::optional<Found> m_last;
};

void requireType(std::string const& type, std::string const& domain) {
    require(avahi_is_valid_service_type_generic(type.c_str()) != 0, "not a type of services");
    require(domain.empty() || avahi_is_valid_domain_name(domain.c_str()) != 0, "not a domain");
}

} // namespace

std::unique_ptr<Operation>
makeBrowser(Engine& engine, Operation::Client& client, std::string const& type, std::string const& domain) {
    requireType(type, domain);
    return std::make_unique<Browser>(engine, client, type, domain);
}

std::unique_ptr<Operation> makeResolver(
    Engine& engine, Operation::Client& client, std::string const& name, std::string const& type,
    std::string const& domain) {
    requireType(type, domain);
    // A name that `sanitize` has changed may be longer than the one in the network.
    require(!name.empty(), "not a name of a service");
    return std::make_unique<Resolver>(engine, client, name, type, domain);
}

} // namespace vesk::avahi
