#include <tarncommon/error/ErrorStorage.h>

#include "CancellationOff.h"
#include "ChainText.h"
#include "TextWriter.h"

#include <atomic>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace std {

namespace {

/// The store of a thread that created none. It has no destructor: registering one would allocate in every
/// thread.
TARN_CONSTANT_INIT thread_local ErrorStorage::Chain t_default_chain(nullptr);

/// The chain of the store in use; null means the default one.
TARN_CONSTANT_INIT thread_local ErrorStorage::Chain* t_chain = nullptr;

/// Size of the memory that a chain maps for the reports that do not fit into its store.
constexpr size_t MAPPED_SIZE =
    (ErrorStorage::CAPACITY - ErrorStorage::Chain::INLINE_REPORTS) * sizeof(ErrorObject);

/// The mapped reports of default stores, which are released at the end of their threads.
class MappedReports {
public:
    constexpr MappedReports() noexcept = default;

    /// Runs when the library is unloaded: releases the memory of threads that still exist.
    ~MappedReports() {
        forgetThreads();
        for (atomic<void*>& block : m_blocks) {
            if (void* const memory = block.load(memory_order_relaxed)) {
                munmap(memory, MAPPED_SIZE);
            }
        }
    }

    /// Registers the calling thread's block. Takes no lock, because a report may be made between fork and
    /// exec. If the table is full, only the end of the thread releases the block.
    void add(void* memory) noexcept {
        replace(nullptr, memory);
        pthread_key_t key = m_key.load(memory_order_relaxed);
        if (key == NO_KEY) {
            key = makeKey();
        }
        if (key != NO_KEY) {
            pthread_setspecific(key, memory);
        }
    }

    void remove(void* memory) noexcept { replace(memory, nullptr); }

    /// Stops observing the ends of threads. Deleting the key keeps the C library from calling code that is
    /// unloaded.
    void forgetThreads() noexcept {
        pthread_key_t const key = m_key.exchange(NO_KEY);
        if (key != NO_KEY) {
            pthread_key_delete(key);
        }
    }

private:
    static constexpr pthread_key_t NO_KEY = ~pthread_key_t{0};
    static constexpr unsigned int BLOCKS = 64;

    void replace(void* before, void* after) noexcept {
        for (atomic<void*>& block : m_blocks) {
            void* expected = before;
            if (block.compare_exchange_strong(expected, after)) {
                return;
            }
        }
    }

    /// Creates the key and returns it. Returns `NO_KEY` if the system has no key left: the ends of threads
    /// then release nothing.
    pthread_key_t makeKey() noexcept {
        pthread_key_t key{};
        if (pthread_key_create(&key, [](void*) { t_default_chain.unmap(); }) != 0) {
            return NO_KEY; // LCOV_EXCL_LINE: only if the system has no key left at the first use
        }
        pthread_key_t present = NO_KEY;
        if (m_key.compare_exchange_strong(present, key)) {
            return key;
        }
        pthread_key_delete(key); // LCOV_EXCL_LINE: only if two threads meet here
        return present;
    }

    atomic<pthread_key_t> m_key{NO_KEY};
    atomic<void*> m_blocks[BLOCKS] = {};
};

TARN_CONSTANT_INIT MappedReports s_mapped_reports;

/// Runs at the end of the process too, which does not destroy `s_mapped_reports`: the program may still
/// unload the library then.
__attribute__((destructor)) void forgetThreads() noexcept {
    s_mapped_reports.forgetThreads();
}

} // namespace

ErrorStorage::Chain& ErrorStorage::Chain::ofThread() noexcept {
    return t_chain != nullptr ? *t_chain : t_default_chain;
}

bool ErrorStorage::Chain::map() noexcept {
    void* const memory =
        mmap(nullptr, MAPPED_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    m_more = static_cast<ErrorObject*>(memory);
    if (this == &t_default_chain) {
        s_mapped_reports.add(memory);
    }
    return true;
}

void ErrorStorage::Chain::unmap() noexcept {
    if (m_more == nullptr) {
        return;
    }
    if (this == &t_default_chain) {
        s_mapped_reports.remove(m_more);
    }
    munmap(m_more, MAPPED_SIZE);
    m_more = nullptr;
    m_pending = false;
    m_count = 0;
}

/// Returns the object at this level of the chain, or null if there is no room for it.
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
    return *m_head; // A full store overwrites the head and keeps its link.
}

void ErrorStorage::Chain::giveUp(char const* reason) noexcept {
    if (!m_pending) {
        return;
    }
    m_pending = false;
    if (m_action != nullptr) {
        tarnbase::detail::CancellationOff const cancellation_off;
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
