#include <tarncommon/error/CommonError.h>

#include <iterator>

namespace std {

namespace {

constexpr ErrorID ROWS[] = {
    {0, "Out of memory", 0},
    {1, "Contract broken by the caller: %s", 1},
    {2, "Internal failure", 0},
    {3, "Value cannot be handled: %s", 1},
    {4, "Operation on an open file failed: %s", 1},
    {5, "Argument is not usable: %s", 1},
    {6, "Not supported on this platform: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT ErrorType const CommonError(ROWS, size(ROWS));

} // namespace std
