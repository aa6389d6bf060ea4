#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileW.h>

namespace vesk {

/// The process's standard output, written as a stream, in blocking mode and without a buffer.
///
/// The descriptor stays the process's: nothing here closes it. `close` only ends the object's use of it.
class VESK_API StdoutBinFile : public StreamBinFileW {
public:
    /// The argument is there for the sake of the other stream files and has no effect: the stream is unbuffered.
    explicit StdoutBinFile(unsigned int buffer_size = 0);

    /// Leaves the descriptor as it is.
    ~StdoutBinFile() override;

    /// Makes the object invalid and leaves the descriptor as it is.
    /// @return false
    bool close() override;
};

} // namespace vesk
