#pragma once

#include <vesk/Condition.h>
#include <vesk/Export.h>
#include <vesk/Message.h>
#include <vesk/Mutex.h>
#include <vesk/common/MessageBatch.h>

#include <atomic>
#include <deque>
#include <list>

namespace vesk {

/// A small event loop that takes messages from its sources, carries them out, and sleeps while there are
/// none. It has no thread of its own: `run` is the body of a thread.
///
///     vesk::Dispatcher::VanillaNotifier notifier;
///     vesk::Dispatcher::VanillaQueue queue(notifier);
///     vesk::Dispatcher dispatcher(notifier);
///     dispatcher.add_source(queue);
///     vesk::Thread thread(vesk::Dispatcher::main, &dispatcher);
///     thread.start();
///     queue.push(new vesk::Message::Callback(reload, &config)); // From any thread.
///     ...
///     dispatcher.stop();
///     thread.join();
///
/// Sources have strict priority, in the order of their registration. After each message the search starts
/// again with the first source, so a source that always has a message starves all sources behind it.
///
/// Sources, handlers and the notifier are not owned, and must outlive the dispatcher. `stop`, `dispatch`,
/// `add_handler` and `remove_handler` may be called from any thread, `run` by one thread at a time. No
/// operation reports errors: an internal lock that fails goes to `std::GlobalErrorHandler::doAbort` with
/// "error locking" or "error unlocking".
class VESK_API Dispatcher {
public:
    class Notifier;
    class Queue;
    class VanillaNotifier;
    class VanillaQueue;

    /// @param loop_notifier  what `run` sleeps on; must be signaled after a source was filled
    explicit Dispatcher(Notifier& loop_notifier) : notifier(&loop_notifier) {}

    /// Leaves sources, handlers, the notifier and all messages untouched.
    ~Dispatcher() = default;

    /// Adds a source behind the existing ones. `run` walks the sources without a lock, so all of them must be
    /// added before the loop's thread starts. A source that is added twice is asked twice. Throws
    /// `std::bad_alloc` without memory.
    void add_source(Message::Source& source);

    /// Adds a handler behind the existing ones. Must not be called from within a handler or
    /// `Message::get_handled_by`: these run with the lock that this operation takes, and locking it twice is
    /// fatal. A handler that is added twice sees each message twice. Blocks while handlers run. Throws
    /// `std::bad_alloc` without memory.
    void add_handler(Message::Handler& handler);

    /// Removes a handler, as often as it was added; ignores a handler that is not registered. After the
    /// return no message is being shown to the handler and none will be, so the object may be destroyed.
    /// Blocks while handlers run. Must not be called from within a handler or `Message::get_handled_by`.
    void remove_handler(Message::Handler& handler);

    /// Delivers messages until `stop`. Blocks in the notifier while every source is empty; without a source
    /// it does nothing else. Exceptions of messages, handlers and sources pass through, and `run` may be
    /// called again.
    ///
    /// A `stop` that precedes `run` ends the next `run`, which returns without asking a source. Messages that
    /// remain when it returns stay in their sources; only a later `run` delivers them.
    void run();

    /// Makes `run` return after the current delivery. May be called from any thread and from within a
    /// message. Several calls before `run` returns count as one. Does not wait for `run`. Must not be called
    /// from a signal handler, unless the notifier's `signal` may be.
    void stop();

    /// Delivers a message in the calling thread. Shows it to each handler in the order of registration, with
    /// the lock held, then invokes it without a lock and dismisses it. May be called apart from `run` and by
    /// several threads at once: handlers then see one message at a time, but `invoke` runs concurrently.
    /// @param message  Not null. Owned by the dispatcher until it is dismissed. After an exception of a
    ///                 handler or of `invoke`, which passes through, the caller owns it again.
    void dispatch(Message* message);

    /// Returns true, except between `stop` and the end of the `run` that it ends.
    bool isRunning() const noexcept { return running.load(std::memory_order_relaxed); }

    /// Calls `run` on its argument. The entry function of a loop's thread.
    /// @param dispatcher  a `Dispatcher*`
    static void main(void* dispatcher);

private:
    Message* pop();
    TARN_HIDDEN void show(Message* message);

