#pragma once

#include <vesk/Export.h>
#include <vesk/Message.h>

namespace vesk {

/// The number of signal numbers, which range from 0 to 64.
constexpr int TARN_NSIGNALS = 65;

/// The scope of the messages that a queue of signals returns; see `SignalQueue`.
class VESK_API SignalQueueBase {
public:
    class Message;
};

/// A single occurrence of a signal that waits for its callback.
class VESK_API SignalQueueBase::Message : public vesk::Message {
public:
    /// Creates a message for an occurrence.
    /// @param number    the signal
    /// @param function  called by `invoke` with the signal and `argument`; not null
    Message(int number, void (*function)(int, void*), void* argument) noexcept
        : signal(number), callback(function), data(argument) {}

    /// Calls the function, in the thread that invokes the message.
    void invoke() override;

private:
    int signal;
    void (*callback)(int, void*);
    void* data;
};

} // namespace vesk
