#include <vesk/RWLock.h>

#include <vesk/ShmRWLock.h>
#include <vesk/SysError.h>

#include <iterator>

namespace vesk {

namespace {

constexpr std::ErrorID ROWS[] = {
    {0, "Failed to create rwlock: %s", 1},
    {1, "Deadlock has been detected: %s", 1},
    {2, "Maximum lock count has been reached: %s", 1},
    {3, "Locking for read failed: %s", 1},
    {4, "Locking for write failed: %s", 1},
    {5, "Unlocking failed: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const RWLock::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT std::ErrorType const& ShmRWLock::Error = RWLock::Error;

} // namespace vesk
