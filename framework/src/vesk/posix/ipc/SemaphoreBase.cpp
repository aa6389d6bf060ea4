#include <vesk/SemaphoreBase.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/WallDeadline.h"

#include <vesk/SysError.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SemaphoreBase";

constexpr ErrnoRow CLOSE_ERRORS[] = {
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow TAKE_ERRORS[] = {
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow TRY_TAKE_ERRORS[] = {
    {{EAGAIN}, NONE, NONE, Outcome::BUSY},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow CLOCK_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow TIMED_TAKE_ERRORS[] = {
    {{ETIMEDOUT}, NONE, NONE, Outcome::BUSY},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow RELEASE_ERRORS[] = {
    {{EOVERFLOW}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

void reportMisuse(Place place, char const* text) noexcept {
    report(place, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, text);
}

// The prefixes differ, and one is misspelled. Both must stay: log parsers depend on them.
constexpr char const* CLOSED = "__FUNCTION__ was called on invalid semaphore";
constexpr char const* TIMED_ON_CLOSED = "__FUNTION__ was called on invalid semaphore";

} // namespace

SemaphoreBase::~SemaphoreBase() {
    KeptErrorChain const kept_chain;
    if (SemaphoreBase::close()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~SemaphoreBase", "error closing semaphore!");
        std::ErrorStorage::ack();
    }
}

bool SemaphoreBase::close() {
    if (!isValid()) {
        return false;
    }
    int const result = sem_close(getSemaphore());
    setSemaphore(nullptr);
    if (result != 0) {
        classify(SOURCE, CLOSE_ERRORS, errno, nullptr, Chain::UNKNOWN);
        return true;
    }
    return false;
}

/// Repeats a waiting call until no signal interrupts it. Returns true on failure. Returns false without
/// having taken anything if the semaphore was closed meanwhile. Not `retryOnEintr`, for that reason: the
/// semaphore is read again before each call.
template <typename Wait>
bool SemaphoreBase::wait(Wait call) const {
    while (sem_t* const opened = getSemaphore()) {
        if (call(opened) == 0) {
            return false;
        }
        if (errno != EINTR) {
            return true;
        }
    }
    return false;
}

bool SemaphoreBase::handleTakeError(sem_t const* opened) const {
    if (opened == nullptr) {
        reportMisuse(SOURCE, CLOSED);
        return true;
    }
    if (errno != EINTR || wait([](sem_t* still_opened) { return sem_wait(still_opened); })) {
        classify(SOURCE, TAKE_ERRORS, errno);
        return true;
    }
    return false;
}

signed char SemaphoreBase::tryTake() const {
    if (!isValid()) {
        reportMisuse(SOURCE, CLOSED);
        return -1;
    }
    if (wait([](sem_t* opened) { return sem_trywait(opened); })) {
        return toResult(classify(SOURCE, TRY_TAKE_ERRORS, errno));
    }
    return 0;
}

signed char SemaphoreBase::tryTakeTimeout(long long const& ms) const {
    if (!isValid()) {
        reportMisuse(SOURCE, TIMED_ON_CLOSED);
        return -1;
    }
    WallDeadline const deadline(ms);
    if (!deadline.isValid()) {
        return toResult(classify(SOURCE, CLOCK_ERRORS, errno));
    }
    if (wait([&](sem_t* opened) { return sem_timedwait(opened, deadline.get()); })) {
        return toResult(classify(SOURCE, TIMED_TAKE_ERRORS, errno));
    }
    return 0;
}

bool SemaphoreBase::handleReleaseError(sem_t const* opened) const {
    if (opened == nullptr) {
        reportMisuse(SOURCE, CLOSED);
    } else {
        classify(SOURCE, RELEASE_ERRORS, errno);
    }
    return true;
}

} // namespace vesk
