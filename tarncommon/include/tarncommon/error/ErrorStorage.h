#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorObject.h>

#include <utility>

namespace std {

/// The store of one thread's error chain.
///
/// An operation that fails makes its reports before it returns. Its caller examines the chain, and either
/// handles it with `ack()` or passes the failure on with a report of its own:
///
///     if (mutex.lock()) {
///         if (std::ErrorStorage::is(vesk::Mutex::ErrorId::INCONSISTENT)) { ... }
///         std::ErrorStorage::ack();
///     }
///
/// The static operations work on the calling thread's store. Every thread has a store from its start. No
/// operation takes a lock or blocks, apart from what the action of a store does.
///
/// A store holds 32 reports. A longer chain keeps its root cause and the levels next to it; each further
/// report replaces the head.
///
/// A store never uses the heap. Its first reports lie in the object. Only a chain of more than four levels
/// maps memory for the others (`mmap`), once in the lifetime of the store. If the system refuses, such a
/// chain keeps four reports.
class TARN_API ErrorStorage {
public:
    /// The function that is called with a chain that is discarded without having been acknowledged.
    ///
    /// @param store   the `ErrorStorage` that discards the chain
    /// @param reason  why, as a text
    /// @param head    the chain, from the report of the highest level
    /// @param count   the number of its reports
    ///
    /// The action runs in the store's thread, with cancellation disabled, and must not make reports itself.
    /// The default store of a thread has no action.
    using Action = void (*)(void* store, char const* reason, ErrorObject const* head, unsigned int count);

    /// Number of reports that a store holds.
    static constexpr unsigned int CAPACITY = 32;

    /// Makes this object the calling thread's store until it is destroyed, which the same thread must do.
    /// Stores nest: the chain of the previous store stays untouched. `action` may be null: chains are then
    /// discarded silently.
    explicit ErrorStorage(Action action) noexcept;

    /// Discards a pending chain and makes the previous store the thread's store again.
    ~ErrorStorage();

    ErrorStorage(ErrorStorage const&) = delete;
    ErrorStorage& operator=(ErrorStorage const&) = delete;

    /// Returns whether a chain is pending: a report was made, and no `ack()` has followed. The argument
    /// states the caller's purpose and has no effect. True: the caller only chooses `new_chain`. False: the
    /// caller reads the chain next.
    static bool isError(bool) noexcept;

    /// Returns the head of the pending chain, or null if none is pending. The head is valid until the next
    /// report.
    static ErrorObject const* get() noexcept;

    /// Returns the id of the pending chain's head, or -1 if none is pending.
    static int id() noexcept;

    /// Returns whether the pending chain's head belongs to the family `type` or to a family that derives from
    /// it.
    static bool isA(ErrorType const& type) noexcept;

    /// Returns whether the pending chain's head is the report that `report` names, an enumerator such as
    /// `vesk::SysErrorId::OUT_OF_MEMORY`. The enumeration implies the family; a derived family does not
    /// count.
    template <typename Id, typename = decltype(familyOf(declval<Id>()))>
    static bool is(Id report) noexcept {
        ErrorObject const* const head = get();
        return head != nullptr && head->getType() == &familyOf(report) && head->getID() == report;
    }

    /// Marks the pending chain as handled. `ErrorApi::getReasonList` still returns it until the next report.
    static void ack() noexcept;

    /// Writes the chain to standard output, unbuffered, without a lock and without the heap. For use as an
    /// action.
    static void
    action_dump_to_stdout(void* store, char const* reason, ErrorObject const* head, unsigned int count);

    /// The chain behind a store. Internal to the base library.
    class Chain {
    public:
        /// Number of reports that lie in the store itself.
        static constexpr unsigned int INLINE_REPORTS = 4;

        /// Creates an empty chain with the action of its store.
        constexpr explicit Chain(Action action) noexcept : m_action(action) {}

        /// Returns the report of the highest level, null for an empty chain.
        ErrorObject const* getHead() const noexcept { return m_count == 0 ? nullptr : m_head; }
        /// Returns whether the chain is not acknowledged.
        bool isPending() const noexcept { return m_pending; }
        /// Acknowledges the chain.
        void acknowledge() noexcept { m_pending = false; }

        /// @{
        /// Returns the object for the next report, linked as the new head.
        ErrorObject& open(bool new_chain) noexcept;
        void giveUp(char const* reason) noexcept;
        void unmap() noexcept;
        /// @}

        /// Returns the chain of the calling thread.
        static Chain& ofThread() noexcept;

    private:
        ErrorObject* place(unsigned int index) noexcept;
        bool map() noexcept;

        Action m_action;
        void* m_owner = nullptr;
        ErrorObject* m_head = nullptr;
        ErrorObject* m_more = nullptr; // The mapped reports, which follow those in `m_first`.
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
