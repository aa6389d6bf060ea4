#pragma once

#include <vesk/Export.h>
#include <vesk/Message.h>

namespace vesk {

/// The number of signal numbers: they go from 0 to 64.
constexpr int TARN_NSIGNALS = 65;

/// The scope of the messages that a queue of signals gives out; see `SignalQueue`.
class VESK_API SignalQueueBase {
public:
    class Message;
};

/// One occurrence of a signal, on its way to the callback.
class VESK_API SignalQueueBase::Message : public vesk::Message {
public:
    /// @param number    the signal
    /// @param function  what `invoke` calls with the signal and `argument`; not null
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
