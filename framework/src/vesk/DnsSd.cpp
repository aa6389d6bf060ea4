#include <vesk/DnsSd.h>

#include "DnsSdImpl.h"
#include <vesk/common/CancellationOff.h>

#include <vesk/common/AbortingLock.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <utility>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/DnsSd";

using InternalLock = AbortingLock<threadsafe::MutexImpl>;
using ThreadReference = std::SharedBase::Ptr<DnsSd::DnsSdThread>;

/// Asserts: a synchronous client cannot return a failure of its engine.
void assertNoError(int line = __builtin_LINE()) {
    std::GlobalErrorHandler::doAssert(false, "!\"Implement me!\"", SOURCE, line, "error", nullptr);
}

} // namespace

TARN_CONSTANT_INIT std::Shared<DnsSd::DnsSdThread> DnsSd::DEFAULT;
TARN_CONSTANT_INIT std::atomic<DnsSd::Engine*> DnsSd::s_engine{nullptr};

DnsSd::Engine* DnsSd::setEngine(Engine* engine) noexcept {
    return s_engine.exchange(engine);
}

DnsSd::Engine* DnsSd::getEngine() noexcept {
    return s_engine.load();
}

// ---- The thread ----

DnsSd::DnsSdThread::DnsSdThread()
    : m_thread(DnsSdImpl::main, this, "vesk::DnsSd"), m_started(m_thread.isValid() && !m_thread.start()) {
    if (!m_started) {
        std::ErrorStorage::ack();
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "DnsSdThread", "Couldn't start the thread of service discovery: %s",
            tarn_error.getReasonList().c_str());
    }
}

DnsSd::DnsSdThread::~DnsSdThread() {
    if (m_started) {
        // The last client reaches this point from its destructor.
        detail::CancellationOff const cancellation_off;
        detail::KeptErrorChain const kept_chain;
        if (m_thread.join()) {
            std::ErrorStorage::ack();
            std::GlobalErrorHandler::doWarning(
                SOURCE, __LINE__, "~DnsSdThread", "Couldn't join the thread of service discovery: %s",
                tarn_error.getReasonList().c_str());
        }
    }
}

// ---- The common part of the clients ----

DnsSd::Engine::~Engine() = default;

DnsSd::Client::Client() noexcept : m_engine(nullptr) {}

DnsSd::Client::~Client() = default;

DnsSd::Engine* DnsSd::Client::enlist() {
    Engine* const engine = getEngine();
    if (engine != nullptr) {
        m_thread = ThreadReference(DEFAULT);
        m_engine = engine;
    }
    return engine;
}

void DnsSd::Client::leave() {
    // Called by the destructors of the clients, and an engine may reach any cancellation point.
    detail::CancellationOff const cancellation_off;
    if (m_engine != nullptr) {
        m_engine->cancel(*this);
        m_thread = ThreadReference();
    } else {
        // The thread is created and destroyed here if this is the only reference.
        ThreadReference const reference(DEFAULT);
    }
}

template <typename Result>
DnsSd::ResultQueue<Result>::ResultQueue() : m_mutex(false), m_condition(m_mutex) {
    TARN_NAME_LOCK(m_mutex, DISCOVERY_RESULTS);
}

/// @param callback  the name of the calling operation, for the message of a lock that fails
template <typename Result>
template <typename... Fields>
void DnsSd::ResultQueue<Result>::push(char const* callback, Fields const&... fields) {
    InternalLock const lock(m_mutex, SOURCE, callback);
    m_results.push_back(Result{fields...});
    static_cast<void>(m_condition.signal_one());
}

template <typename Result>
bool DnsSd::ResultQueue<Result>::wait() {
    InternalLock const lock(m_mutex, SOURCE, "wait");
    while (m_results.empty()) {
        static_cast<void>(m_condition.wait());
    }
    return false;
}

template <typename Result>
bool DnsSd::ResultQueue<Result>::wait(tarnbase::TimePoint const& deadline) {
    InternalLock const lock(m_mutex, SOURCE, "wait");
    while (m_results.empty()) {
        if (m_condition.wait_timeout(deadline) == threadsafe::ConditionBase::TIMEOUT) {
            return true;
        }
    }
    return false;
}

