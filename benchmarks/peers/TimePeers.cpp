#include "../TimeBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/chrono/system_clocks.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/Clock.h>
#include <Poco/Timestamp.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_time.h>
#endif

namespace {

template <auto READ>
void readClock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(READ());
    }
}

#define PEER_MONOTONIC(function, peer) BENCHMARK(function)->Name("Monotonic clock/" peer)
#define PEER_DATE(function, peer) BENCHMARK(function)->Name("Clock of the date/" peer)

PEER_MONOTONIC(now, "vesk");
PEER_MONOTONIC(bareNow, "bare");
PEER_DATE(timestamp, "vesk");
PEER_DATE(bareTimestamp, "bare");

#ifdef VESK_PEER_BOOST
boost::chrono::steady_clock::time_point boostMonotonic() {
    return boost::chrono::steady_clock::now();
}
boost::chrono::system_clock::time_point boostDate() {
    return boost::chrono::system_clock::now();
}
PEER_MONOTONIC(readClock<boostMonotonic>, "boost");
PEER_DATE(readClock<boostDate>, "boost");
#endif

#ifdef VESK_PEER_POCO
Poco::Clock::ClockVal pocoMonotonic() {
    return Poco::Clock().raw();
}
Poco::Timestamp::TimeVal pocoDate() {
    return Poco::Timestamp().raw();
}
PEER_MONOTONIC(readClock<pocoMonotonic>, "poco");
PEER_DATE(readClock<pocoDate>, "poco");
#endif

#ifdef VESK_PEER_GLIB
PEER_MONOTONIC(readClock<g_get_monotonic_time>, "glib");
PEER_DATE(readClock<g_get_real_time>, "glib");
#endif

#ifdef VESK_PEER_UV
uv_timeval64_t uvDate() {
    uv_timeval64_t time{};
    uv_gettimeofday(&time);
    return time;
}
PEER_MONOTONIC(readClock<uv_hrtime>, "uv");
PEER_DATE(readClock<uvDate>, "uv");
#endif

#ifdef VESK_PEER_APR
PEER_DATE(readClock<apr_time_now>, "apr");
#endif

} // namespace
