#include <vesk/UnicodeString.h>
#include <vesk/WidePath.h>

#include <benchmark/benchmark.h>

#include <clocale>
#include <cwchar>
#include <memory>
#include <string>

namespace {

/// Returns a path of the length that the row requires. One letter in eight is not ASCII.
std::string makePath(benchmark::State const& state) {
    setlocale(LC_ALL, "C.UTF-8");
    std::string path;
    while (path.length() + 9 <= static_cast<size_t>(state.range(0))) {
        path += "/folder\xC3\xA4";
    }
    return path;
}

void convert(benchmark::State& state) {
    std::string const path = makePath(state);
    vesk::UnicodeString const text(path);
    for (auto _ : state) {
        std::wstring const wide = text;
        vesk::UnicodeString const narrow(wide);
        benchmark::DoNotOptimize(narrow.c_str());
        benchmark::ClobberMemory();
    }
}

std::wstring widenByHand(std::string const& path) {
    mbstate_t shift{};
    char const* source = path.c_str();
    size_t const characters = mbsrtowcs(nullptr, &source, 0, &shift);
    std::wstring wide(characters, L'\0');
    shift = {};
    source = path.c_str();
    mbsrtowcs(wide.data(), &source, characters + 1, &shift);
    return wide;
}

void convertByHand(benchmark::State& state) {
    std::string const path = makePath(state);
    for (auto _ : state) {
        std::wstring const wide = widenByHand(path);
        mbstate_t shift{};
        wchar_t const* wide_source = wide.c_str();
        size_t const bytes = wcsrtombs(nullptr, &wide_source, 0, &shift);
        std::unique_ptr<char[]> const narrow(new char[bytes + 1]);
        shift = {};
        wide_source = wide.c_str();
        wcsrtombs(narrow.get(), &wide_source, bytes + 1, &shift);
        benchmark::DoNotOptimize(narrow.get());
        benchmark::ClobberMemory();
    }
}

void makeWidePath(benchmark::State& state) {
    std::string const path = makePath(state);
    for (auto _ : state) {
        vesk::WidePath const wide{vesk::UnicodeString(path)};
        benchmark::DoNotOptimize(wide.data());
        benchmark::ClobberMemory();
    }
}

void makeWidePathByHand(benchmark::State& state) {
    std::string const path = makePath(state);
    for (auto _ : state) {
        std::wstring wide = widenByHand(path);
        benchmark::DoNotOptimize(wide.data());
        benchmark::ClobberMemory();
    }
}

constexpr int LENGTHS[] = {64, 1000};

void lengths(benchmark::internal::Benchmark* row) {
    for (int const length : LENGTHS) {
        row->Arg(length);
    }
}

BENCHMARK(convert)->Name("narrow to wide and back (at most 0.8)/vesk")->Apply(lengths);
BENCHMARK(convertByHand)->Name("narrow to wide and back (at most 0.8)/bare")->Apply(lengths);
BENCHMARK(makeWidePath)->Name("WidePath from narrow text (at most 1.2)/vesk")->Apply(lengths);
BENCHMARK(makeWidePathByHand)->Name("WidePath from narrow text (at most 1.2)/bare")->Apply(lengths);

} // namespace
