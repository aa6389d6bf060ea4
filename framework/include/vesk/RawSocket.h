#pragma once

#include <vesk/Socket.h>

namespace vesk {

/// Whole Ethernet frames of all protocols, from one network device or from all of them:
///
///     vesk::RawSocket socket(true, 0, 0);
///     if (socket.open("eth0")) { ... }
///     int const result = socket.read(frame, sizeof frame, size); // one frame, cut to the room
///     socket.close();
///
/// One read takes one frame: give it room for a whole one, also when a read buffer is used. One write sends one frame,
/// headers included, which needs an unbuffered socket of one device. A read or write of 0 bytes takes or sends none. The
/// process needs the right to packet sockets.
///
/// A socket that is open must be closed before it is destroyed. See `Socket` for states and threads.
class VESK_API RawSocket : public Socket {
public:
    /// Makes an `INACTIVE` socket without a descriptor. It is invalid, with `CommonErrorId::OUT_OF_MEMORY` pending, if there is no memory
    /// for a buffer.
    /// @param blocking      the blocking mode of the stream; the descriptor itself always waits
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    RawSocket(bool blocking, unsigned int read_buffer, unsigned int write_buffer);

    /// Closes what is left; an open socket after an assertion.
    ~RawSocket() override;

    /// Opens the socket (`socket`, not closed by `exec`, then `ioctl` and `bind` for one device). Frames of other devices
    /// that come between are delivered too.
    /// @param device  the name of a device; null: all devices. Names of devices have at most 15 bytes. Of a longer name only
    ///                the first 15 bytes count: it opens the device of that shorter name if there is one. A caller with
    ///                names from outside compares the length with `IFNAMSIZ` first.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for an invalid or `DEAD` object, and for one that is open, which stays as
    ///         it is; `SysErrorId::PERMISSION_DENIED` without the right, else 19, the socket being `INACTIVE` still; `SysErrorId::NO_DEVICE` for a
    ///         device that does not exist, else 19, the socket being `DEAD` then
    bool open(char const* device);

    /// Closes the descriptor (`close`, once). The socket is `DEAD` afterwards, also on failure; without a descriptor it
    /// stays what it is.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`
    bool close();
};

} // namespace vesk
