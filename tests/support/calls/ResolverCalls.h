#pragma once

#include "support/Inject.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <set>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

/// The calls of the system's resolver, replaced: they tell what they were called with, and give the answers that a test
/// has prepared. Include it in one file of a test program.
///
/// Where no answer is prepared the real ones answer, but never by asking a name server: they take numeric addresses for
/// numeric addresses, and names for unknown.

namespace support {

/// One call of `getaddrinfo`.
struct LookupCall {
    std::optional<std::string> name;
    bool has_service;
    bool has_only_hints; ///< All of the hints is zero except for the four below.
    int flags;
    int family;
    int type;
    int protocol;
};

/// One call of `getnameinfo`.
struct NamingCall {
    std::string address; ///< In numeric form.
    socklen_t length;
    socklen_t room;
    bool has_service;
    int flags;
};

/// One entry of a list that `getaddrinfo` gives.
struct ListEntry {
    sockaddr_in6 address{};
    socklen_t length = 0;
    int family = 0;

    /// @param text   of an address of either version
    /// @param scope  of one of IPv6
    ListEntry(std::string const& text, unsigned int scope = 0) {
        auto* const v4 = reinterpret_cast<sockaddr_in*>(&address);
        if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
            family = v4->sin_family = AF_INET;
            length = sizeof(sockaddr_in);
        } else {
            EXPECT_EQ(1, inet_pton(AF_INET6, text.c_str(), &address.sin6_addr)) << text;
            address.sin6_scope_id = scope;
            family = address.sin6_family = AF_INET6;
            length = sizeof(sockaddr_in6);
        }
    }

    /// One of a family that is neither.
    static ListEntry local() {
        ListEntry entry("::");
        entry.family = entry.address.sin6_family = AF_UNIX;
        return entry;
    }
};

/// Takes the calls of the process while it lives. At its end no list is left.
class ResolverCalls {
public:
    ResolverCalls() { s_current = this; }
    ~ResolverCalls() {
        s_current = nullptr;
        EXPECT_TRUE(m_kept.empty()) << "lists that nobody freed";
        EXPECT_TRUE(m_list_answers.empty() && m_name_answers.empty()) << "answers that nobody asked for";
    }

    ResolverCalls(ResolverCalls const&) = delete;
    ResolverCalls& operator=(ResolverCalls const&) = delete;

    /// The next call of `getaddrinfo` gives a list, or fails.
    void answerList(std::vector<ListEntry> entries) { m_list_answers.push_back({0, 0, std::move(entries)}); }
    void failList(int code, int error = 0) { m_list_answers.push_back({code, error, {}}); }

    /// The next call of `getnameinfo` gives a text, or fails.
    void answerName(std::string text) { m_name_answers.push_back({0, 0, std::move(text)}); }
    void failName(int code, int error = 0) { m_name_answers.push_back({code, error, {}}); }

    std::vector<LookupCall> const& getLookups() const { return m_lookups; }
    std::vector<NamingCall> const& getNamings() const { return m_namings; }

    /// Lists that were given and not freed, and how many have been freed.
    size_t countKept() const { return m_kept.size(); }
    int countFreed() const { return m_freed; }

    // ---- for the replaced functions

    static ResolverCalls* getCurrent() noexcept { return s_current; }

    template <typename Real>
    int look(Real real, char const* name, char const* service, addrinfo const* hints, addrinfo** list) {
        addrinfo plain{};
        plain.ai_flags = hints->ai_flags;
        plain.ai_family = hints->ai_family;
        plain.ai_socktype = hints->ai_socktype;
        plain.ai_protocol = hints->ai_protocol;
        bool const has_only_hints = plain.ai_addrlen == hints->ai_addrlen && hints->ai_addr == nullptr &&
            hints->ai_canonname == nullptr && hints->ai_next == nullptr;
        m_lookups.push_back(
            {name != nullptr ? std::optional<std::string>(name) : std::nullopt, service != nullptr,
             has_only_hints, hints->ai_flags, hints->ai_family, hints->ai_socktype, hints->ai_protocol});
        // What is left there by a failure is nobody's.
        *list = reinterpret_cast<addrinfo*>(0x10);
        if (m_list_answers.empty()) {
            plain.ai_flags |= AI_NUMERICHOST;
            int const code = real(name, service, &plain, list);
            if (code == 0) {
                m_kept.insert(*list);
            } else {
                *list = reinterpret_cast<addrinfo*>(0x10);
            }
            return code;
        }
        ListAnswer const answer = std::move(m_list_answers.front());
        m_list_answers.pop_front();
        if (answer.code != 0) {
            errno = answer.error;
            return answer.code;
        }
        *list = nullptr;
        for (auto entry = answer.entries.rbegin(); entry != answer.entries.rend(); ++entry) {
            auto node = std::make_unique<Node>();
            node->address = entry->address;
            node->info.ai_family = entry->family;
            node->info.ai_socktype = hints->ai_socktype;
            node->info.ai_addrlen = entry->length;
            node->info.ai_addr = reinterpret_cast<sockaddr*>(&node->address);
            node->info.ai_next = *list;
            *list = &node->info;
            m_nodes.push_back(std::move(node));
        }
        if (*list != nullptr) {
            m_kept.insert(*list);
        }
        return 0;
    }

