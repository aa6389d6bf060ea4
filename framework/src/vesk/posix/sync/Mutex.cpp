#include <vesk/Mutex.h>

#include "vesk/common/Report.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/ShmMutex.h>
#include <vesk/SysError.h>

#include <iterator>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Mutex";

constexpr std::ErrorID ROWS[] = {
    {0, "Mutex creation failed: %s", 1},
    {1, "Mutex lock failed: %s", 1},
    {2, "Mutex unlock failed: %s", 1},
    {3, "Mutex inconsistency detected: %s", 1},
    {4, "Mutex owner ended while holding it: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Mutex::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT std::ErrorType const& ShmMutex::Error = Mutex::Error;

bool Mutex::reportLock(int result) noexcept {
    ErrorId const id = result == threadsafe::MutexBase::ERROR_INCONSISTENCY ? INCONSISTENT : LOCK_FAILED;
    report(SOURCE, Chain::NEW, id, SystemErrorText().get());
    return true;
}

bool Mutex::reportUnlock(int result) noexcept {
    ErrorId const id = result == threadsafe::MutexBase::ERROR_INCONSISTENCY ? INCONSISTENT : UNLOCK_FAILED;
    report(SOURCE, Chain::NEW, id, SystemErrorText().get());
    return true;
}

} // namespace vesk
