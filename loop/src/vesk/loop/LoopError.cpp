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
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const LoopError(ROWS, sizeof ROWS / sizeof ROWS[0]);

} // namespace vesk::loop
