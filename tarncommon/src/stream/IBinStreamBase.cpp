#include <tarncommon/stream/IBinStreamBase.h>

#include <iterator>

namespace std {

namespace {

constexpr ErrorID ROWS[] = {
    {0, "Stream cannot be used", 0},
    {1, "Stream transfer failed", 0},
    {2, "End of stream", 0},
    {3, "Operation is not supported by the stream", 0},
    {4, "Unclassified stream failure", 0},
};

} // namespace

TARN_CONSTANT_INIT ErrorType const IBinStreamBase::StreamError(ROWS, size(ROWS));

IBinStreamBase::~IBinStreamBase() = default;

} // namespace std
