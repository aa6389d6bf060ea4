#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileR.h>

namespace vesk {

/// Random data of the kernel, good enough for keys.
///
///     vesk::SecureRandom random(false);
///     unsigned char key[32];
///     if (random.getRandData(key, sizeof key)) { ... }
///
/// It is an unbuffered stream on the kernel's device: an object belongs to one thread at a time, and the constructor
/// cannot fail visibly, so ask `isValid`.
class VESK_API SecureRandom : public StreamBinFileR {
public:
    /// Opens the device. Reports a failure as `StreamBinFileR::open` does.
    /// @param strong  true: "/dev/random", which waits while the kernel has not gathered enough entropy; false:
    ///                "/dev/urandom", which never waits
    explicit SecureRandom(bool strong);
    ~SecureRandom() override;

    /// Whether the device is open.
    bool isValid() const override;

    /// Fills a buffer (`read`, as often as it takes). Blocks as long as the device does.
    /// @param size  in bytes; with 0 nothing is read, and nothing can fail
    /// @return true on failure, the buffer holds what was read before: the reports of the stream's `read`. A device that
    ///         ends, as what may stand in its place does, counts as a failure: `StreamErrorId::END_OF_STREAM`
    bool getRandData(unsigned char* buffer, unsigned int size);

    /// Fill a number with random bytes. True on failure, as `getRandData`.
    VESK_API_INLINE bool getRandByte(unsigned char& value) { return getRandData(&value, sizeof value); }
    bool getRandUInt32(unsigned int& value);
    bool getRandUInt64(unsigned long long& value);

    /// How good the data is, as far as somebody could tell: always 0.
    VESK_API_INLINE int GetQuality() const noexcept { return 0; }
};

} // namespace vesk