    Mutex mutex{TARN_LOCK_NAME(DISPATCHER)};
    // Relaxed: threads only poll the flag. The notifier provides the memory ordering that is needed.
    std::atomic<bool> running{true};
    // 0 only if there are no handlers: `dispatch` then needs no lock. In what was padding before: the size
    // of the class must not change. Code that was compiled without this member leaves it undefined at first,
    // which costs a lock, but is never wrong: `add_handler` sets it.
    std::atomic<unsigned char> has_handlers{0};
    Notifier* notifier;
    std::list<Message::Source*> sources;
    std::list<Message::Handler*> handlers TARN_GUARDED_BY(mutex);
};

/// The object on which a dispatcher sleeps.
class VESK_API Dispatcher::Notifier {
public:
    virtual ~Notifier() = default;

    /// Blocks until `signal` has been called since the last return of `wait`.
    virtual void wait() = 0;

    /// Wakes `wait`, or makes the next `wait` return immediately. May be called from any thread.
    virtual void signal() = 0;
};

/// A queue of messages: source and sink in one object.
class VESK_API Dispatcher::Queue : public Message::Source, public Message::Sink {};

/// The standard queue for messages from ordinary threads: first in, first out, without a limit.
///
/// It owns the messages in it, but only transfers them: those that remain when it is destroyed are neither
/// invoked nor dismissed nor deleted. The queue and its notifier must exist until each `push` has returned. A
/// message can be carried out before that, so a message that ends the program does not prove it: join the thread. All operations may be called from any thread, but not from a signal
/// handler, since they take a lock for a few instructions. Of a backlog, `pop_nonblock` takes the lock only for
/// every 65th message. A lock that fails goes to `std::GlobalErrorHandler::doAbort` with "error locking" or
/// "error unlocking".
class VESK_API Dispatcher::VanillaQueue : public Dispatcher::Queue {
public:
    /// @param queue_notifier  the notifier of the dispatcher that has this queue as a source; not owned
    explicit VanillaQueue(Notifier& queue_notifier) : notifier(&queue_notifier) {}
    ~VanillaQueue() override;

    /// Returns the oldest message, or null if the queue is empty. Does not block.
    Message* pop_nonblock() override;

    /// Appends a message and signals the notifier. Throws `std::bad_alloc` without memory; the caller then
    /// still owns the message.
    /// @param message  not null, which `pop_nonblock` could not distinguish from an empty queue
    void push(Message* message) override;

private:
    TARN_HIDDEN Message* popUnderLock();

    Notifier* notifier;
    Mutex mutex{TARN_LOCK_NAME(MESSAGE_QUEUE)};
    // The messages behind those of the batch.
    std::deque<Message*> messages TARN_GUARDED_BY(mutex);
    detail::MessageBatch batch;
};

/// The standard notifier for signals from ordinary threads: an event with two states. Any number of signals
/// before a wait count as one wake-up, which exactly one waiter receives.
///
/// `signal` may be called from any thread, but not from a signal handler, since it takes a lock. A lock that
/// fails goes to `std::GlobalErrorHandler::doAbort` with "error locking" or "error unlocking".
class VESK_API Dispatcher::VanillaNotifier : public Dispatcher::Notifier {
public:
    VanillaNotifier() = default;
    ~VanillaNotifier() override;

    /// Blocks until a signal comes; returns immediately if a signal is pending. Looks for a signal for up to ten
    /// microseconds before it sleeps, unless that was in vain the last times. `Condition` reports a wait
    /// that fails (`SysErrorId::SPOILED_INTEGRITY`, left pending), and the waiting continues.
    void wait() override;

    /// Wakes one waiter. `Condition` reports a failure (`SysErrorId::SPOILED_INTEGRITY` or
    /// `SysErrorId::UNCLASSIFIED`, left pending); the next `wait` takes the signal all the same.
    void signal() override;

private:
    friend class VanillaQueue;

    TARN_HIDDEN void lookForSignal() noexcept;
    TARN_HIDDEN void signalAfterLock();
    TARN_HIDDEN void wake();

    Mutex mutex{TARN_LOCK_NAME(NOTIFIER)};
    Condition condition;
    enum State : unsigned char {
        NONE,
        PENDING, // Signaled, but waking a waiter has failed.
        WOKEN,   // Signaled, and a waiter is woken if there is one.
    };
    // Leaves NONE only with the mutex held.
    std::atomic<unsigned char> state{NONE};
    std::atomic<unsigned char> untried_waits{
        0}; // The next waits that sleep without looking for a signal before.
    std::atomic<unsigned char> vain_looks{0}; // The value of `untried_waits` after the last vain look.
};

} // namespace vesk
