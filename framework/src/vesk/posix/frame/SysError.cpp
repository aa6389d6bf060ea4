#include <vesk/SysError.h>

#include <iterator>

namespace vesk {

namespace {

constexpr std::ErrorID ROWS[] = {
    {0, "System ressources exhausted: %s", 1},
    {1, "System is out of memory: %s", 1},
    {2, "Invalid path specified: %s", 1},
    {3, "Given path is not a directory: %s", 1},
    // Callers pass the path and its length. They do not know the limit, so the third conversion has no
    // argument.
    {4, "Given path exceeds system maximum: %s (%d chars encountered, only max %d chars allowed)", 2},
    {5, "System call has been interrupted: %s", 1},
    {6, "Function not implemented: %s", 1},
    {7, "Permission denied: %s", 1},
    {8, "Supplied parameter is invalid: %s", 1},
    {9, "Supplied parameter has invalid address: %s", 1},
    {10, "Spoiled integrity: %s", 1},
    {11, "Input/Output error: %s", 1},
    {12, "A file already exists: %s", 1},
    {13, "The operation cannot be performed, because the object is still in use: %s", 1},
    {14, "The directory is not empty: %s", 1},
    {15, "Not enough space left on file system: %s", 1},
    {16, "Given device is not existing, not ready or does not support the operation: %s", 1},
    {17, "Querying the requested system information failed: %s", 1},
    // Callers pass an argument as for the other rows, but the text does not show it.
    {18, "The given process does not exist", 1},
    {19, "Unclassified error occured: %s", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const SysError(ROWS, std::size(ROWS));

} // namespace vesk
