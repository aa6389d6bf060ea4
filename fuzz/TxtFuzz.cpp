// Fuzzes DnsSdBase::Txt. The input is a TXT record as received from the network.

#include "Check.h"

#include <vesk/DnsSdBase.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace {

using Txt = vesk::DnsSdBase::Txt;

std::map<std::string, std::string> decode(std::string const& record) {
    std::map<std::string, std::string> result;
    for (size_t at = 0; at < record.size();) {
        size_t const length = static_cast<unsigned char>(record[at]);
        if (at + 1 + length > record.size()) {
            break;
        }
        std::string const text = record.substr(at + 1, length);
        size_t const separator = text.find('=');
        if (separator != std::string::npos) {
            result[text.substr(0, separator)] = text.substr(separator + 1);
        }
        at += 1 + length;
    }
    return result;
}

std::string encode(std::map<std::string, std::string> const& entries) {
    std::string result;
    for (auto const& [key, value] : entries) {
        result += static_cast<char>(key.size() + 1 + value.size());
        result += key;
        result += '=';
        result += value;
    }
    return entries.empty() ? std::string(1, '\0') : result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    auto const used = static_cast<unsigned short>(std::min<size_t>(size, 65535));
    Txt const txt(used, data);
    std::string const record(reinterpret_cast<char const*>(data), used);
    fuzz::check(txt == decode(record), "the entries are those of the record");

    std::Buf const wire = txt.data();
    fuzz::check(wire.isValid(), "there is memory");
    std::string const bytes(reinterpret_cast<char const*>(wire.data), wire.getSize());
    fuzz::check(bytes == encode(txt), "the wire format is that of the entries");

    // A record that was decoded is well-formed when it is encoded again.
    fuzz::check(wire.getSize() <= 65535, "a record does not grow");
    Txt const again(static_cast<unsigned short>(wire.getSize()), wire.data);
    fuzz::check(again == txt, "the entries survive the wire format");
    fuzz::check(again.data() == wire, "the same entries have the same wire format");
    return 0;
}
