#pragma once

#include <vesk/BinFileBase.h>
#include <vesk/Export.h>

namespace vesk {

/// What the stream files share besides the descriptor: the position. It is a virtual base of theirs, so that a file
/// with both directions has one.
class VESK_API StreamBinFileBase : public BinFileBase {
public:
    /// Where an offset counts from.
    enum SeekDirection : int {
        Current = 0,
        Begin = 1,
        End = 2,
    };

    /// Moves the position (`lseek`), of which the deriving classes keep their buffers in step.
    ///
    /// A direction that is none ends the process through `std::GlobalErrorHandler::doAbort`.
    ///
    /// @param offset     in bytes, from where `direction` says
    /// @param position   out: the new position, counted from the begin; only to be looked at after success
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if no file is open; `SysErrorId::SPOILED_INTEGRITY` for a descriptor that is not open or has
    ///         no position (a pipe) and for a position beyond 2,147,483,647, 8 for one before the begin, else 19
    virtual bool seek(int offset, SeekDirection direction, unsigned int& position);

protected:
    StreamBinFileBase() = default;

private:
    friend class FileBuffer; // Its offsets have 64 bits.

    bool failSeek(int error);
};

} // namespace vesk
