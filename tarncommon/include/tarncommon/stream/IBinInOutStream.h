#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/stream/IBinInputStream.h>
#include <tarncommon/stream/IBinOutputStream.h>

namespace std {

/// Both directions in one object, each with a buffer of its own, over one `IBinStreamBase`. What connects them, such as
/// one position in one file, is for the class that derives from it: it has the two consistency hooks for that.
class TARN_API IBinInOutStream : public IBinInputStream, public IBinOutputStream {
public:
    ~IBinInOutStream() override;

    bool isValid() const override = 0;

protected:
    /// @param blocking      the blocking mode of both directions
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are written; 0: unbuffered
    IBinInOutStream(bool blocking, unsigned int read_buffer, unsigned int write_buffer);
};

} // namespace std
