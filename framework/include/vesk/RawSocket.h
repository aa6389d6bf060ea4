#pragma once

#include <vesk/Socket.h>

namespace vesk {

/// A socket for whole Ethernet frames of all protocols, on a single network device or on all of them:
///
///     vesk::RawSocket socket(true, 0, 0);
///     if (socket.open("eth0")) { ... }
///     int const result = socket.read(frame, sizeof frame, size); // one frame, cut to the room
///     socket.close();
///
/// Each read takes a single frame: give it room for a whole frame, also when a read buffer is used. Each
/// write sends a single frame, headers included. Writing needs an unbuffered socket of a single device. A
/// read or write of 0 bytes does nothing. The process needs the permission to open packet sockets
/// (`CAP_NET_RAW`).
///
/// An open socket must be closed before it is destroyed. See `Socket` for states and threads.
class VESK_API RawSocket : public Socket {
public:
    /// Creates an `INACTIVE` socket without a descriptor. Without memory for a buffer it is invalid, with
    /// `CommonErrorId::OUT_OF_MEMORY` pending.
    /// @param blocking      the blocking mode of the stream; the descriptor itself always blocks
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    RawSocket(bool blocking, unsigned int read_buffer, unsigned int write_buffer);

    /// Closes a descriptor that is left. Asserts that the socket is not open, and closes an open one
    /// afterwards.
    ~RawSocket() override;

    /// Opens the socket (`socket`, not close-on-exec; then `ioctl` and `bind` for a single device). Frames of
    /// other devices that arrive between these calls are delivered as well.
    /// @param device  the name of a device; null: all devices. Names of devices have at most 15 bytes. Only
    ///                the first 15 bytes of a longer name count: it opens the device of that shorter name if
    ///                it exists. A caller with names from outside compares the length with `IFNAMSIZ` first.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for an invalid or `DEAD` object, and for an
    ///         open one, which is unchanged. If the descriptor cannot be created,
    ///         `SysErrorId::PERMISSION_DENIED` without the permission, otherwise `SysErrorId::UNCLASSIFIED`;
    ///         the socket is still `INACTIVE`. Afterwards `SysErrorId::NO_DEVICE` for a device that does not
    ///         exist, otherwise `SysErrorId::UNCLASSIFIED`; the socket is `DEAD`
    [[nodiscard]] bool open(char const* device);

    /// Closes the descriptor (`close`, not repeated). The socket is `DEAD` afterwards, even on failure.
    /// Without a descriptor the state is unchanged and the result false.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool close();
};

} // namespace vesk