template <typename Result>
bool DnsSd::ResultQueue<Result>::get(Result& out) {
    InternalLock const lock(m_mutex, SOURCE, "get");
    if (m_results.empty()) {
        return true;
    }
    out = std::move(m_results.front());
    m_results.pop_front();
    return false;
}

// ---- SyncBrowser ----

DnsSd::SyncBrowser::SyncBrowser(std::string const& type, std::string const& domain) {
    if (Engine* const engine = enlist()) {
        engine->browse(*this, type, domain);
    }
}

DnsSd::SyncBrowser::~SyncBrowser() {
    leave();
}

bool DnsSd::SyncBrowser::wait() {
    return m_queue.wait();
}

bool DnsSd::SyncBrowser::wait(tarnbase::TimePoint const& deadline) {
    return m_queue.wait(deadline);
}

bool DnsSd::SyncBrowser::get(Result& out) {
    return m_queue.get(out);
}

void DnsSd::SyncBrowser::error() {
    assertNoError();
}

void DnsSd::SyncBrowser::service_appeared(
    std::unicode::String const& name, std::string const& type, std::string const& domain) {
    m_queue.push("service_appeared", name, type, domain, true);
}

void DnsSd::SyncBrowser::service_disappeared(
    std::unicode::String const& name, std::string const& type, std::string const& domain) {
    m_queue.push("service_disappeared", name, type, domain, false);
}

// ---- SyncResolver ----

DnsSd::SyncResolver::Result::Result(
    std::unicode::String const& its_name, std::string const& its_type, std::string const& its_domain,
    std::string const& its_host, unsigned short its_port, DnsSdBase::Txt const& its_txt)
    : name(its_name), type(its_type), domain(its_domain), host(its_host), port(its_port), txt(its_txt) {}

DnsSd::SyncResolver::SyncResolver(
    std::unicode::String const& name, std::string const& type, std::string const& domain) {
    if (Engine* const engine = enlist()) {
        engine->resolve(*this, name, type, domain);
    }
}

DnsSd::SyncResolver::~SyncResolver() {
    leave();
}

bool DnsSd::SyncResolver::wait() {
    return m_queue.wait();
}

bool DnsSd::SyncResolver::wait(tarnbase::TimePoint const& deadline) {
    return m_queue.wait(deadline);
}

bool DnsSd::SyncResolver::get(Result& out) {
    return m_queue.get(out);
}

void DnsSd::SyncResolver::error() {
    assertNoError();
}

void DnsSd::SyncResolver::resolved(
    std::unicode::String const& name, std::string const& type, std::string const& domain,
    std::string const& host, unsigned short port, DnsSdBase::Txt const& txt) {
    m_queue.push("resolved", name, type, domain, host, port, txt);
}

// ---- SyncLookup ----

DnsSd::SyncLookup::SyncLookup(std::string const& name) {
    if (Engine* const engine = enlist()) {
        engine->lookup(*this, name);
    }
}

DnsSd::SyncLookup::~SyncLookup() {
    leave();
}

bool DnsSd::SyncLookup::wait() {
    return m_queue.wait();
}

bool DnsSd::SyncLookup::wait(tarnbase::TimePoint const& deadline) {
    return m_queue.wait(deadline);
}

bool DnsSd::SyncLookup::get(Result& out) {
    return m_queue.get(out);
}

void DnsSd::SyncLookup::error() {
    assertNoError();
}

void DnsSd::SyncLookup::address(std::string const& name, std::string const& address) {
    m_queue.push("address", name, address);
}

// ---- SyncService ----

DnsSd::SyncService::SyncService(
    std::unicode::String const& name, std::string const& type, std::string const& domain, unsigned short port,
    DnsSdBase::Txt const& txt) {
    if (Engine* const engine = enlist()) {
        engine->publish(*this, name, type, domain, port, txt);
    }
}

DnsSd::SyncService::~SyncService() {
    leave();
}

void DnsSd::SyncService::error() {
    assertNoError();
}

} // namespace vesk
