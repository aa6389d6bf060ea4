#include "../TextBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/locale/encoding_utf.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/UnicodeConverter.h>
#endif

namespace {

#ifdef VESK_PEER_BOOST
void boostConvert(benchmark::State& state) {
    std::string const path = makePath(state);
    for (auto _ : state) {
        std::wstring const wide = boost::locale::conv::utf_to_utf<wchar_t>(path);
        std::string const narrow = boost::locale::conv::utf_to_utf<char>(wide);
        benchmark::DoNotOptimize(narrow.c_str());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(boostConvert)->Name("narrow to wide and back/boost")->Apply(lengths);
#endif

#ifdef VESK_PEER_POCO
void pocoConvert(benchmark::State& state) {
    std::string const path = makePath(state);
    for (auto _ : state) {
        Poco::UTF32String wide;
        Poco::UnicodeConverter::convert(path, wide);
        std::string narrow;
        Poco::UnicodeConverter::convert(wide, narrow);
        benchmark::DoNotOptimize(narrow.c_str());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(pocoConvert)->Name("narrow to wide and back/poco")->Apply(lengths);
#endif

#ifdef VESK_PEER_GLIB
void glibConvert(benchmark::State& state) {
    std::string const path = makePath(state);
    for (auto _ : state) {
        gunichar* const wide = g_utf8_to_ucs4(path.c_str(), -1, nullptr, nullptr, nullptr);
        char* const narrow = g_ucs4_to_utf8(wide, -1, nullptr, nullptr, nullptr);
        benchmark::DoNotOptimize(narrow);
        benchmark::ClobberMemory();
        g_free(narrow);
        g_free(wide);
    }
}
BENCHMARK(glibConvert)->Name("narrow to wide and back/glib")->Apply(lengths);
#endif

} // namespace
