#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileRW.h>

#include <cstdint>
#include <string>

namespace vesk {

/// A serial line: a stream on a terminal device that is set up for raw bytes of 8 bits.
///
///     vesk::SerialPort port("/dev/ttyS0", 115200);
///     if (port.open()) { ... }
///     if (port.write(request, size, written) != 1 || port.flush(false)) { ... }
///     int const result = port.read(answer, sizeof answer, count);
///
/// `open` applies the settings; a change of them takes effect with the next `open`. Modem lines and hardware flow control
/// stay as the device had them. From then on it is used as a `StreamBinFileRW`, with one difference: `flush(false)`, and
/// so `close` and the destructor, wait until all that was written has left the line. With software flow control that may
/// be for ever when the other side has stopped the output.
///
/// In blocking mode a read waits for at least one byte. A read buffer serves only a line that is not written while
/// something is read ahead: there is no position on a line to go back to.
///
/// An object belongs to one thread at a time.
class VESK_API SerialPort : public StreamBinFileRW {
public:
    enum class Parity : uint32_t {
        NONE = 0,
        EVEN = 1,
        ODD = 2,
        MARK = 3,  ///< `open` refuses it: the system does not know it.
        SPACE = 4, ///< In the same way.
    };

    /// Keeps the settings; touches no device.
    /// @param device             its path
    /// @param baud_rate          bits per second: 50, 300, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200 or 230400.
    ///                           Any other number goes to the system as it is, which refuses nearly all of them.
    /// @param parity             the check of each character
    /// @param stop_bits          2 for two, anything else for one
    /// @param xon                whether the other side may stop the output (`IXON`)
    /// @param xoff               whether the system stops the other side when its input is full (`IXOFF`)
    /// @param blocking           false: reads and writes do not wait (`O_NONBLOCK`); flushing still does
    /// @param read_buffer_size   bytes to read ahead; 0: unbuffered
    /// @param write_buffer_size  bytes to collect; 0: unbuffered
    ///
    /// Without memory for a buffer the object never becomes valid, and `CommonErrorId::OUT_OF_MEMORY` is pending.
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

    /// Flushes and closes the line. A failure shows as a warning only; call `close` to learn of it.
    ~SerialPort() override;

    /// Opens the line and applies the settings, after closing one that is open (`open`, `tcgetattr`, `tcsetattr`). May wait
    /// for the carrier of a modem. What was read ahead before stays.
    ///
    /// Reports, with the line closed afterwards: what `close` reported of a line that was open; `CommonErrorId::NOT_SUPPORTED` for mark or
    /// space parity, before the device is looked at; `FileAccessErrorId::BAD_PATH` for an empty path; what `handleOpenError` reports;
    /// `SysErrorId::UNCLASSIFIED` and `FileAccessErrorId::UNCLASSIFIED` for a device that is no terminal, a speed that the system does not know, and
    /// settings that it refuses. Below these two are the reports of the flush if that fails as well, as on a file.
    /// @return true on failure
    bool open();

    std::string const& getDevice() const noexcept { return m_device; }
    unsigned int getBaudRate() const noexcept { return m_baud_rate; }
    bool getXon() const noexcept { return m_xon; }
    bool getXoff() const noexcept { return m_xoff; }
    uint8_t getStopBits() const noexcept { return m_stop_bits; }
    Parity getParity() const noexcept { return m_parity; }

    /// What the next `open` shall apply, see the constructor.
    void setDevice(std::string const& device) { m_device = device; }
    void setBaudRate(unsigned int baud_rate) noexcept { m_baud_rate = baud_rate; }
    void setXon(bool xon) noexcept { m_xon = xon; }
    void setXoff(bool xoff) noexcept { m_xoff = xoff; }
    void setStopBits(uint8_t stop_bits) noexcept { m_stop_bits = stop_bits; }
    void setParity(Parity parity) noexcept { m_parity = parity; }

protected:
    /// Waits until the output has left the line (`tcdrain`, repeated while a signal interrupts it).
    /// @return true on failure: `SysErrorId::INPUT_OUTPUT`, whatever the reason, with `StreamErrorId::TRANSFER_FAILED` on top, or for a closed line
    ///         `CommonErrorId::CONTRACT_BROKEN` with `StreamErrorId::UNUSABLE` on top
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
