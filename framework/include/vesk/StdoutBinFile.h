#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileW.h>

namespace vesk {

/// The process's standard output, written as a stream, in blocking mode and without a buffer.
///
/// The numbers of the standard channels, 0, 1 and 2, stay the process's: nothing here closes them. A file that is opened
/// through the object is its own, and is closed as by a `StreamBinFileW`.
class VESK_API StdoutBinFile : public StreamBinFileW {
public:
    /// The argument is there for the sake of the other stream files and has no effect: the stream is unbuffered.
    explicit StdoutBinFile(unsigned int buffer_size = 0);

    /// Leaves a standard channel as it is, and closes any other file.
    ~StdoutBinFile() override;

    /// Makes the object invalid and leaves a standard channel as it is. Any other file is closed.
    /// @return true if a file could not be closed, after the reports of `StreamBinFileW`
    bool close() override;
};

} // namespace vesk
