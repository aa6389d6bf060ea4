#pragma once

#include <vesk/Export.h>

#include <tarncommon/Buf.h>
#include <tarncommon/unicode/String.h>

#include <map>
#include <string>

namespace vesk {

/// The base of DNS service discovery, independent of the engine: names for display, labels in plain bytes,
/// TXT records, and the interface through which an engine reports its results.
///
///     vesk::DnsSdBase::Txt const txt(size, data);              // As it came from the network.
///     auto const path = txt.find("path");
///     std::unicode::String const shown = vesk::DnsSdBase::sanitize(name);
///
/// All operations work on values, make no system call, do not block and report nothing. An operation that
/// creates a text may throw `std::bad_alloc`. Different objects may be used from different threads.
class VESK_API DnsSdBase {
public:
    class Txt;
    class Client;

    /// Returns a name that is safe to show and to store. Names of services come from the network and are not
    /// trusted.
    ///
    /// Drops byte-order marks at the beginning. Replaces each of these characters by `REPLACEMENT_CHAR`, so
    /// that the length of the rest is unchanged:
    /// - control characters: 0 to 31 except line feed, form feed and carriage return, and 127 to 159;
    /// - surrogates and the private use area, 0xD800 to 0xF8FF;
    /// - everything from 0x11000 on, which includes most emoji: the fonts of embedded devices rarely have
    ///   these characters.
    static std::unicode::String sanitize(std::unicode::String const& name);

    /// Extracts a piece of a name in the DNS text form and converts it to plain bytes: a dot after a backslash
    /// does not separate labels, and three digits after one are a byte.
    ///
    ///     char const* cursor = "living\\032room._http._tcp";
    ///     std::string const label = vesk::DnsSdBase::unescape(cursor, ".");
    ///     // "living room"; cursor is at "._http"
    ///
    /// The piece ends at the terminating zero, or at an unescaped byte of `stop_chars`, and `cursor` is left
    /// there. A `\` at the end of the text is ignored. Three digits above 255 give their lower 8 bits.
    ///
    /// A `\` and a digit must be followed by two more digits, otherwise the text is malformed. The result is
    /// then the text before them, and `cursor` is left *after* the first byte that should have been a digit.
    /// **An escape that is cut off by the end of the text, such as `\0` or `\03`, leaves `cursor` one byte
    /// beyond the terminating zero**, where it must not be read: neither directly nor by another call.
    /// Compare it with the end before each use, unless the text is known to be well-formed:
    ///
    ///     char const* const end = text + strlen(text);
    ///     while (cursor < end) {
    ///         labels.push_back(vesk::DnsSdBase::unescape(cursor, "."));
    ///         cursor += cursor < end ? 1 : 0; // Passes the dot.
    ///     }
    ///
    /// @param cursor      the beginning in a zero-terminated text; not null
    /// @param stop_chars  zero-terminated; empty for none, not null. If it contains a `\`, nothing is
    ///                    unescaped.
    static std::string unescape(char const*& cursor, char const* stop_chars);
};

/// A TXT record: the properties of a service besides host and port, as keys with values. It is used as a map.
/// Keys are in the order of their bytes, and are case-sensitive.
///
///     vesk::DnsSdBase::Txt txt;
///     txt["path"] = "/status";
///     std::Buf const record = txt.data();
///
/// Keys and values may contain any bytes, but a key with a `=` in it is read back as a different key. Must
/// not be deleted through a pointer to its base class.
class VESK_API DnsSdBase::Txt : public std::map<std::string, std::string> {
public:
    /// The empty record. Read-only. It exists as soon as the initializers of the library have run.
    static Txt const EMPTY;

    /// Creates an empty record.
    Txt();

    /// Reads the wire format: strings `key=value`, each after a byte with its length.
    ///
    /// Ignores a string without a `=`, even if it is a key alone. Of a key that occurs twice the last value
    /// counts. A key may be empty; it ends at the first `=`. A string that exceeds the end of the record is
    /// dropped with everything after it.
    /// @param size  the size of the record in bytes; 0 creates an empty one
    /// @param data  may be null if `size` is 0
    Txt(unsigned short size, void const* data);

    /// Returns the wire format, with the entries in the order of their keys; a single byte of value 0 for the
    /// empty record.
    ///
    /// Rejects and truncates nothing. For an entry with a key and a value of more than 254 bytes together,
    /// the length byte holds the lower 8 bits of the length, so everything from there on cannot be read back.
    /// A record of more than 65,535 bytes cannot be sent. All entries together must be shorter than 4 GiB.
    /// @return in memory of `std::Buf::DEFAULT_ALLOCATOR`; invalid with `std::CommonErrorId::OUT_OF_MEMORY`
    ///         pending without memory
    std::Buf data() const;
};

/// Receives the results of an engine. Override the operations that are needed: all except `error` do nothing
/// by default.
///
/// All calls come from a thread of the engine, never two at a time. The names are as the engine passes them,
/// usually after `sanitize`.
class VESK_API DnsSdBase::Client {
public:
    virtual ~Client();

    /// The engine has failed for this client.
    virtual void error() = 0;

    /// @{
    /// A service was found, or has disappeared.
    /// @param name    of the service instance: "Printer in the hall"
    /// @param type    "_ipp._tcp"
    /// @param domain  "local"
    virtual void
    service_appeared(std::unicode::String const& name, std::string const& type, std::string const& domain);
    virtual void
    service_disappeared(std::unicode::String const& name, std::string const& type, std::string const& domain);
    /// @}

    /// The engine has reported everything that it knows for now; more may follow.
    virtual void all_for_now();

    /// A service instance was resolved.
    /// @param host  the host that offers the service
    /// @param port  in host byte order
    /// @param txt   may change or disappear after the call
    virtual void resolved(
        std::unicode::String const& name, std::string const& type, std::string const& domain,
        std::string const& host, unsigned short port, Txt const& txt);

    /// A host name was looked up.
    /// @param name     the host
    /// @param address  an address of the host, as text
    virtual void address(std::string const& name, std::string const& address);
};

} // namespace vesk
