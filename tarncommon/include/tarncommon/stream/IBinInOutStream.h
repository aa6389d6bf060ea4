#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/stream/IBinInputStream.h>
#include <tarncommon/stream/IBinOutputStream.h>

namespace std {

/// A stream with both directions in one object, each with a buffer of its own, over one `IBinStreamBase`. The
/// derived class keeps the directions consistent, for example over the single position of a file, by
/// overriding the two consistency hooks.
class TARN_API IBinInOutStream : public IBinInputStream, public IBinOutputStream {
public:
    ~IBinInOutStream() override;

    bool isValid() const override = 0;

protected:
    /// @param blocking      the blocking mode of both directions
    /// @param read_buffer   how many bytes to read ahead; 0: unbuffered
    /// @param write_buffer  how many bytes to collect before they are written; 0: unbuffered
    IBinInOutStream(bool blocking, unsigned int read_buffer, unsigned int write_buffer);
};

} // namespace std
