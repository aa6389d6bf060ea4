#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileRW.h>

#include <cstdint>
#include <string>

namespace vesk {

/// A serial line: a stream on a terminal device that is configured for raw 8-bit bytes.
///
///     vesk::SerialPort port("/dev/ttyS0", 115200);
///     if (port.open()) { ... }
///     if (port.write(request, size, written) != 1 || port.flush(false)) { ... }
///     int const result = port.read(answer, sizeof answer, count);
///
/// `open` applies the settings; a changed setting takes effect with the next `open`. The modem lines and the
/// hardware flow control of the device are left unchanged. An open line is used as a `StreamBinFileRW`, with
/// one difference: `flush(false)`, and therefore `close` and the destructor, block until all written data has
/// been transmitted. With software flow control they block without limit if the other side has stopped the
/// output.
///
/// In blocking mode a read blocks until at least one byte arrives. Use a read buffer only on a line that is
/// not written while data is read ahead: a line has no position to seek back to.
///
/// An object must be used by one thread at a time.
class VESK_API SerialPort : public StreamBinFileRW {
public:
    /// The kinds of parity bits.
    enum class Parity : uint32_t {
        NONE = 0,
        EVEN = 1,
        ODD = 2,
        MARK = 3,  ///< Not supported: `open` refuses it.
        SPACE = 4, ///< Not supported: `open` refuses it.
    };

    /// Stores the settings; does not access the device.
    /// @param device             the path of the device
    /// @param baud_rate          bits per second: 50, 300, 1200, 2400, 4800, 9600, 19200, 38400, 57600,
    ///                           115200 or 230400. Any other number goes to the system unchanged, which
    ///                           refuses nearly all of them
    /// @param parity             the parity check of each character
    /// @param stop_bits          2 for two stop bits, any other value for one
    /// @param xon                whether the other side may stop the output (`IXON`)
    /// @param xoff               whether the system stops the other side when its input is full (`IXOFF`)
    /// @param blocking           false: reads and writes do not block (`O_NONBLOCK`), but flushing does
    /// @param read_buffer_size   bytes to read ahead; 0: unbuffered
    /// @param write_buffer_size  bytes to collect; 0: unbuffered
    ///
    /// If a buffer cannot be allocated, the object never becomes valid, and `CommonErrorId::OUT_OF_MEMORY` is
    /// pending.
    explicit SerialPort(
        std::string const& device, unsigned int baud_rate = 9600, Parity parity = Parity::NONE,
        uint8_t stop_bits = 1, bool xon = false, bool xoff = false, bool blocking = true,
        unsigned int read_buffer_size = 0, unsigned int write_buffer_size = 0)
        : StreamBinFileRW(read_buffer_size, write_buffer_size),
          m_device(device),
          m_baud_rate(baud_rate),
          m_xon(xon),
          m_xoff(xoff),
          m_stop_bits(stop_bits),
          m_parity(parity) {
        m_blocking = blocking;
    }

    /// Flushes and closes the line. A failure is only a warning; call `close` to detect it.
    ~SerialPort() override;

    /// Opens the line and applies the settings, after closing a line that is open (`open`, `tcgetattr`,
    /// `tcsetattr`). Can block until a modem's carrier is present. Data that was read ahead before is kept.
    ///
    /// If the previous line cannot be closed, reports what `close` reported. Every other failure leaves the
    /// object closed and reports:
    ///
    /// - `CommonErrorId::NOT_SUPPORTED` for mark or space parity, before the device is accessed
    /// - `FileAccessErrorId::BAD_PATH` for an empty path
    /// - what `handleOpenError` reports
    /// - `SysErrorId::UNCLASSIFIED` with `FileAccessErrorId::UNCLASSIFIED` on top for a device that is not a
    ///   terminal, a speed that the system does not support, and settings that it refuses. If the flush
    ///   before the close fails as well, as it does on a regular file, its reports are below these two.
    ///
    /// @return true on failure
    [[nodiscard]] bool open();

    /// Returns the path of the device.
    std::string const& getDevice() const noexcept { return m_device; }
    /// @{
    /// Returns a setting, which `open` applies.
    unsigned int getBaudRate() const noexcept { return m_baud_rate; }
    bool getXon() const noexcept { return m_xon; }
    bool getXoff() const noexcept { return m_xoff; }
    uint8_t getStopBits() const noexcept { return m_stop_bits; }
    Parity getParity() const noexcept { return m_parity; }
    /// @}

    /// @{
    /// Change what the next `open` applies; see the constructor.
    void setDevice(std::string const& device) { m_device = device; }
    void setBaudRate(unsigned int baud_rate) noexcept { m_baud_rate = baud_rate; }
    void setXon(bool xon) noexcept { m_xon = xon; }
    void setXoff(bool xoff) noexcept { m_xoff = xoff; }
    void setStopBits(uint8_t stop_bits) noexcept { m_stop_bits = stop_bits; }
    void setParity(Parity parity) noexcept { m_parity = parity; }
    /// @}

protected:
    /// Blocks until the output has been transmitted (`tcdrain`, repeated while a signal interrupts it).
    /// @return true on failure: `SysErrorId::INPUT_OUTPUT` for any reason, with
    ///         `StreamErrorId::TRANSFER_FAILED` on top; for a closed line `CommonErrorId::CONTRACT_BROKEN`
    ///         with `StreamErrorId::UNUSABLE` on top
    bool performFlush() override;

private:
    bool configure();
    bool giveUp();
    void closeUnbuffered();

    std::string m_device;
    uint32_t m_baud_rate;
    bool m_xon;
    bool m_xoff;
    uint8_t m_stop_bits;
    Parity m_parity;
};

} // namespace vesk
