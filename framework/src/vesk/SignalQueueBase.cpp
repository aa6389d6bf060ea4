#include <vesk/SignalQueueBase.h>

namespace vesk {

void SignalQueueBase::Message::invoke() {
    callback(signal, data);
}

} // namespace vesk
