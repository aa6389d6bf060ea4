#pragma once

#include <vesk/DnsSd.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <string>
#include <type_traits>

/// Clients of service discovery with arguments that do not matter to the test.

namespace support {

using std::unicode::String;
using vesk::DnsSd;
using vesk::DnsSdBase;
using Txt = DnsSdBase::Txt;

inline String text(std::string const& utf8) {
    return String::fromUTF8(utf8);
}

inline tarnbase::TimePoint in(long long ms) {
    return tarnbase::TimePoint::now() + tarnbase::Duration(ms);
}

/// Returns a deadline that no test reaches.
inline tarnbase::TimePoint farAway() {
    return in(60000);
}

using Browser = DnsSd::SyncBrowser;
using Resolver = DnsSd::SyncResolver;
using Lookup = DnsSd::SyncLookup;
using Service = DnsSd::SyncService;

/// Returns a client. A function and not a derived class: the engine may call a client while it is constructed.
template <typename Client>
Client make() {
    if constexpr (std::is_same_v<Client, Browser>) {
        return Browser("_http._tcp", "local");
    } else if constexpr (std::is_same_v<Client, Lookup>) {
        return Lookup("host.local");
    } else if constexpr (std::is_same_v<Client, Resolver>) {
        return Resolver(text("name"), "_http._tcp", "local");
    } else {
        return Service(text("name"), "_http._tcp", "local", 80);
    }
}

} // namespace support
