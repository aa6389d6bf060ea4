#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileR.h>

namespace vesk {

/// The standard input of the process, read as a stream in blocking mode and without a buffer.
///
/// Descriptors 0, 1 and 2 belong to the process: the object never closes them. It closes a file that was
/// opened through it as a `StreamBinFileR` does.
class VESK_API StdinBinFile : public StreamBinFileR {
public:
    /// Creates the stream. The argument has no effect, because the stream is unbuffered; it exists for
    /// uniformity with the other stream files.
    explicit StdinBinFile(unsigned int buffer_size = 0);

    /// Closes the file unless it is a standard channel.
    ~StdinBinFile() override;

    /// Closes the file. A standard channel is only released, not closed. The object is invalid afterwards.
    /// @return true if a file could not be closed, after the reports of `StreamBinFileR`
    [[nodiscard]] bool close() override;
};

} // namespace vesk
