#include <vesk/SpinLock.h>

#include <vesk/ShmSpinLock.h>
#include <vesk/SysError.h>

#include <iterator>

namespace vesk {

namespace {

constexpr std::ErrorID ROWS[] = {
    {0, "SpinLock creation failed: %s", 1},
    {1, "SpinLock lock failed: %s", 1},
    {2, "SpinLock unlock failed: %s", 1},
    {3, "SpinLock inconsistency detected: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const SpinLock::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT std::ErrorType const& ShmSpinLock::Error = SpinLock::Error;

} // namespace vesk
