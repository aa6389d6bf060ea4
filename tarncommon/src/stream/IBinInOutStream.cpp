#include <tarncommon/stream/IBinInOutStream.h>

namespace std {

IBinInOutStream::IBinInOutStream(bool blocking, unsigned int read_buffer, unsigned int write_buffer)
    : IBinInputStream(blocking, read_buffer), IBinOutputStream(blocking, write_buffer) {}

IBinInOutStream::~IBinInOutStream() = default;

} // namespace std
