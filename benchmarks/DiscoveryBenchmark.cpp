#include <vesk/DnsSdBase.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <string>

namespace {

using Entries = std::map<std::string, std::string>;
using Txt = vesk::DnsSdBase::Txt;

/// Returns as many entries as the row requires, of the size that services announce.
template <typename Map>
Map makeEntries(benchmark::State const& state) {
    Map entries;
    for (long i = 0; i < state.range(0); ++i) {
        entries["key " + std::to_string(10 + i)] = "a value of some length, number " + std::to_string(i);
    }
    return entries;
}

/// A block of bytes on the heap.
struct Block {
    std::unique_ptr<unsigned char[]> data;
    size_t size;
};

Block encodeEntries(Entries const& entries) {
    size_t size = 0;
    for (auto const& [key, value] : entries) {
        size += key.length() + value.length() + 2;
    }
    Block block{std::unique_ptr<unsigned char[]>(new unsigned char[size]), size};
    unsigned char* at = block.data.get();
    for (auto const& [key, value] : entries) {
        *at++ = static_cast<unsigned char>(key.length() + 1 + value.length());
        memcpy(at, key.data(), key.length());
        at += key.length();
        *at++ = '=';
        memcpy(at, value.data(), value.length());
        at += value.length();
    }
    return block;
}

Entries decodeEntries(void const* data, size_t size) {
    Entries entries;
    auto const* at = static_cast<char const*>(data);
    char const* const end = at + size;
    while (at != end) {
        auto const length = static_cast<unsigned char>(*at++);
        if (length > end - at) {
            break;
        }
        auto const* const separator = static_cast<char const*>(memchr(at, '=', length));
        if (separator != nullptr) {
            entries[std::string(at, separator)] = std::string(separator + 1, at + length);
        }
        at += length;
    }
    return entries;
}

void encode(benchmark::State& state) {
    auto const txt = makeEntries<Txt>(state);
    for (auto _ : state) {
        std::Buf const wire = txt.data();
        benchmark::DoNotOptimize(wire.data);
        benchmark::ClobberMemory();
    }
}

void encodeByHand(benchmark::State& state) {
    auto const entries = makeEntries<Entries>(state);
    for (auto _ : state) {
        Block const wire = encodeEntries(entries);
        benchmark::DoNotOptimize(wire.data.get());
        benchmark::ClobberMemory();
    }
}

void decode(benchmark::State& state) {
    std::Buf const wire = makeEntries<Txt>(state).data();
    for (auto _ : state) {
        Txt const txt(static_cast<unsigned short>(wire.getSize()), wire.data);
        benchmark::DoNotOptimize(&txt);
        benchmark::ClobberMemory();
    }
}

void decodeByHand(benchmark::State& state) {
    Block const wire = encodeEntries(makeEntries<Entries>(state));
    for (auto _ : state) {
        Entries const entries = decodeEntries(wire.data.get(), wire.size);
        benchmark::DoNotOptimize(&entries);
        benchmark::ClobberMemory();
    }
}

BENCHMARK(encode)->Name("TXT record of 20 entries written (at most 1.5)/vesk")->Arg(20);
BENCHMARK(encodeByHand)->Name("TXT record of 20 entries written (at most 1.5)/bare")->Arg(20);
BENCHMARK(decode)->Name("TXT record of 20 entries read (at most 1.5)/vesk")->Arg(20);
BENCHMARK(decodeByHand)->Name("TXT record of 20 entries read (at most 1.5)/bare")->Arg(20);

} // namespace
