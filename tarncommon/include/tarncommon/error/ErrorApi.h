#pragma once

#include <tarncommon/Export.h>

#include <string>

namespace std {

/// What the error machinery tells about the calling thread as a whole. Used through the one object `tarn_error`.
class TARN_API ErrorApi {
public:
    /// The pending chain as one text, or the chain that was acknowledged last, as long as no report followed: one line
    /// a report, from the highest level to the root cause, without a newline at the end. Empty if there is none.
    ///
    ///     framework/src/vesk/posix/Thread:212: Thread start failed: ...
    ///       caused by framework/src/vesk/posix/Mutex:31: Mutex lock failed: ...
    ///
    /// Allocates the result, and throws `std::bad_alloc` if it cannot. Callable from any thread; takes no lock.
    std::string getReasonList() const;

protected:
    constexpr ErrorApi() noexcept = default;
    ~ErrorApi() = default;
};

/// The class of `tarn_error`.
class TARN_API ProcessErrorApi : public ErrorApi {
public:
    constexpr ProcessErrorApi() noexcept = default;
};

} // namespace std

/// The error interface of the process. Usable at any time, from any initialiser.
extern TARN_API std::ProcessErrorApi const tarn_error;