    template <typename Real>
    void free(Real real, addrinfo* list) {
        if (m_kept.erase(list) == 0) {
            ADD_FAILURE() << "freed what is no list, or was freed before";
            return;
        }
        ++m_freed;
        for (auto const& node : m_nodes) {
            if (&node->info == list) {
                // What a freed list says is worth nothing; its memory stays until the end of the test.
                memset(&node->address, 0xEB, sizeof node->address);
                return;
            }
        }
        real(list);
    }

    template <typename Real>
    int name(
        Real real, sockaddr const* address, socklen_t length, char* host, socklen_t room, char* service,
        socklen_t service_room, int flags) {
        char numeric[NI_MAXHOST] = "";
        real(address, length, numeric, sizeof numeric, nullptr, 0, NI_NUMERICHOST);
        m_namings.push_back({numeric, length, room, service != nullptr || service_room != 0, flags});
        if (m_name_answers.empty()) {
            if ((flags & NI_NAMEREQD) == 0) {
                return real(address, length, host, room, service, service_room, flags | NI_NUMERICHOST);
            }
            ADD_FAILURE() << "would ask a name server for the name of " << numeric;
            return EAI_FAIL;
        }
        NameAnswer const answer = std::move(m_name_answers.front());
        m_name_answers.pop_front();
        if (answer.code != 0) {
            errno = answer.error;
            return answer.code;
        }
        if (answer.text.size() >= room) {
            return EAI_OVERFLOW;
        }
        memcpy(host, answer.text.c_str(), answer.text.size() + 1);
        return 0;
    }

private:
    struct Node {
        addrinfo info{};
        sockaddr_in6 address{};
    };
    struct ListAnswer {
        int code;
        int error;
        std::vector<ListEntry> entries;
    };
    struct NameAnswer {
        int code;
        int error;
        std::string text;
    };

    static inline ResolverCalls* s_current = nullptr;

    std::deque<ListAnswer> m_list_answers;
    std::deque<NameAnswer> m_name_answers;
    std::vector<LookupCall> m_lookups;
    std::vector<NamingCall> m_namings;
    std::vector<std::unique_ptr<Node>> m_nodes;
    std::set<addrinfo*> m_kept;
    int m_freed = 0;
};

} // namespace support

support::Injected inject_getaddrinfo("getaddrinfo");
support::Injected inject_freeaddrinfo("freeaddrinfo");
support::Injected inject_getnameinfo("getnameinfo");

extern "C" {

int getaddrinfo(char const* name, char const* service, addrinfo const* hints, addrinfo** list) {
    auto* const real = reinterpret_cast<decltype(&getaddrinfo)>(inject_getaddrinfo.getReal());
    support::ResolverCalls* const calls = support::ResolverCalls::getCurrent();
    return calls != nullptr ? calls->look(real, name, service, hints, list)
                            : real(name, service, hints, list);
}

void freeaddrinfo(addrinfo* list) noexcept {
    auto* const real = reinterpret_cast<decltype(&freeaddrinfo)>(inject_freeaddrinfo.getReal());
    support::ResolverCalls* const calls = support::ResolverCalls::getCurrent();
    calls != nullptr ? calls->free(real, list) : real(list);
}

int getnameinfo(
    sockaddr const* address, socklen_t length, char* host, socklen_t room, char* service,
    socklen_t service_room, int flags) {
    auto* const real = reinterpret_cast<decltype(&getnameinfo)>(inject_getnameinfo.getReal());
    support::ResolverCalls* const calls = support::ResolverCalls::getCurrent();
    return calls != nullptr ? calls->name(real, address, length, host, room, service, service_room, flags)
                            : real(address, length, host, room, service, service_room, flags);
}

} // extern "C"
