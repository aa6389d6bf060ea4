#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorType.h>

namespace std {

/// What both directions of a binary stream share: it is the one virtual base of `IBinInputStream` and
/// `IBinOutputStream`, however many of them a class derives from.
///
/// A stream object belongs to one thread at a time.
class TARN_API IBinStreamBase {
public:
    /// Failures of a stream. Mostly reported on top of the report that tells the cause. No row takes an argument.
    ///
    /// | id | meaning |
    /// |---|---|
    /// | 0 | the stream cannot be used: the object is invalid |
    /// | 1 | the transfer failed, the object may be in order |
    /// | 2 | end of the stream |
    /// | 3 | the stream does not support the operation |
    /// | 4 | a failure that nobody classified |
    static ErrorType const StreamError;

    virtual ~IBinStreamBase();

    IBinStreamBase(IBinStreamBase const&) = delete;
    IBinStreamBase& operator=(IBinStreamBase const&) = delete;

    /// Whether the stream can be used: it is open, and has the buffers that it was made with.
    virtual bool isValid() const = 0;

protected:
    IBinStreamBase() noexcept = default;

    /// Whether an operation waits until it is done. One flag for both directions.
    bool m_blocking = true;

    /// Whether `flush` passes bytes on, so that a sink that takes nothing now makes it fail. A write is only short then.
    bool m_flushing = false;
};

} // namespace std
