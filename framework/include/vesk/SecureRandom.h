#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileR.h>

namespace vesk {

/// A source of random data from the kernel, suitable for cryptographic keys.
///
///     vesk::SecureRandom random(false);
///     unsigned char key[32];
///     if (random.getRandData(key, sizeof key)) { ... }
///
/// It is an unbuffered stream on the kernel's device. An object belongs to one thread at a time. The
/// constructor cannot return a failure, so check `isValid`.
class VESK_API SecureRandom : public StreamBinFileR {
public:
    /// Opens the device. Reports a failure as `StreamBinFileR::open` does.
    /// @param strong  true: "/dev/random", which blocks while the kernel has not gathered enough entropy;
    ///                false: "/dev/urandom", which never blocks
    explicit SecureRandom(bool strong);
    ~SecureRandom() override;

    /// Returns whether the device is open.
    bool isValid() const override;

    /// Fills a buffer (`read`, repeated until the buffer is full). Blocks as long as the device does.
    /// @param size  in bytes; with 0 nothing is read, and the call succeeds
    /// @return true on failure, with the bytes read so far in the buffer: the reports of the stream's `read`.
    ///         The end of the data, which is possible only if the device was replaced by a file, is a
    ///         failure: `StreamErrorId::END_OF_STREAM`
    [[nodiscard]] bool getRandData(unsigned char* buffer, unsigned int size);

    /// @{
    /// Fill a number with random bytes. Return true on failure, as `getRandData` does.
    [[nodiscard]] VESK_API_INLINE bool getRandByte(unsigned char& value) {
        return getRandData(&value, sizeof value);
    }
    [[nodiscard]] bool getRandUInt32(unsigned int& value);
    [[nodiscard]] bool getRandUInt64(unsigned long long& value);
    /// @}

    /// Returns the quality of the data, which is unknown: always 0.
    VESK_API_INLINE int GetQuality() const noexcept { return 0; }
};

} // namespace vesk
