#pragma once

#include <tarncommon/Export.h>

#include <string>

namespace std {

/// Access to the calling thread's reports as a whole, through the one object `tarn_error`.
class TARN_API ErrorApi {
public:
    /// Returns the pending chain as one text or, if none is pending, the chain that was acknowledged last, as
    /// long as no report has followed. Each report is one line, from the highest level to the root cause,
    /// without a newline at the end. The text is empty if there is no such chain.
    ///
    ///     framework/src/vesk/posix/Thread:212: Thread start failed: ...
    ///       caused by framework/src/vesk/posix/Mutex:31: Mutex lock failed: ...
    ///
    /// Throws `std::bad_alloc` if the result cannot be allocated. Callable from any thread; takes no lock.
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

/// The error interface of the process. Usable at any time, from any initializer.
extern TARN_API std::ProcessErrorApi const tarn_error;
