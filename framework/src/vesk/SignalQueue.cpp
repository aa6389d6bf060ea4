#include <vesk/SignalQueue.h>

namespace vesk {

SignalQueue::~SignalQueue() = default;

SignalQueue::Notifier::~Notifier() = default;

} // namespace vesk
