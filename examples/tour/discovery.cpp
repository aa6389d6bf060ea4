#include "Tour.h"

#include <vesk/DnsSd.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/Thread.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tour {

namespace {

using std::unicode::String;
using vesk::DnsSd;
using vesk::DnsSdBase;

// ---- values ----

void unpackNames() {
    section("Discovery: names and TXT records in wire format");
    char const* const wire_name = "Caf\\195\\169\\032No\\.\\0321._http._tcp.local";
    char const* cursor = wire_name;
    std::string const label = DnsSdBase::unescape(cursor, ".");
    failed(
        label != "Caf\xC3\xA9 No. 1" || strcmp(cursor, "._http._tcp.local") != 0, "the label is unescaped");
    tell("%s: the label is \"%s\", the rest is \"%s\"", wire_name, label.c_str(), cursor);

    String rude = String(std::unicode::BOM) + String::fromUTF8("Caf\xC3\xA9\a") + String(0x1F5A8);
    String const shown = DnsSdBase::sanitize(rude);
    failed(shown.toUTF8() != "Caf\xC3\xA9\xEF\xBF\xBD\xEF\xBF\xBD", "the name is sanitized");
    tell("a name with a byte-order mark, a bell and a pictograph is shown as \"%s\"", shown.toUTF8().c_str());

    constexpr int ROUNDS = 10000;
    DnsSdBase::Txt txt;
    for (int i = 0; i < 20; ++i) {
        txt["key " + std::to_string(i)] = "value " + std::to_string(i * i);
    }
    std::Buf wire = txt.data();
    bool same = true;
    vesk::RealtimeStopWatch const watch(true);
    for (int i = 0; i < ROUNDS; ++i) {
        DnsSdBase::Txt const read(static_cast<unsigned short>(wire.getSize()), wire.data);
        wire = read.data();
        same = same && read.size() == txt.size();
    }
    auto const us = static_cast<double>(watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
    failed(!same || wire != txt.data(), "the record survives its wire format");
    tell(
        "a TXT record of %zu entries, %u bytes on the wire, read and written %d times: %.2f us each",
        txt.size(), wire.getSize(), ROUNDS, us / ROUNDS);
}

// ---- an engine ----

constexpr int SERVICES = 1000;
constexpr int NEWS = SERVICES + SERVICES / 2;

/// An engine with a fixed set of services, half of which disappear again. Its thread calls every client. A
/// client is not called after its cancellation.
class Resident : public DnsSd::Engine {
public:
    Resident() : m_thread(main, this, "tour engine") { failed(m_thread.start(), "starting the engine"); }
    ~Resident() override {
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_ends = true;
        }
        m_changed.notify_all();
        failed(m_thread.join(), "joining the engine");
    }

    void browse(DnsSdBase::Client& client, std::string const& type, std::string const& domain) override {
        for (int i = 0; i < SERVICES; ++i) {
            String const name = String::fromUTF8("Service " + std::to_string(i));
            add({client, [=](DnsSdBase::Client& c) { c.service_appeared(name, type, domain); }});
            if (i % 2 != 0) {
                add({client, [=](DnsSdBase::Client& c) { c.service_disappeared(name, type, domain); }});
            }
        }
    }
    void resolve(
        DnsSdBase::Client& client, String const& name, std::string const& type,
        std::string const& domain) override {
        static constexpr std::array<unsigned char, 13> RECORD{12,  'p', 'a', 't', 'h', '=', '/',
                                                              's', 't', 'a', 't', 'u', 's'};
        add({client, [=](DnsSdBase::Client& c) {
                 c.resolved(
                     name, type, domain, "device.local", 8080, DnsSdBase::Txt(RECORD.size(), RECORD.data()));
             }});
    }
    void lookup(DnsSdBase::Client& client, std::string const& name) override {
        add({client, [=](DnsSdBase::Client& c) { c.address(name, "192.0.2.80"); }});
    }
    void publish(
        DnsSdBase::Client&, String const&, std::string const&, std::string const&, unsigned short,
        DnsSdBase::Txt const&) override {
        ++m_published;
    }
    void cancel(DnsSdBase::Client& client) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_news.erase(
            std::remove_if(
                m_news.begin(), m_news.end(),
                [&](News const& news) { return &news.client.get() == &client; }),
            m_news.end());
        m_changed.wait(lock, [&] { return m_called != &client; });
    }

    int getPublished() const { return m_published; }

private:
    struct News {
        std::reference_wrapper<DnsSdBase::Client> client;
        std::function<void(DnsSdBase::Client&)> tell;
    };

    void add(News news) {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_news.push_back(std::move(news));
        m_changed.notify_all();
    }

    static void main(void* engine) { static_cast<Resident*>(engine)->run(); }

    void run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_ends || !m_news.empty(); });
            if (m_ends) {
                return;
            }
            News const news = std::move(m_news.front());
            m_news.pop_front();
            m_called = &news.client.get();
            lock.unlock();
            news.tell(news.client);
            lock.lock();
            m_called = nullptr;
            m_changed.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<News> m_news;
    DnsSdBase::Client* m_called = nullptr;
    std::atomic<int> m_published{0};
    bool m_ends = false;
    vesk::Thread m_thread;
};

/// Returns a deadline that an engine in the same process always meets.
tarnbase::TimePoint soon() {
    return tarnbase::TimePoint::now() + tarnbase::Duration(60 * 1000);
}

void browseAndResolve() {
    section("Discovery: synchronous clients of an engine with its own thread");
    Resident engine;
    DnsSd::Engine* const before = DnsSd::setEngine(&engine);
    {
        vesk::RealtimeStopWatch const watch(true);
        DnsSd::SyncBrowser browser("_http._tcp", "local");
        DnsSd::SyncBrowser::Result found;
        std::vector<String> present;
        for (int i = 0; i < NEWS; ++i) {
            if (failed(browser.wait(soon()) || browser.get(found), "browsing")) {
                break;
            }
            if (found.appeared) {
                present.push_back(found.name);
            } else {
                present.pop_back(); // The engine reports both one after the other.
            }
        }
        auto const us =
            static_cast<double>(watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
        failed(present.size() != SERVICES / 2 || !browser.get(found), "half of the services stay");
        tell(
            "%d services appeared and %d disappeared, reported in order: %.2f us each", SERVICES,
            SERVICES / 2, us / NEWS);

        DnsSd::SyncResolver resolver(found.name, "_http._tcp", "local");
        DnsSd::SyncResolver::Result where;
        failed(resolver.wait(soon()) || resolver.get(where), "resolving");
        DnsSd::SyncLookup lookup(where.host);
        DnsSd::SyncLookup::Result host;
        failed(lookup.wait(soon()) || lookup.get(host), "looking up");
        tell(
            "\"%s\" is http://%s:%u%s", where.name.toUTF8().c_str(), host.address.c_str(),
            static_cast<unsigned int>(where.port), where.txt["path"].c_str());
        DnsSd::SyncService const service(String::fromUTF8("Tour"), "_http._tcp", "local", 80);
        failed(engine.getPublished() != 1, "publishing");
        // Destroyed while the engine still has reports for it.
        DnsSd::SyncBrowser const impatient("_http._tcp", "local");
    }
    DnsSd::setEngine(before);
    tell("all clients are cancelled, with reports still pending; the engine is idle");
}

} // namespace

void discovery() {
    unpackNames();
    browseAndResolve();
}

} // namespace tour
