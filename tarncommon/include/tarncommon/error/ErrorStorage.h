#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorObject.h>

#include <utility>

namespace std {

/// The store of one thread's error chain.
///
/// A failed operation has reported before it returns. Its caller looks at the chain, and either handles it with
/// `ack()` or passes the failure on with a report of its own:
///
///     if (mutex.lock()) {
///         if (std::ErrorStorage::is(vesk::Mutex::ErrorId::INCONSISTENT)) { ... }
///         std::ErrorStorage::ack();
///     }
///
/// The static operations work on the calling thread's store: every thread has one from its start, no lock is taken,
/// nothing blocks. A store holds 32 reports; a chain that is longer keeps its root cause and the levels above it, and
/// each further report replaces the head.
///
/// A store never uses the heap. Its first reports lie in the object; only a chain of more than four levels maps
/// memory for the others, once for the life of the store. Should the system refuse, such a chain keeps four.
class TARN_API ErrorStorage {
public:
    /// What is called with a chain that is given up without having been acknowledged.
    ///
    /// @param store   the `ErrorStorage` that gives it up; null for the default store of a thread
    /// @param reason  why, as a text
    /// @param head    the chain, from the report of the highest level
    /// @param count   how many reports it has
    ///
    /// It runs in the store's thread, whose cancellation is disabled meanwhile, and must not report errors itself.
    using Action = void (*)(void* store, char const* reason, ErrorObject const* head, unsigned int count);

    /// How many reports a store holds.
    static constexpr unsigned int CAPACITY = 32;

    /// Becomes the calling thread's store until it is destroyed, by the same thread; stores nest. The chain of the
    /// store before it waits untouched. `action` may be null: then chains are given up silently.
    explicit ErrorStorage(Action action) noexcept;

    /// Gives up what is pending and makes the store before it the thread's store again.
    ~ErrorStorage();

    ErrorStorage(ErrorStorage const&) = delete;
    ErrorStorage& operator=(ErrorStorage const&) = delete;

    /// Whether a chain is pending: a report was made that no `ack()` has followed. The argument says what the caller
    /// wants to know it for (true: only to choose `new_chain`; false: to read the chain next) and changes nothing.
    static bool isError(bool) noexcept;

    /// The head of the pending chain, null if none is pending. Valid until the next report.
    static ErrorObject const* get() noexcept;

    /// The id of the pending chain's head, -1 if none is pending.
    static int id() noexcept;

    /// Whether the pending chain's head is of the family `type` or of one that derives from it.
    static bool isA(ErrorType const& type) noexcept;

    /// Returns whether the pending chain's head is the report that `report` names, an enumerator such as
    /// `vesk::SysErrorId::OUT_OF_MEMORY`. The enumeration implies the family; a derived family does not count.
    template <typename Id, typename = decltype(familyOf(declval<Id>()))>
    static bool is(Id report) noexcept {
        ErrorObject const* const head = get();
        return head != nullptr && head->getType() == &familyOf(report) && head->getID() == report;
    }

    /// Marks the pending chain as handled. `ErrorApi::getReasonList` still tells it, until the next report.
    static void ack() noexcept;

    /// An action that writes the chain to standard output, unbuffered, without a lock and without the heap.
    static void
    action_dump_to_stdout(void* store, char const* reason, ErrorObject const* head, unsigned int count);

    /// The chain itself, behind every store. Internal to the base library.
    class Chain {
    public:
        /// How many reports lie in the store itself.
        static constexpr unsigned int INLINE_REPORTS = 4;

        constexpr explicit Chain(Action action) noexcept : m_action(action) {}

        ErrorObject const* getHead() const noexcept { return m_count == 0 ? nullptr : m_head; }
        bool isPending() const noexcept { return m_pending; }
        void acknowledge() noexcept { m_pending = false; }

        /// The object for the report about to be made, linked as the new head.
        ErrorObject& open(bool new_chain) noexcept;
        void giveUp(char const* reason) noexcept;
        void unmap() noexcept;

        static Chain& ofThread() noexcept;

    private:
        ErrorObject* place(unsigned int index) noexcept;
        bool map() noexcept;

        Action m_action;
        void* m_owner = nullptr;
        ErrorObject* m_head = nullptr;
        ErrorObject* m_more = nullptr; // The reports behind the inline ones.
        unsigned int m_count = 0;
        bool m_pending = false;
        ErrorObject m_first[INLINE_REPORTS];

        friend class ErrorStorage;
    };

private:
    Chain m_chain;
    Chain* m_previous;
};

} // namespace std
