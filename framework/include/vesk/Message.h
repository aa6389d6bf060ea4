#pragma once

#include <vesk/Export.h>

#include <cstddef>
#include <new>

namespace vesk {

/// A unit of work that one thread creates and another thread, usually that of a `Dispatcher`, carries out.
///
///     class Reload : public vesk::Message {
///         void invoke() override { ... }
///     };
///     queue.push(new Reload);  // A vesk::Dispatcher::VanillaQueue
///
/// A producer creates it. It is then pushed to a `Sink` or kept by a `Source`, shown to handlers, invoked and
/// dismissed. `dismiss` destroys it. A message that must not be deleted, such as a member of another object,
/// overrides `dismiss`. The class takes no lock; `Dispatcher` documents which thread makes which call.
class VESK_API Message {
public:
    class Callback;
    class Handler;
    class Sink;
    class Source;

    virtual ~Message();

    /// Shows the message to a handler. Called for each handler of a dispatcher before `invoke`, with the
    /// dispatcher's lock held, so it must neither block nor register or remove a handler. The base does
    /// nothing: a message that handlers must see calls `handler->handle(*this)`, or an operation of a handler
    /// class that it knows.
    virtual void get_handled_by(Handler* handler);

    /// Does the work. Called without a lock. The base does nothing. An exception passes through the
    /// dispatcher, which then does not dismiss the message.
    virtual void invoke();

    /// Deletes the message through its destructor.
    ///
    /// The qualified call `message->Message::dismiss()` does nothing on a null pointer. The plain call is
    /// virtual and therefore needs an object.
    virtual void dismiss();

    /// Handles that the message is discarded without having been invoked. Meant for code that keeps messages;
    /// nothing in this library calls it. The base does nothing.
    /// @return 0
    virtual int abort();
};

/// A message that calls a function.
///
///     queue.push(new vesk::Message::Callback(reload, &config));
///
/// Each thread keeps up to 64 blocks of deleted objects for later ones, and all threads together another 1,024. A
/// derived class of another size does not take part, nor does a program that is compiled with the address
/// sanitizer, which then sees each use after the deletion.
class VESK_API Message::Callback : public Message {
public:
    /// @param function  called by `invoke` with `argument`; not null
    Callback(void (*function)(void*), void* argument) noexcept : callback(function), data(argument) {}

    /// Calls the function, in the thread that invokes the message.
    void invoke() override;

    /// Returns a kept block, otherwise one of the global function. Throws `std::bad_alloc` without memory.
    static void* operator new(std::size_t size);
    /// Returns a kept block, otherwise one of the global function, null without memory.
    static void* operator new(std::size_t size, std::nothrow_t const& nothrow) noexcept;
    /// Calls the global function, for a derived class with a stricter alignment.
    static void* operator new(std::size_t size, std::align_val_t alignment);
    /// Returns `place`.
    static void* operator new(std::size_t /*size*/, void* place) noexcept { return place; }

    /// Keeps the block, or frees it if enough are kept.
    static void operator delete(void* block, std::size_t size) noexcept;
    /// Frees the block, if a constructor throws.
    static void operator delete(void* block, std::nothrow_t const& nothrow) noexcept;
    /// Frees the block of a derived class with a stricter alignment.
    static void operator delete(void* block, std::size_t size, std::align_val_t alignment) noexcept;
    /// Does nothing, if a constructor throws.
    static void operator delete(void* /*block*/, void* /*place*/) noexcept {}

private:
    void (*callback)(void*);
    void* data;
};

/// A source from which a dispatcher takes messages.
class VESK_API Message::Source {
public:
    virtual ~Source() = default;

    /// Returns the next message, or null if there is none now. Must not block. The caller owns the message
    /// from then on.
    virtual Message* pop_nonblock() = 0;
};

/// A destination for messages.
class VESK_API Message::Sink {
public:
    virtual ~Sink() = default;

    /// Takes ownership of the message.
    /// @param message  not null
    virtual void push(Message* message) = 0;
};

/// An observer of a dispatcher's messages before they are invoked; see `Message::get_handled_by`.
class VESK_API Message::Handler {
public:
    virtual ~Handler() = default;

    /// Looks at a message. Cannot keep the message from being invoked, and does not own it. Called with the
    /// dispatcher's lock held, for one message at a time; must neither block nor register or remove a
    /// handler.
    virtual void handle(Message& message) = 0;
};

} // namespace vesk
