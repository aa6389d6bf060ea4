#include "Operation.h"

#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/domain.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

namespace vesk::avahi {

namespace {

constexpr size_t LONGEST_ENTRY = 255;

/// The strings of a TXT record.
struct FreeStrings {
    void operator()(AvahiStringList* strings) const noexcept { avahi_string_list_free(strings); }
};
using Strings = std::unique_ptr<AvahiStringList, FreeStrings>;

Strings toStrings(DnsSdBase::Txt const& txt) {
    Strings strings;
    for (auto const& [key, value] : txt) {
        std::string entry = key;
        entry.append(1, '=').append(value);
        require(entry.size() <= LONGEST_ENTRY, "an entry of a TXT record is longer than 255 bytes");
        AvahiStringList* const all = avahi_string_list_add_arbitrary(
            strings.get(), reinterpret_cast<uint8_t const*>(entry.data()), entry.size());
        if (all == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(strings.release()); // The rest of the new list.
        strings.reset(all);
    }
    return strings;
}

/// Announces a service.
class Publication : public Operation {
public:
    Publication(
        Engine& engine, Client& client, std::string name, std::string type, std::string domain,
        unsigned short port, Strings txt)
        : Operation(engine, client),
          m_name(std::move(name)),
          m_type(std::move(type)),
          m_domain(std::move(domain)),
          m_port(port),
          m_txt(std::move(txt)) {}

protected:
    bool start(AvahiClient* daemon) override {
        if (std::exchange(m_collided, false)) {
            std::unique_ptr<char, void (*)(void*)> const other(
                avahi_alternative_service_name(m_name.c_str()), &avahi_free);
            if (other) {
                m_name = other.get();
            }
        }
        m_group = avahi_entry_group_new(daemon, &onState, this);
        if (m_group == nullptr) {
            return true;
        }
        int const number = avahi_entry_group_add_service_strlst(
            m_group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, static_cast<AvahiPublishFlags>(0), m_name.c_str(),
            m_type.c_str(), m_domain.empty() ? nullptr : m_domain.c_str(), nullptr, m_port, m_txt.get());
        if (number == AVAHI_ERR_COLLISION) {
            collide();
            return false;
        }
        return number != 0 || avahi_entry_group_commit(m_group) != 0;
    }
    void stop() noexcept override {
        if (m_group != nullptr) {
            avahi_entry_group_free(std::exchange(m_group, nullptr));
        }
    }
    void forget() override { m_group = nullptr; }
    // The name of the host must be settled, because the records refer to it.
    bool isReady(AvahiClientState state) const noexcept override { return state == AVAHI_CLIENT_S_RUNNING; }

private:
    static void onState(AvahiEntryGroup* group, AvahiEntryGroupState state, void* publication) noexcept {
        Publication& self = *static_cast<Publication*>(publication);
        if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
            self.report([&](Client& client) {
                client.service_appeared(
                    std::unicode::String::fromUTF8(self.m_name), self.m_type, self.m_domain);
            });
        } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
            self.collide();
        } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
            self.fail(avahi_client_errno(avahi_entry_group_get_client(group)));
        }
    }

    void collide() noexcept {
        m_collided = true;
        restart();
    }

    std::string m_name;
    std::string const m_type;
    std::string const m_domain;
    unsigned short const m_port;
    Strings const m_txt;
    AvahiEntryGroup* m_group = nullptr;
    bool m_collided = false;
};

} // namespace

std::unique_ptr<Operation> makePublication(
    Engine& engine, Operation::Client& client, std::string const& name, std::string const& type,
    std::string const& domain, unsigned short port, Operation::Txt const& txt) {
    require(avahi_is_valid_service_name(name.c_str()) != 0, "not a name of a service");
    require(avahi_is_valid_service_type_strict(type.c_str()) != 0, "not a type of services");
    require(domain.empty() || avahi_is_valid_domain_name(domain.c_str()) != 0, "not a domain");
    return std::make_unique<Publication>(engine, client, name, type, domain, port, toStrings(txt));
}

} // namespace vesk::avahi
