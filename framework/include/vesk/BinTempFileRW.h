#pragma once

#include <vesk/Export.h>
#include <vesk/WidePath.h>

#include <cstdint>
#include <utility>

namespace vesk {

/// A new file with a name that no other has, for a file object to take over. If none does, it goes with this object.
///
///     std::string const prefix = std::string(vesk::FileSys::getTempPath()) + "/lumo-";
///     vesk::BinTempFileRW temp(prefix.c_str());
///     vesk::StreamBinFileRW file;
///     if (!temp.isValid() || file.open(temp, true)) { ... }
///     ...
///     vesk::FileSys::removeFile(file.getTempPath().c_str()); // Nobody else does it.
///
/// The file is its owner's alone to read and write. Its descriptor is not closed by `exec`.
///
/// The name is unique between all processes; an object belongs to one thread at a time.
class VESK_API BinTempFileRW {
public:
    /// Creates the file (`mkstemp`, begun anew when a signal interrupts it). `isValid` tells whether it worked.
    ///
    /// Reports `SysErrorId::FILE_EXISTS` with `FileAccessErrorId::ALREADY_EXISTS` on top if no free name was found, 10 with 9 if the system refuses the
    /// template, else what `handleOpenError` reports.
    /// @param prefix  how its path begins, directory included: six characters come behind. One that the locale cannot
    ///                express is refused like a bad address (`EFAULT`)
    explicit BinTempFileRW(WidePath const& prefix);

    /// Closes and removes the file if nobody took it over. A failure shows as a warning only.
    ~BinTempFileRW();

    BinTempFileRW(BinTempFileRW const&) = delete;
    BinTempFileRW& operator=(BinTempFileRW const&) = delete;

    /// Whether the object has the file: it was created, and is not taken over.
    bool isValid() const noexcept { return m_fd != -1; }

    /// The descriptor, -1 if there is none. It stays this object's.
    int getDescriptor() const noexcept { return m_fd; }

    /// The same, but from now on the descriptor is the caller's to close, and the file the caller's to remove.
    int takeDescriptor() noexcept { return std::exchange(m_fd, -1); }

    /// The path of the file, also when it was taken over. As valid as the prefix was.
    WidePath const& getPath() const noexcept { return m_path; }

private:
    int32_t m_fd = -1;
    WidePath m_path;
};

} // namespace vesk
