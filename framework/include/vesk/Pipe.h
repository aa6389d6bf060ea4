#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <utility>

namespace vesk {

/// The two ends of an anonymous pipe. It neither reads nor writes: file objects take ownership of the ends.
///
///     vesk::Pipe pipe;
///     vesk::StreamBinFileR reader;
///     vesk::StreamBinFileW writer;
///     if (reader.open(pipe) || writer.open(pipe)) { ... }
///
/// Both ends are in blocking mode and stay open across `fork` and `exec`: after a `fork`, each process must
/// close the end that it does not use. A reader sees the end of the stream only when every write end is
/// closed.
///
/// An end that was closed or taken cannot be restored. The object has no lock: the caller must not close an
/// end while another thread uses it.
class VESK_API Pipe : private tarnbase::NonCopyable {
public:
    /// Creates the pipe (`pipe`). On failure both ends are -1, and pending is
    /// `SysErrorId::RESOURCES_EXHAUSTED` without descriptors, `SysErrorId::OUT_OF_MEMORY` without space,
    /// `SysErrorId::NOT_IMPLEMENTED` if the system has no pipes, otherwise `SysErrorId::UNCLASSIFIED`.
    Pipe();

    /// Closes the ends that are still open. A failure is only a warning.
    ~Pipe();

    /// Closes the read end (`close`, not repeated); a writer then gets `EPIPE`. The object discards the end
    /// even if the system reports a failure. Without an open end it does nothing and succeeds.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool closeReadEnd();

    /// Closes the write end in the same way; a reader then sees the end of the stream.
    [[nodiscard]] bool closeWriteEnd();

    /// Returns the descriptor of the read end, -1 if there is none. The object keeps the ownership.
    int getReadEnd() const noexcept { return read_end; }
    /// Returns the descriptor of the write end, -1 if there is none. The object keeps the ownership.
    int getWriteEnd() const noexcept { return write_end; }

    /// Returns the descriptor of the read end and passes its ownership to the caller, which must close it.
    [[nodiscard]] int takeReadEnd() noexcept { return std::exchange(read_end, -1); }
    /// Returns the descriptor of the write end and passes its ownership to the caller, which must close it.
    [[nodiscard]] int takeWriteEnd() noexcept { return std::exchange(write_end, -1); }

private:
    int read_end = -1;
    int write_end = -1;
};

} // namespace vesk
