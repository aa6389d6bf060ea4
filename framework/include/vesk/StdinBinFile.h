#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileR.h>

namespace vesk {

/// The process's standard input, read as a stream, in blocking mode and without a buffer.
///
/// The descriptor stays the process's: nothing here closes it. `close` only ends the object's use of it.
class VESK_API StdinBinFile : public StreamBinFileR {
public:
    /// The argument is there for the sake of the other stream files and has no effect: the stream is unbuffered.
    explicit StdinBinFile(unsigned int buffer_size = 0);

    /// Leaves the descriptor as it is.
    ~StdinBinFile() override;

    /// Makes the object invalid and leaves the descriptor as it is.
    /// @return false
    bool close() override;
};

} // namespace vesk
