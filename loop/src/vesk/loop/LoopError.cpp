#include <vesk/loop/LoopError.h>

#include <tarncommon/Export.h>

namespace vesk::loop {

namespace {

constexpr std::ErrorID ROWS[] = {
    {LoopErrorId::NOT_CREATED, "The system refused the descriptors of the loop", 0},
    {LoopErrorId::WAIT_FAILED, "The loop could not wait", 0},
    {LoopErrorId::RUNNING, "The loop runs already", 0},
    {LoopErrorId::FD_REFUSED, "Descriptor %d cannot be watched", 1},
    {LoopErrorId::FD_WATCHED, "This direction of descriptor %d is watched already", 1},
    {LoopErrorId::SIGNAL_REFUSED, "Signal %d cannot be watched", 1},
    {LoopErrorId::CHILD_REFUSED, "Process %d is not a child that can be watched", 1},
    {LoopErrorId::NOT_STARTED, "Program \"%s\" cannot be started: %s", 2},
    {LoopErrorId::ADDRESS_REFUSED, "Address \"%s\" cannot be used: %s", 2},
    {LoopErrorId::CONNECTION_FAILED, "The connection has failed", 0},
    {LoopErrorId::NOT_SENT, "The datagram was not sent to \"%s\"", 1},
    {LoopErrorId::PATH_REFUSED, "Path \"%s\" cannot be watched", 1},
    {LoopErrorId::NOT_NOTIFIED, "The service manager was not notified", 0},
    {LoopErrorId::NO_WATCHDOG, "The thread of a watchdog was refused", 0},
    {LoopErrorId::CLOCK_REFUSED, "The real-time clock cannot be watched", 0},
    {LoopErrorId::INTERFACES_REFUSED, "The network interfaces cannot be watched", 0},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const LoopError(ROWS, sizeof ROWS / sizeof ROWS[0]);

} // namespace vesk::loop
