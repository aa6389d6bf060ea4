#pragma once

#include "support/Inject.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <tuple>
#include <vector>

/// Replaces the system calls below memory mappings: a `support::Fault` makes them fail, and `MapCalls`
/// records their arguments. Must be included in exactly one file of a test program.

namespace support {

struct MapCall {
    void* address;
    size_t length;
    int protection;
    int flags;
    int fd;
    long long offset;
    void* result;

    bool operator==(MapCall const& other) const {
        return std::tie(address, length, protection, flags, fd, offset, result) ==
            std::tie(
                   other.address, other.length, other.protection, other.flags, other.fd, other.offset,
                   other.result);
    }
};

/// Records the first `MAX` calls during its lifetime.
class MapCalls : tarnbase::NonCopyable {
public:
    MapCalls() { s_current = this; }
    ~MapCalls() { s_current = nullptr; }

    static void add(MapCall const& call) noexcept {
        if (s_current != nullptr && s_current->m_count < MAX) {
            s_current->m_calls[s_current->m_count++] = call;
        }
    }

    std::vector<MapCall> get() const { return {m_calls, m_calls + m_count}; }

private:
    static constexpr size_t MAX = 16;
    static inline MapCalls* s_current = nullptr;

    MapCall m_calls[MAX] = {};
    size_t m_count = 0;
};

/// One line of /proc/self/maps.
struct Range {
    uintptr_t begin;
    uintptr_t end;
    std::string access; ///< Such as "rw-s".
    std::string path;
};

inline std::vector<Range> mappedRanges() {
    std::vector<Range> ranges;
    FILE* const file = fopen("/proc/self/maps", "re");
    char line[4500];
    while (file != nullptr && fgets(line, sizeof line, file) != nullptr) {
        Range range{};
        char access[5] = {};
        int path = 0;
        sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s %*s %*s %*s %n", &range.begin, &range.end, access, &path);
        range.access = access;
        range.path = line + path;
        while (!range.path.empty() && range.path.back() == '\n') {
            range.path.pop_back();
        }
        ranges.push_back(range);
    }
    if (file != nullptr) {
        fclose(file);
    }
    return ranges;
}

/// Returns how many bytes of objects with `part` in their path are mapped.
inline size_t mappedBytes(std::string const& part) {
    size_t bytes = 0;
    for (Range const& range : mappedRanges()) {
        bytes += range.path.find(part) != std::string::npos ? range.end - range.begin : 0;
    }
    return bytes;
}

/// Returns the access rights at an address, such as "rw-s"; empty if nothing is mapped there.
inline std::string accessAt(void const* address) {
    auto const at = reinterpret_cast<uintptr_t>(address);
    for (Range const& range : mappedRanges()) {
        if (range.begin <= at && at < range.end) {
            return range.access;
        }
    }
    return {};
}

} // namespace support

VESK_INJECT_ERRNO(int, -1, msync, (void* address, size_t length, int flags), (address, length, flags))

support::Injected inject_mmap("mmap");
support::Injected inject_munmap("munmap");

extern "C" {

VESK_UNWATCHED void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
    void* const result = inject_mmap.fails()
        ? MAP_FAILED
        : inject_mmap.getReal(mmap)(address, length, protection, flags, fd, offset);
    support::MapCalls::add({address, length, protection, flags, fd, offset, result});
    return result;
}

VESK_UNWATCHED int munmap(void* address, size_t length) {
    support::MapCalls::add({address, length, 0, 0, -1, 0, nullptr});
    return inject_munmap.fails() ? -1 : inject_munmap.getReal(munmap)(address, length);
}

} // extern "C"
