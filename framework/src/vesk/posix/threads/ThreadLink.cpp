#include "ThreadLink.h"

#include <common/error/ErrorHelper.h>

#include <new>

namespace vesk::detail {

ThreadLink& ThreadLink::make() {
    return *std::allocateOrWait(
        [] { return new (std::nothrow) ThreadLink; }, THREAD_SOURCE, "Thread",
        "cannot allocate what thread and object share");
}

void ThreadLink::leaveThread() {
    {
        Lock const lock(m_lock, THREAD_SOURCE, "threadWrapper");
        m_gone = true;
    }
    release();
}

bool ThreadLink::claimEnd() {
    Lock const lock(m_lock, THREAD_SOURCE, "threadWrapper");
    if (m_end == End::OPEN) {
        m_end = End::BY_THREAD;
    }
    return m_end == End::BY_THREAD;
}

void ThreadLink::release() noexcept {
    if (m_sides.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

} // namespace vesk::detail
