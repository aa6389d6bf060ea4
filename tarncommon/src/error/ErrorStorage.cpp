#include <tarncommon/error/ErrorStorage.h>

#include "ChainText.h"
#include "TextWriter.h"

#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace std {

namespace {

/// The store of a thread that brought none. It has no destructor: registering one would allocate in every thread.
TARN_CONSTANT_INIT thread_local ErrorStorage::Chain t_default_chain(nullptr);

/// The store in use; null stands for the default one.
TARN_CONSTANT_INIT thread_local ErrorStorage::Chain* t_chain = nullptr;

/// Gives the mapped reports of a default store back when its thread ends.
class ThreadEnd {
public:
    ThreadEnd() noexcept {
        m_valid = pthread_key_create(&m_key, [](void*) { t_default_chain.unmap(); }) == 0;
    }
    ~ThreadEnd() {
        if (m_valid) {
            pthread_key_delete(m_key);
        }
    }
    void watch() const noexcept {
        if (m_valid) {
            pthread_setspecific(m_key, this);
        }
    }

private:
    pthread_key_t m_key{};
    bool m_valid = false;
};

ThreadEnd s_thread_end;

constexpr size_t mappedSize(unsigned int reports) noexcept {
    return reports * sizeof(ErrorObject);
}

} // namespace

ErrorStorage::Chain& ErrorStorage::Chain::ofThread() noexcept {
    return t_chain != nullptr ? *t_chain : t_default_chain;
}

bool ErrorStorage::Chain::map() noexcept {
    void* const memory = mmap(
        nullptr, mappedSize(CAPACITY - INLINE_REPORTS), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
        -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    m_more = static_cast<ErrorObject*>(memory);
    if (this == &t_default_chain) {
        s_thread_end.watch();
    }
    return true;
}

void ErrorStorage::Chain::unmap() noexcept {
    if (m_more == nullptr) {
        return;
    }
    munmap(m_more, mappedSize(CAPACITY - INLINE_REPORTS));
    m_more = nullptr;
    m_pending = false;
    m_count = 0;
}

/// The object at this level of the chain, null where there is no room for one.
ErrorObject* ErrorStorage::Chain::place(unsigned int index) noexcept {
    if (index < INLINE_REPORTS) {
        return &m_first[index];
    }
    if (index == CAPACITY || (m_more == nullptr && !map())) {
        return nullptr;
    }
    return new (&m_more[index - INLINE_REPORTS]) ErrorObject;
}

ErrorObject& ErrorStorage::Chain::open(bool new_chain) noexcept {
    if (new_chain || !m_pending) {
        giveUp("replaced by a new chain");
        m_count = 0;
        m_head = nullptr;
    }
    m_pending = true;
    if (ErrorObject* const report = place(m_count)) {
        report->next = m_head;
        m_head = report;
        ++m_count;
    }
    return *m_head; // Where the store is full the head is replaced, and the way to the root cause stays.
}

void ErrorStorage::Chain::giveUp(char const* reason) noexcept {
    if (!m_pending) {
        return;
    }
    m_pending = false;
    if (m_action != nullptr) {
        m_action(m_owner, reason, m_head, m_count);
    }
}

ErrorStorage::ErrorStorage(Action action) noexcept : m_chain(action), m_previous(t_chain) {
    m_chain.m_owner = this;
    t_chain = &m_chain;
}

ErrorStorage::~ErrorStorage() {
    m_chain.giveUp("end of the store");
    m_chain.unmap();
    t_chain = m_previous;
}

bool ErrorStorage::isError(bool) noexcept {
    return Chain::ofThread().isPending();
}

ErrorObject const* ErrorStorage::get() noexcept {
    Chain const& chain = Chain::ofThread();
    return chain.isPending() ? chain.getHead() : nullptr;
}

int ErrorStorage::id() noexcept {
    ErrorObject const* const head = get();
    return head != nullptr ? head->getID() : -1;
}

bool ErrorStorage::isA(ErrorType const& type) noexcept {
    ErrorObject const* const head = get();
    return head != nullptr && head->getType() != nullptr && head->getType()->isA(type);
}

void ErrorStorage::ack() noexcept {
    Chain::ofThread().acknowledge();
}

void ErrorStorage::action_dump_to_stdout(
    void*, char const* reason, ErrorObject const* head, unsigned int count) {
    using namespace tarnbase::detail;

    char line[128];
    TextWriter writer(line, sizeof line);
    writer.put("unacknowledged error chain of ");
    writer.putUnsigned(count);
    writer.put(count == 1 ? " report (" : " reports (");
    writer.put(reason);
    writer.put("):\n");
    writeAll(STDOUT_FILENO, line, writer.finish());

    for (ErrorObject const* report = head; report != nullptr; report = report->next) {
        ChainLine chain_line(*report, report == head);
        char const* const text = chain_line.getText();
        writeAll(STDOUT_FILENO, text, chain_line.endLine());
    }
}

} // namespace std
