#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorType.h>

namespace std {

/// The state that both directions of a binary stream share: the single virtual base of `IBinInputStream` and
/// `IBinOutputStream`, however many of them a class derives from.
///
/// A stream object must be used by one thread at a time.
class TARN_API IBinStreamBase {
public:
    /// Failures of a stream. Usually reported on top of the report of the cause. No row takes an argument.
    static ErrorType const StreamError;

    /// The reports of `StreamError`.
    enum StreamErrorId : int {
        UNUSABLE = 0,        ///< The stream cannot be used: the object is invalid.
        TRANSFER_FAILED = 1, ///< The transfer failed; the object may be valid.
        END_OF_STREAM = 2,   ///< The end of the stream was reached.
        NOT_SUPPORTED = 3,   ///< The stream does not support the operation.
        UNCLASSIFIED = 4,    ///< An unclassified failure.
    };

    /// Returns the family of these ids.
    friend constexpr ErrorType const& familyOf(StreamErrorId /*unused*/) noexcept { return StreamError; }

    virtual ~IBinStreamBase();

    IBinStreamBase(IBinStreamBase const&) = delete;
    IBinStreamBase& operator=(IBinStreamBase const&) = delete;

    /// Returns whether the stream can be used: it is open, and has the buffers that it was created with.
    virtual bool isValid() const = 0;

protected:
    IBinStreamBase() noexcept = default;

    /// Whether an operation waits until it is done. One flag for both directions.
    bool m_blocking = true;

    /// Whether `flush` is passing bytes on. In non-blocking mode, a sink that accepts nothing then makes
    /// `flush` fail, while a `write` is only short.
    bool m_flushing = false;
};

} // namespace std
