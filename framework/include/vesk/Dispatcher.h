#pragma once

#include <vesk/Condition.h>
#include <vesk/Export.h>
#include <vesk/Message.h>
#include <vesk/Mutex.h>

#include <atomic>
#include <deque>
#include <list>

namespace vesk {

/// A small event loop: takes messages from its sources and carries them out, and sleeps while there are none. It brings
/// no thread of its own; `run` is the body of one.
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
/// Sources come in strict priority, in the order of their registration: after each message the search begins with the
/// first one again, so a source that always has a message starves all behind it.
///
/// Sources, handlers and the notifier are not owned, and must outlive the dispatcher. `stop`, `dispatch`, `add_handler`
/// and `remove_handler` may be called from any thread, `run` by one thread at a time. No operation reports errors: an
/// internal lock that fails goes to `std::GlobalErrorHandler::doAbort` with "error locking" or "error unlocking".
class VESK_API Dispatcher {
public:
    class Notifier;
    class Queue;
    class VanillaNotifier;
    class VanillaQueue;

    /// @param loop_notifier  what `run` sleeps on; whoever fills a source signals it
    explicit Dispatcher(Notifier& loop_notifier) : notifier(&loop_notifier) {}

    /// Leaves sources, handlers, the notifier and all messages alone.
    ~Dispatcher() = default;

    /// Adds a source behind those there are. `run` walks the sources without a lock: all of them are to be added before
    /// the loop's thread starts. A source that is added twice is asked twice. Throws `std::bad_alloc` without memory.
    void add_source(Message::Source& source);

    /// Adds a handler behind those there are, at any time but from within a handler or
    /// `Message::get_handled_by`: those run with the lock that this takes, and the second locking is fatal. A handler
    /// that is added twice sees each message twice. Waits for handlers at work. Throws `std::bad_alloc` without memory.
    void add_handler(Message::Handler& handler);

    /// Takes a handler out, as often as it was added; one that is not there is ignored. When it returns, no message is
    /// being shown to the handler, and none will be: the object may be destroyed. Waits for handlers at work; may be
    /// called when `add_handler` may.
    void remove_handler(Message::Handler& handler);

    /// Delivers messages until `stop`. Blocks in the notifier while every source is empty; without a source it does
    /// nothing else. Exceptions of messages, handlers and sources pass through, and `run` may be called again.
    ///
    /// A `stop` that came while nothing ran is taken by the next `run`, which returns without asking a source. Messages
    /// that are left when it returns stay in their sources, for a later `run` or for nobody.
    void run();

    /// Makes `run` return after the delivery that is under way, from any thread and also from within a message. Several
    /// calls before `run` returns count as one. Does not wait for `run`. Not for signal handlers, unless the notifier's
    /// `signal` is.
    void stop();

    /// Delivers one message in the calling thread: shows it to each handler in the order of registration, with the lock
    /// held, then invokes it without a lock and dismisses it. May be called apart from `run` and by several threads at
    /// once: handlers then see one message at a time, but work overlaps.
    /// @param message  not null. Owned by the dispatcher until it is dismissed; by the caller again after an exception
    ///                 of a handler or of `invoke`, which passes through
    void dispatch(Message* message);

    /// True, but false from `stop` to the end of the `run` that it ends.
    bool isRunning() const noexcept { return running.load(std::memory_order_relaxed); }

    /// The entry of a loop's thread: calls `run` on its argument.
    /// @param dispatcher  a `Dispatcher*`
    static void main(void* dispatcher);

private:
    Message* pop();

    Mutex mutex; // Guards the handlers only.
    // A flag that threads only look at; the notifier brings whatever order is needed.
    std::atomic<bool> running{true};
    Notifier* notifier;
    std::list<Message::Source*> sources;
    std::list<Message::Handler*> handlers;
};

/// What a dispatcher sleeps on.
class VESK_API Dispatcher::Notifier {
public:
    virtual ~Notifier() = default;

    /// Blocks until `signal` has been called since the last return of `wait`.
    virtual void wait() = 0;

    /// Wakes `wait`, or makes the next one return at once. Callable from any thread.
    virtual void signal() = 0;
};

/// Both ends of a queue of messages.
class VESK_API Dispatcher::Queue : public Message::Source, public Message::Sink {};

/// The ready-made queue for messages from ordinary threads: first in, first out, without a limit.
///
/// It owns the messages in it, but only passes them on: what is still in it when it is destroyed is neither invoked nor
/// dismissed nor deleted. All operations may be called from any thread, though not from a signal handler, since they
/// take a lock for a few instructions. A lock that fails goes to `std::GlobalErrorHandler::doAbort` with "error locking"
/// or "error unlocking".
class VESK_API Dispatcher::VanillaQueue : public Dispatcher::Queue {
public:
    /// @param queue_notifier  that of the dispatcher which has this queue as a source; not owned
    explicit VanillaQueue(Notifier& queue_notifier) : notifier(&queue_notifier) {}
    ~VanillaQueue() override;

    /// The message that has waited longest, null if the queue is empty. Does not block.
    Message* pop_nonblock() override;

    /// Puts a message in and signals the notifier. Throws `std::bad_alloc` without memory; the message is still the
    /// caller's then.
    /// @param message  not null, which `pop_nonblock` could not tell from an empty queue
    void push(Message* message) override;

private:
    Notifier* notifier;
    Mutex mutex;
    std::deque<Message*> messages;
};

/// The ready-made notifier for signals from ordinary threads: an event of two states. Any number of signals before a
/// wait are one wake-up, and of several waiters one gets it.
///
/// `signal` may be called from any thread, though not from a signal handler, since it takes a lock. A lock that fails
/// goes to `std::GlobalErrorHandler::doAbort` with "error locking" or "error unlocking".
class VESK_API Dispatcher::VanillaNotifier : public Dispatcher::Notifier {
public:
    VanillaNotifier() = default;
    ~VanillaNotifier() override;

    /// Returns at once if a signal is waiting, else with the next one. A wait that fails is reported by `Condition`
    /// (`SysErrorId::SPOILED_INTEGRITY`, left pending), and the waiting goes on.
    void wait() override;

    /// Wakes one waiter. A failure is reported by `Condition` (`SysErrorId::SPOILED_INTEGRITY` or 19, left pending); the next `wait` takes
    /// the signal all the same.
    void signal() override;

private:
    Mutex mutex;
    Condition condition;
    bool signalled = false;
    bool waiter_woken = false; // Whether the condition has passed the signal on.
};

} // namespace vesk
