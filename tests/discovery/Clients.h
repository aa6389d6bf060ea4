#pragma once

#include <vesk/DnsSd.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <string>

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

struct Browser : DnsSd::SyncBrowser {
    Browser() : SyncBrowser("_http._tcp", "local") {}
};

struct Resolver : DnsSd::SyncResolver {
    Resolver() : SyncResolver(text("name"), "_http._tcp", "local") {}
};

struct Lookup : DnsSd::SyncLookup {
    Lookup() : SyncLookup("host.local") {}
};

struct Service : DnsSd::SyncService {
    Service() : SyncService(text("name"), "_http._tcp", "local", 80) {}
};

} // namespace support
