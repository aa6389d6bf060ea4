#include <vesk/Thread.h>

#include <iomanip>
#include <ostream>
#include <type_traits>

namespace vesk {

// Mirrors the system's own type, which has 32 bits on the target and 64 on a 64-bit machine: no value is
// truncated.
static_assert(std::is_unsigned_v<pthread_t> && sizeof(Thread::ThreadId) == sizeof(pthread_t));

TARN_CONSTANT_INIT Thread::ThreadId const Thread::ThreadId::INVALID_THREAD_ID;

std::ostream& operator<<(std::ostream& out, Thread::ThreadId const& id) {
    std::ios_base::fmtflags const flags = out.flags(std::ios_base::hex | std::ios_base::right);
    out.width(0);
    // Required by callers: the fill character stays "0".
    out << "0x" << std::setw(8) << std::setfill('0') << id.getValue();
    out.flags(flags);
    return out;
}

} // namespace vesk
