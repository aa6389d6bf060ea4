#pragma once

#include <vesk/Export.h>

#include <tarncommon/Buf.h>
#include <tarncommon/unicode/String.h>

#include <map>
#include <string>

namespace vesk {

/// What every user of DNS service discovery needs, whatever engine does the work: names that can be shown, labels in
/// plain bytes, TXT records, and the interface through which an engine tells what it found.
///
///     vesk::DnsSdBase::Txt const txt(size, data);              // As it came from the network.
///     auto const path = txt.find("path");
///     std::unicode::String const shown = vesk::DnsSdBase::sanitize(name);
///
/// All of it works on values, makes no system call, blocks nowhere and reports nothing; what makes a text may throw
/// `std::bad_alloc`. Different objects may be used from different threads.
class VESK_API DnsSdBase {
public:
    class Txt;
    class Client;

    /// A name that is safe to show and to store. Names of services come from the network, from anybody.
    ///
    /// Byte-order marks at the beginning are dropped. Each of these becomes `REPLACEMENT_CHAR`, the rest stays, so the
    /// length stays as well:
    /// - control characters: 0 to 31 except line feed, form feed and carriage return, and 127 to 159;
    /// - surrogates and the private use area, 0xD800 to 0xF8FF;
    /// - everything from 0x11000 on, with it all pictographs: few fonts of a device have any of it.
    static std::unicode::String sanitize(std::unicode::String const& name);

    /// Takes one piece of a name in the DNS text form and turns it into plain bytes: `\.` is a dot that separates
    /// nothing, `\032` the byte 32.
    ///
    ///     char const* cursor = "living\\032room._http._tcp";
    ///     std::string const label = vesk::DnsSdBase::unescape(cursor, ".");   // "living room"; cursor is at "._http"
    ///
    /// It ends at the terminating zero, or at a byte of `stop_chars` that is not escaped, and leaves `cursor` there. A `\`
    /// with nothing behind it counts for nothing. Three digits above 255 give their lower 8 bits.
    ///
    /// A `\` and a digit without two more digits behind them are malformed. The result is what came before them, and `cursor`
    /// is left *behind* the first byte that should have been a digit. **An escape that the end of the text cuts, such as
    /// `\0` or `\03`, leaves `cursor` one byte beyond the terminating zero**, where it must not be read: neither directly nor
    /// by another call. Compare it with the end before each use, unless the text is known to be well-formed:
    ///
    ///     char const* const end = text + strlen(text);
    ///     while (cursor < end) {
    ///         labels.push_back(vesk::DnsSdBase::unescape(cursor, "."));
    ///         cursor += cursor < end ? 1 : 0; // Passes the dot.
    ///     }
    ///
    /// @param cursor      where to begin in a zero-terminated text; not null
    /// @param stop_chars  zero-terminated; empty for none, not null. With a `\` in it nothing is unescaped.
    static std::string unescape(char const*& cursor, char const* stop_chars);
};

/// A TXT record: what a service tells of itself beyond host and port, as keys with values. It is a map and is used as
/// one; keys are in the order of their bytes, and upper and lower case differ.
///
///     vesk::DnsSdBase::Txt txt;
///     txt["path"] = "/status";
///     std::Buf const record = txt.data();
///
/// Keys and values may hold any bytes, only a key with a `=` in it comes back as another one. It is not to be deleted
/// through a pointer to its base.
class VESK_API DnsSdBase::Txt : public std::map<std::string, std::string> {
public:
    /// The record without entries. Read-only; it exists as soon as the initialisers of the library have run.
    static Txt const EMPTY;

    /// A record without entries.
    Txt();

    /// Reads the wire format: strings `key=value`, each behind a byte with its length.
    ///
    /// Takes what is well-formed. A string without a `=` is left out, also one that has just a key; of a key that comes
    /// twice the last value counts; a key may be empty; the first `=` ends it. A string that would reach beyond the end
    /// is dropped with all that follows.
    /// @param size  bytes of the record; 0 makes an empty one
    /// @param data  may be null if `size` is 0
    Txt(unsigned short size, void const* data);

    /// The wire format, entries in the order of their keys; a single byte of value 0 for the empty record.
    ///
    /// Nothing is refused or cut. An entry whose key and value have more than 254 bytes together gets the lower 8 bits of
    /// its length, so what follows cannot be read back; and a record of more than 65,535 bytes is none for the network. All
    /// entries together must be shorter than 4 GiB.
    /// @return in memory of `std::Buf::DEFAULT_ALLOCATOR`; invalid with `std::CommonErrorId::OUT_OF_MEMORY` pending if there is none
    std::Buf data() const;
};

/// Who is told what an engine finds. Override what is of interest: all but `error` do nothing by default.
///
/// All calls come from a thread of the engine's, one at a time. Names are as the engine gives them, as a rule through
/// `sanitize`.
class VESK_API DnsSdBase::Client {
public:
    virtual ~Client();

    /// The engine has failed for this client.
    virtual void error() = 0;

    /// A service was found, or it is gone.
    /// @param name    of the service instance: "Printer in the hall"
    /// @param type    "_ipp._tcp"
    /// @param domain  "local"
    virtual void
    service_appeared(std::unicode::String const& name, std::string const& type, std::string const& domain);
    virtual void
    service_disappeared(std::unicode::String const& name, std::string const& type, std::string const& domain);

    /// The engine has told all that it knows for now; more may come later.
    virtual void all_for_now();

    /// A service instance was resolved.
    /// @param host  that offers the service
    /// @param port  in the host's byte order
    /// @param txt   may change or go after the call
    virtual void resolved(
        std::unicode::String const& name, std::string const& type, std::string const& domain,
        std::string const& host, unsigned short port, Txt const& txt);

    /// A host name was looked up.
    /// @param name     the host
    /// @param address  one of its addresses, as text
    virtual void address(std::string const& name, std::string const& address);
};

} // namespace vesk
