#pragma once

#include <vesk/Export.h>

namespace vesk {

/// A piece of work that one thread makes and another one, as a rule that of a `Dispatcher`, carries out.
///
///     class Reload : public vesk::Message {
///         void invoke() override { ... }
///     };
///     queue.push(new Reload);  // A vesk::Dispatcher::VanillaQueue
///
/// It is created by a producer, handed to a `Sink` or kept by a `Source`, shown to handlers, invoked and dismissed:
/// `dismiss` is the end of its life. A message that must not be deleted, such as a member of another object, overrides
/// `dismiss`. The class takes no lock; which thread calls what is told at `Dispatcher`.
class VESK_API Message {
public:
    class Callback;
    class Handler;
    class Sink;
    class Source;

    virtual ~Message();

    /// Called for each handler of a dispatcher before `invoke`, with the dispatcher's lock held; so it must neither
    /// block nor register or remove a handler. The base does nothing: a message that wants handlers to see it calls
    /// `handler->handle(*this)`, or an operation of a handler class that it knows.
    virtual void get_handled_by(Handler* handler);

    /// The work. Called without a lock. The base does nothing. An exception passes through the dispatcher, which then
    /// does not dismiss the message.
    virtual void invoke();

    /// Ends the message's life: deletes it through its destructor.
    ///
    /// The qualified call `message->Message::dismiss()` does nothing on a null pointer. The plain call finds its
    /// function through the object, as every virtual one does, and so needs an object.
    virtual void dismiss();

    /// For those who keep messages and give one up that was never invoked. The base does nothing; nothing in this
    /// library calls it.
    /// @return 0
    virtual int abort();
};

/// A message that calls a function.
///
///     queue.push(new vesk::Message::Callback(reload, &config));
class VESK_API Message::Callback : public Message {
public:
    /// @param function  what `invoke` calls, with `argument`; not null
    Callback(void (*function)(void*), void* argument) noexcept : callback(function), data(argument) {}

    /// Calls the function, in the thread that invokes the message.
    void invoke() override;

private:
    void (*callback)(void*);
    void* data;
};

/// Where a dispatcher gets messages from.
class VESK_API Message::Source {
public:
    virtual ~Source() = default;

    /// The next message, null if there is none now. Must not block. The caller owns the message from then on.
    virtual Message* pop_nonblock() = 0;
};

/// Where messages are handed in.
class VESK_API Message::Sink {
public:
    virtual ~Sink() = default;

    /// Takes the message over.
    /// @param message  not null
    virtual void push(Message* message) = 0;
};

/// What a dispatcher shows each message to before its work runs; see `Message::get_handled_by`.
class VESK_API Message::Handler {
public:
    virtual ~Handler() = default;

    /// Looks at a message. It cannot keep the message from being invoked, and does not own it. Called with the
    /// dispatcher's lock held, one message at a time; must neither block nor register or remove a handler.
    virtual void handle(Message& message) = 0;
};

} // namespace vesk
