#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <utility>

namespace vesk {

/// The two ends of an anonymous pipe. It neither reads nor writes: files take the ends over.
///
///     vesk::Pipe pipe;
///     vesk::StreamBinFileR reader;
///     vesk::StreamBinFileW writer;
///     if (reader.open(pipe) || writer.open(pipe)) { ... }
///
/// Both ends block, and stay open across `fork` and `exec`: after a `fork` each process closes the end that it does not
/// use. Who reads sees the end of the stream only when every write end is closed.
///
/// An end that was closed or taken over stays so. No lock: closing an end that another thread uses is for the caller to
/// prevent.
class VESK_API Pipe : private tarnbase::NonCopyable {
public:
    /// Makes the pipe (`pipe`). On failure both ends are -1, and pending is `SysErrorId::RESOURCES_EXHAUSTED` without descriptors, 1 without
    /// space, 6 if the system has no pipes, else 19.
    Pipe();

    /// Closes what is still open. A failure shows as a warning only.
    ~Pipe();

    /// Closes the read end (`close`, not repeated); who writes then gets `EPIPE`. The end counts as closed whatever the
    /// system says. Without an open end it does nothing, with success.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`
    bool closeReadEnd();

    /// The same for the write end: who reads then sees the end of the stream.
    bool closeWriteEnd();

    /// The descriptor of the read end, -1 if there is none. It stays this object's.
    int getReadEnd() const noexcept { return read_end; }
    /// The descriptor of the write end, -1 if there is none. It stays this object's.
    int getWriteEnd() const noexcept { return write_end; }

    /// The same, but from now on the descriptor is the caller's to close.
    int takeReadEnd() noexcept { return std::exchange(read_end, -1); }
    /// The same, but from now on the descriptor is the caller's to close.
    int takeWriteEnd() noexcept { return std::exchange(write_end, -1); }

private:
    int read_end = -1;
    int write_end = -1;
};

} // namespace vesk
