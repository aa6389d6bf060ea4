#include "Operation.h"

#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/defs.h>
#include <avahi-common/domain.h>

#include <arpa/inet.h>
#include <net/if.h>

namespace vesk::avahi {

namespace {

constexpr size_t IPV4_BYTES = 4;
constexpr size_t IPV6_BYTES = 16;

/// Returns an address as text; empty if it is none. An address of a link names its interface, too.
std::string toText(AvahiIfIndex interface, void const* data, size_t size) {
    char text[INET6_ADDRSTRLEN] = "";
    if (size == IPV4_BYTES) {
        inet_ntop(AF_INET, data, text, sizeof text);
    } else if (size == IPV6_BYTES) {
        inet_ntop(AF_INET6, data, text, sizeof text);
        char name[IF_NAMESIZE];
        if (IN6_IS_ADDR_LINKLOCAL(static_cast<in6_addr const*>(data)) && interface > 0 &&
            if_indextoname(static_cast<unsigned int>(interface), name) != nullptr) {
            return std::string(text) + '%' + name;
        }
    }
    return text;
}

/// Watches the addresses of a host.
class Lookup : public Operation {
public:
    Lookup(Engine& engine, Client& client, std::string name)
        : Operation(engine, client), m_name(std::move(name)) {}

protected:
    bool start(AvahiClient* daemon) override {
        for (size_t family = 0; family < std::size(TYPES); ++family) {
            m_browsers[family] = avahi_record_browser_new(
                daemon, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, m_name.c_str(), AVAHI_DNS_CLASS_IN,
                TYPES[family], static_cast<AvahiLookupFlags>(0), &onEvent, this);
            if (m_browsers[family] == nullptr) {
                return true;
            }
        }
        return false;
    }
    void stop() noexcept override {
        for (AvahiRecordBrowser*& browser : m_browsers) {
            if (browser != nullptr) {
                avahi_record_browser_free(std::exchange(browser, nullptr));
            }
        }
        m_addresses.take();
    }
    void forget() override {
        m_browsers[0] = m_browsers[1] = nullptr;
        m_addresses.take();
    }

private:
    static constexpr uint16_t TYPES[] = {AVAHI_DNS_TYPE_A, AVAHI_DNS_TYPE_AAAA};

    static void onEvent(
        AvahiRecordBrowser* browser, AvahiIfIndex interface, AvahiProtocol family, AvahiBrowserEvent event,
        char const* /*unused*/, uint16_t /*unused*/, uint16_t /*unused*/, void const* data, size_t size,
        AvahiLookupResultFlags /*unused*/, void* lookup) noexcept {
        Lookup& self = *static_cast<Lookup*>(lookup);
        if (event == AVAHI_BROWSER_FAILURE) {
            self.fail(avahi_client_errno(avahi_record_browser_get_client(browser)));
        } else if (event == AVAHI_BROWSER_NEW) {
            self.handle([&] { self.add(toText(interface, data, size), {interface, family}); });
        } else if (event == AVAHI_BROWSER_REMOVE) {
            self.handle([&] { self.m_addresses.remove(toText(interface, data, size), {interface, family}); });
        }
    }

    void add(std::string const& address, Sightings<std::string>::Place place) {
        if (!address.empty() && m_addresses.add(address, place)) {
            report([&](Client& client) { client.address(m_name, address); });
        }
    }

    std::string const m_name;
    AvahiRecordBrowser* m_browsers[std::size(TYPES)] = {};
    Sightings<std::string> m_addresses;
};

} // namespace

std::unique_ptr<Operation> makeLookup(Engine& engine, Operation::Client& client, std::string const& name) {
    require(
        avahi_is_valid_host_name(name.c_str()) != 0 || avahi_is_valid_fqdn(name.c_str()) != 0, "not a host");
    return std::make_unique<Lookup>(engine, client, name);
}

} // namespace vesk::avahi
