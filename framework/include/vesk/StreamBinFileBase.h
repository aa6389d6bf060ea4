#pragma once

#include <vesk/BinFileBase.h>
#include <vesk/Export.h>

namespace vesk {

/// The position, which the stream files share besides the descriptor. It is a virtual base class, so that a
/// file with both directions has only one position.
class VESK_API StreamBinFileBase : public BinFileBase {
public:
    /// The origin of an offset.
    enum SeekDirection : int {
        Current = 0,
        Begin = 1,
        End = 2,
    };

    /// Moves the position (`lseek`). The derived classes keep their buffers consistent with it.
    ///
    /// An invalid direction ends the process through `std::GlobalErrorHandler::doAbort`.
    ///
    /// @param offset     in bytes, relative to `direction`
    /// @param direction  the origin of the offset
    /// @param position   out: the new position, counted from the beginning; only meaningful after success
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if no file is open;
    ///         `SysErrorId::SPOILED_INTEGRITY` for a descriptor that is not open or has no position (a pipe)
    ///         and for a position beyond 2,147,483,647; `SysErrorId::INVALID_PARAMETER` for a position before
    ///         the beginning; otherwise `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] virtual bool seek(int offset, SeekDirection direction, unsigned int& position);

protected:
    StreamBinFileBase() = default;

private:
    friend class FileBuffer; // Reports `EOVERFLOW` for its 64-bit offsets.

    bool failSeek(int error);
};

} // namespace vesk
