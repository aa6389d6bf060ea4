#pragma once

#include "support/Inject.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
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

/// Replaces the calls of the system's resolver: they record their arguments and return the answers that a
/// test has prepared. Must be included in exactly one file of a test program.
///
/// Without a prepared answer the real functions are called so that they query no name server: they convert
/// numeric addresses, and know no names.

namespace support {

/// One call of `getaddrinfo`.
struct LookupCall {
    std::optional<std::string> name;
    bool has_service;
    bool has_only_hints; ///< The other fields of the hints are zero.
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

/// One entry of a list that `getaddrinfo` returns.
struct ListEntry {
    sockaddr_in6 address{};
    socklen_t length = 0;
    int family = 0;

    /// @param text   a numeric address of either version
    /// @param scope  for IPv6
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

    /// Returns an entry of another family.
    static ListEntry local() {
        ListEntry entry("::");
        entry.family = entry.address.sin6_family = AF_UNIX;
        return entry;
    }
};

/// The next answer of `getaddrinfo`, which is a list or a failure, or the next text of `getnameinfo`.
struct Answer {
    explicit Answer(int failure, int error_number = 0) : code(failure), error(error_number) {}
    explicit Answer(char const* host) : is_list(false), text(host) {}

    bool is_list = true;
    int code = 0;
    int error = 0; ///< The value of `errno`.
    std::vector<ListEntry> entries;
    std::string text;
};

inline Answer list(std::vector<ListEntry> entries) {
    Answer answer(0);
    answer.entries = std::move(entries);
    return answer;
}

/// Replaces the calls of the process during its lifetime. Its destructor checks that every list was freed and
/// every answer used.
class ResolverCalls : private tarnbase::NonCopyable {
public:
    ResolverCalls() { s_current = this; }
    ~ResolverCalls() {
        s_current = nullptr;
        EXPECT_TRUE(m_kept.empty()) << "lists were not freed";
        EXPECT_TRUE(m_list_answers.empty() && m_name_answers.empty()) << "answers were not used";
    }

    /// Prepares answers.
    void answer(std::vector<Answer> const& answers) {
        for (Answer const& next : answers) {
            (next.is_list ? m_list_answers : m_name_answers).push_back(next);
        }
    }
    void answerList(std::vector<ListEntry> entries) { m_list_answers.push_back(list(std::move(entries))); }
    void failList(int code, int error = 0) { m_list_answers.emplace_back(code, error); }
    void answerName(std::string const& text) { m_name_answers.emplace_back(text.c_str()); }
    void failName(int code, int error = 0) { m_name_answers.emplace_back(code, error); }

    std::vector<LookupCall> const& getLookups() const { return m_lookups; }
    std::vector<NamingCall> const& getNamings() const { return m_namings; }

    /// Returns the names that were looked up.
    std::vector<std::string> getNames() const {
        std::vector<std::string> names;
        for (LookupCall const& call : m_lookups) {
            names.push_back(call.name.value_or("(null)"));
        }
        return names;
    }

    /// Returns how many lists were returned and not freed, and how many were freed.
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
        // A failure must not make the library use or free the pointer.
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
        Answer const answer = std::move(m_list_answers.front());
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
            ADD_FAILURE() << "freed something that is no list or was freed before";
            return;
        }
        ++m_freed;
        for (auto const& node : m_nodes) {
            if (&node->info == list) {
                // The memory stays until the end of the test, so that a use after the free is detected.
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
            ADD_FAILURE() << "would query a name server for the name of " << numeric;
            return EAI_FAIL;
        }
        Answer const answer = std::move(m_name_answers.front());
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

    static inline ResolverCalls* s_current = nullptr;

    std::deque<Answer> m_list_answers;
    std::deque<Answer> m_name_answers;
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
    auto* const real = inject_getaddrinfo.getReal(getaddrinfo);
    support::ResolverCalls* const calls = support::ResolverCalls::getCurrent();
    return calls != nullptr ? calls->look(real, name, service, hints, list)
                            : real(name, service, hints, list);
}

void freeaddrinfo(addrinfo* list) noexcept {
    auto* const real = inject_freeaddrinfo.getReal(freeaddrinfo);
    support::ResolverCalls* const calls = support::ResolverCalls::getCurrent();
    calls != nullptr ? calls->free(real, list) : real(list);
}

int getnameinfo(
    sockaddr const* address, socklen_t length, char* host, socklen_t room, char* service,
    socklen_t service_room, int flags) {
    auto* const real = inject_getnameinfo.getReal(getnameinfo);
    support::ResolverCalls* const calls = support::ResolverCalls::getCurrent();
    return calls != nullptr ? calls->name(real, address, length, host, room, service, service_room, flags)
                            : real(address, length, host, room, service, service_room, flags);
}

} // extern "C"
