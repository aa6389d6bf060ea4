#include <vesk/SpinLockOps.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SpinLock.h>
#include <vesk/SysError.h>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(SpinLock::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::SPIN_LOCK;
}

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SpinLockOps";

constexpr ErrnoRow INIT_ERRORS[] = {
    {OTHERS, SpinLock::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow DESTROY_ERRORS[] = {
    {{EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

// A failed lock reports `UNLOCK_FAILED` and a failed unlock reports `LOCK_FAILED`. Required by callers: they
// distinguish the two failures by these ids, although the names suggest the opposite.

constexpr ErrnoRow LOCK_ERRORS[] = {
    {{EPERM}, SpinLock::ErrorId::INCONSISTENT},
    {OTHERS, SpinLock::ErrorId::UNLOCK_FAILED},
};

constexpr ErrnoRow TRY_LOCK_ERRORS[] = {
    {{EBUSY}, NONE, NONE, Outcome::BUSY},
    {{EDEADLK}, SpinLock::ErrorId::INCONSISTENT},
    {OTHERS, SpinLock::ErrorId::LOCK_FAILED},
};

constexpr ErrnoRow UNLOCK_ERRORS[] = {
    {{EDEADLK}, SpinLock::ErrorId::INCONSISTENT},
    {OTHERS, SpinLock::ErrorId::LOCK_FAILED},
};

} // namespace

bool SpinLockOps::handleInitError(int error) {
    classifyResult(SOURCE, INIT_ERRORS, error);
    return true;
}

bool SpinLockOps::handleDestroyError(int error) {
    classifyResult(SOURCE, DESTROY_ERRORS, error);
    return true;
}

bool SpinLockOps::handleLockError(int error) {
    classifyResult(SOURCE, LOCK_ERRORS, error);
    return true;
}

signed char SpinLockOps::handleTryLockError(int error) {
    return toResult(classifyResult(SOURCE, TRY_LOCK_ERRORS, error));
}

bool SpinLockOps::handleUnlockError(int error) {
    classifyResult(SOURCE, UNLOCK_ERRORS, error);
    return true;
}

} // namespace vesk
