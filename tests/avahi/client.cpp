// Runs operations of the engine on Avahi as its standard input demands, and prints what they report.
//
//     browse ID TYPE | resolve ID TYPE NAME | lookup ID HOST | publish ID TYPE PORT KEY=VALUE NAME
//     cancel ID | self ID TYPE | storm COUNT TYPE | sync TYPE NAME | bad | sigpipe | signals | memory SUCCESSES

#include <vesk/Vesk.h>
#include <vesk/avahi/Plugin.h>

#include <tarncommon/tarnbase/Duration.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_successes{
    -1}; ///< Allocations of the engine's thread until all fail, negative for no failure.
std::atomic<int> g_failures{0};

bool isOfEngine() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return std::string_view(name) == "vesk::Avahi";
}

} // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (g_successes >= 0 && isOfEngine() && g_successes.fetch_sub(1) <= 0) {
        g_successes = 0;
        ++g_failures;
        throw std::bad_alloc();
    }
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

// Never fails: the engine allocates by the other function. Replaced so that all blocks come from `malloc`.
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const& /*nothrow*/) noexcept {
    return std::malloc(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

using String = std::unicode::String;
using Txt = vesk::DnsSdBase::Txt;

void print(std::string const& line) {
    static std::mutex mutex;
    std::lock_guard<std::mutex> const guard(mutex);
    std::cout << line << std::endl;
}

/// Prints its calls. A call after the cancellation ends the process.
class Printer : public vesk::DnsSdBase::Client {
public:
    Printer(vesk::DnsSd::Engine& engine, std::string id, bool cancels_itself = false)
        : m_engine(engine), m_id(std::move(id)), m_cancels_itself(cancels_itself) {}
    ~Printer() override {
        m_engine.cancel(*this);
        m_gone = true;
    }

    void error() override { tell("error"); }
    void service_appeared(String const& name, std::string const& type, std::string const&) override {
        tell("appeared " + type + " " + name.toUTF8());
    }
    void service_disappeared(String const& name, std::string const& type, std::string const&) override {
        tell("disappeared " + type + " " + name.toUTF8());
    }
    void all_for_now() override { tell("all"); }
    void resolved(
        String const& name, std::string const&, std::string const&, std::string const& host,
        unsigned short port, Txt const& txt) override {
        std::string entries;
        for (auto const& [key, value] : txt) {
            entries += key + "=" + value + ";";
        }
        tell("resolved " + host + " " + std::to_string(port) + " " + entries + " " + name.toUTF8());
    }
    void address(std::string const& name, std::string const& address) override {
        tell("address " + name + " " + address);
    }

    std::atomic<unsigned int> calls{0};

private:
    void tell(std::string const& what) {
        if (m_gone || m_calling.exchange(true)) {
            print("called after its end, or twice at a time");
            std::abort();
        }
        struct Calling {
            ~Calling() { flag = false; }
            std::atomic<bool>& flag;
        } const calling{m_calling}; // Without memory it ends early.
        ++calls;
        if (!m_id.empty()) {
            print(m_id + " " + what);
        }
        if (m_cancels_itself) {
            m_engine.cancel(*this);
        }
    }

    vesk::DnsSd::Engine& m_engine;
    std::string m_id;
    bool m_cancels_itself;
    std::atomic<bool> m_calling{false};
    std::atomic<bool> m_gone{false};
};

void start(
    vesk::DnsSd::Engine& engine, Printer& printer, std::string const& verb, std::istringstream& words) {
    std::string type;
    std::string port;
    std::string entry;
    std::string name;
    words >> type;
    if (verb == "publish") {
        words >> port >> entry;
    }
    std::getline(words >> std::ws, name);
    String const shown = String::fromUTF8(name);
    if (verb == "browse" || verb == "self") {
        engine.browse(printer, type, "local");
    } else if (verb == "resolve") {
        engine.resolve(printer, shown, type, "local");
    } else if (verb == "lookup") {
        engine.lookup(printer, type);
    } else {
        Txt txt;
        txt[entry.substr(0, entry.find('='))] = entry.substr(entry.find('=') + 1);
        engine.publish(printer, shown, type, "local", static_cast<unsigned short>(std::stoi(port)), txt);
    }
}

/// Starts and cancels operations of all kinds in four threads, after random times; those that have called are canceled
/// within the pauses of the others.
void storm(vesk::DnsSd::Engine& engine, int count, std::string const& type) {
    std::vector<std::thread> threads;
    std::atomic<unsigned int> calls{0};
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            // On a loaded machine, no answer may come within the short rounds.
            for (int round = 0; round < count || calls == 0; ++round) {
                Printer browser(engine, "");
                Printer resolver(engine, "");
                Printer lookup(engine, "");
                Printer service(engine, "");
                String const name = String::fromUTF8("storm " + std::to_string(number));
                engine.browse(browser, type, "local");
                engine.resolve(resolver, name, type, "local");
                engine.lookup(lookup, "storm.local");
                engine.publish(service, name, type, "local", 1, Txt::EMPTY);
                int const pause = (round * 997 + number * 331) % 20000 + (round < count ? 0 : 100000);
                std::this_thread::sleep_for(std::chrono::microseconds(pause));
                calls += browser.calls + resolver.calls + lookup.calls + service.calls;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    print("storm over");
}

/// Uses the synchronous clients.
void useSyncClients(std::string const& type, std::string const& name) {
    String const shown = String::fromUTF8(name);
    vesk::DnsSd::SyncService const service(shown, type, "local", 7);
    vesk::DnsSd::SyncBrowser browser(type, "local");
    vesk::DnsSd::SyncResolver resolver(shown, type, "local");
    vesk::DnsSd::SyncBrowser::Result found;
    vesk::DnsSd::SyncResolver::Result resolved;
    while (!(found.name == shown)) {
        static_cast<void>(browser.wait());
        static_cast<void>(browser.get(found));
    }
    static_cast<void>(resolver.wait());
    static_cast<void>(resolver.get(resolved));
    vesk::DnsSd::SyncLookup lookup(resolved.host);
    vesk::DnsSd::SyncLookup::Result address;
    static_cast<void>(lookup.wait());
    static_cast<void>(lookup.get(address));
    print("sync " + std::to_string(resolved.port) + (address.address.empty() ? "" : " address"));
}

/// Prints how many invalid arguments are refused.
void tryBadArguments(vesk::DnsSd::Engine& engine) {
    Printer printer(engine, "bad");
    String const name = String::fromUTF8("name");
    Txt txt;
    txt["key"] = std::string(255, 'x');
    int refused = 0;
    auto const refuses = [&refused](auto const& call) {
        try {
            call();
        } catch (std::invalid_argument const&) {
            ++refused;
        }
    };
    refuses([&] { engine.browse(printer, "no type", "local"); });
    refuses([&] { engine.browse(printer, "_a._tcp", std::string(300, '.')); });
    refuses([&] { engine.resolve(printer, String(), "_a._tcp", "local"); });
    refuses([&] { engine.lookup(printer, ""); });
    refuses([&] { engine.publish(printer, String(), "_a._tcp", "local", 1, Txt::EMPTY); });
    refuses([&] {
        engine.publish(printer, String::fromUTF8(std::string(64, 'x')), "_a._tcp", "local", 1, Txt::EMPTY);
    });
    refuses([&] { engine.publish(printer, name, "_a._xyz", "local", 1, Txt::EMPTY); });
    refuses([&] { engine.publish(printer, name, "_a._tcp", "local", 1, txt); });
    print("refused " + std::to_string(refused));
}

/// Returns whether the thread of the engine blocks all signals that can be blocked.
bool blocksSignals() {
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        std::string const text{std::istreambuf_iterator<char>(status), {}};
        if (text.find("Name:\tvesk::Avahi\n") != std::string::npos) {
            std::size_t const at = text.find("SigBlk:");
            return std::stoull(text.substr(at + 8), nullptr, 16) == 0xfffffffe7ffbfeff;
        }
    }
    return false;
}

void serve(vesk::DnsSd::Engine& engine) {
    std::map<std::string, std::unique_ptr<Printer>> printers;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string verb;
        std::string id;
        words >> verb >> id;
        if (verb == "cancel") {
            printers.erase(id);
            print("canceled " + id);
        } else if (verb == "storm") {
            std::string type;
            words >> type;
            storm(engine, std::stoi(id), type);
        } else if (verb == "sync") {
            std::string name;
            std::getline(words >> std::ws, name);
            useSyncClients(id, name);
        } else if (verb == "bad") {
            tryBadArguments(engine);
        } else if (verb == "memory") {
            g_successes = std::stoi(id);
            print("failures " + std::to_string(g_failures.exchange(0)));
        } else if (verb == "signals") {
            print(blocksSignals() ? "signals blocked" : "signals accepted");
        } else if (verb == "sigpipe") {
            struct sigaction action {};
            sigaction(SIGPIPE, nullptr, &action);
            print(std::string("sigpipe ") + (action.sa_handler == SIG_DFL ? "default" : "changed"));
        } else {
            printers[id] = std::make_unique<Printer>(engine, id, verb == "self");
            start(engine, *printers[id], verb, words);
        }
    }
}

} // namespace

int main() {
    vesk::Vesk const vesk(true, false);
    std::signal(SIGPIPE, SIG_DFL); // `Vesk` ignores it; the engine must not.
    vesk::avahi::Plugin const plugin;
    if (!plugin.isLoaded() || plugin.getEngine() != vesk::DnsSd::getEngine()) {
        print("no plug-in");
        return 1;
    }
    print("ready");
    serve(*plugin.getEngine());
    return 0;
}
