#ifndef SERIALPORT_H
#define SERIALPORT_H

#include "asciiLogInterface.h"
#include "gssipExport.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/// The parity of a character on the line.
enum PARITY_TYPE : std::uint32_t {
    PARITY_NONE = 1,  ///< no parity bit
    PARITY_ODD = 2,   ///< one parity bit, odd
    PARITY_EVEN = 3,  ///< one parity bit, even
    PARITY_MARK = 4,  ///< one parity bit, always 1
    PARITY_SPACE = 5, ///< one parity bit, always 0
};

/// One serial device (tty) of Linux, for one receiver and any number of senders at the same time.
///
/// **Results.** Every status is 0 for success and an `errno` value otherwise; nothing is thrown but `std::bad_alloc`.
///
/// **Settings** may be made at any time. Made before `open()` they come into force with it; on an open device they do
/// at once. A value that is refused leaves the one before it in force. EINVAL stands for a value that no device can
/// take or whose speed the driver cannot come within 3 % of; other statuses are the system's. What a driver quietly
/// ignores (a pseudo-terminal has no parity and always 8 data bits) is no error. The initial settings are 9600 bit/s, 8
/// data bits, no parity, 1 stop bit, VMIN 1, VTIME 10, no inter-message gap. The line is always raw: no translation, no
/// echo, no flow control, breaks ignored, characters with parity errors delivered as they came.
///
/// **The line's time.** `send` hands a message to the driver no sooner than 2 ms before the line has finished the one
/// before, as computed from speed and framing, and with an inter-message gap no sooner than the gap after it. So the
/// time at which `send` returns says when the message went out, and a message never waits behind kilobytes in the
/// kernel. A pseudo-terminal has no line: there only the gap is kept.
///
/// **Threads.** Every operation may be called from any thread, at the same time as any other, except the destructor,
/// which must be the last call and which closes the device. One thread at a time may call `receive`. Senders are
/// served in the order in which they came; bytes of two calls never mix. No thread is created, except one that finishes
/// closing a device whose driver would block `close` (see there).
class GSSIP_EXPORT serialPort
{
  public:
    /// Keeps the name; neither opens nor looks for the device. The log must outlive the object.
    serialPort(std::string const& deviceName, asciiLogInterface& log);
    ~serialPort();
    serialPort(serialPort const&) = delete;
    serialPort& operator=(serialPort const&) = delete;

    /// Opens the device, takes it for this process alone, and applies all settings. Does nothing when it is open.
    ///
    /// EBUSY: another program (or object) holds the device, or the driver is still closing it for this object.
    /// EIO, ENOTTY: it is there but is no working terminal device. EINVAL: it cannot keep the speed set. Otherwise the
    /// errno of the system (ENOENT, EACCES and so on). On failure nothing stays open. Waits for no carrier; does not
    /// block, unless another program's close of the same device holds up the system.
    int open();

    /// Closes the device and wakes its users. Does nothing when it is closed. The device's settings stay as they are.
    ///
    /// A `receive` under way returns 0 with 0 bytes at once. A `send` under way and the bytes that the driver has
    /// accepted get the time that the line needs, at most 2 s in all and 1 s without progress; then both are cut off
    /// and the `send` returns EBADF. Where the driver would hold up the close of a blocked line even then, a helper
    /// thread finishes it, and `open` answers EBUSY until it has. Returns 0, or the errno of `close(2)`; the device is
    /// closed either way.
    int close();

    /// True from a successful `open` to the beginning of `close`, also when the device has gone meanwhile.
    /// Never blocks.
    bool isOpen() const;

    int setRaw();                             ///< raw mode; the line is raw anyway
    int setSpeed(unsigned const& speed);      ///< bit/s, any rate that the driver can make; 0 is EINVAL
    int setDataBits(unsigned const& bits);    ///< 5 to 8
    int setParity(PARITY_TYPE const& parity); ///< one of the five above; EINVAL for any other value
    int setStopBits(unsigned const& bits);    ///< 1 or 2
    /// When `receive` returns, as termios defines it: VMIN 0 to 255 bytes, VTIME 0 to 255 tenths of a second.
    int setVminVtime(unsigned char const& vmin, unsigned char const& vtime);
    int getVminVtime(unsigned char& vmin, unsigned char& vtime); ///< what is in force; always 0
    int setInterMsgGapBits(unsigned bits); ///< the pause to keep between two messages sent, in bit times; always 0

    /// The seconds that one character (start bit, data bits, parity bit if any, stop bits) takes with the present
    /// settings. Always 0.
    int getByteTransmitTime(double& seconds);

    /// Replaces `text` by the settings asked for, for example
    /// `/dev/ttyS1 115200 8N1 vmin(1) vtime(10) interMsgGapBits(30)`. Always 0.
    int getConfigString(std::string& text);

    /// Writes all `count` bytes, after those of every `send` that came before; `sent` is the number that the driver
    /// took. Blocks while the line or a sender before needs time.
    ///
    /// ETIMEDOUT: the line took no byte for 2 s. EBADF: the device is closed, or was closed meanwhile. EIO: the device
    /// has gone. Otherwise the errno of `write(2)`.
    int send(unsigned char const* bytes, unsigned count, unsigned& sent);

    /// The same; calls `beforeFirstByte` each time just before it offers bytes to the driver, until the driver has
    /// taken the first. The call-back runs on the calling thread while all other senders wait: it must be quick, must
    /// not throw and must not call this object.
    int send(unsigned char const* bytes, unsigned count, unsigned& sent, std::function<void()> const& beforeFirstByte);

    /// Waits for bytes as VMIN and VTIME tell and stores at most `capacity` of them at `buffer` (which is written to in
    /// spite of its type); `received` is their number.
    ///
    /// 0 with 0 bytes: `close` or `interruptReceive` ended the wait, or VTIME ran out with VMIN 0. EBADF: the device is
    /// closed. EIO: it has gone. Failures are reported at a bounded rate: the first at once, later ones held back for
    /// a growing time of up to 1 s while nothing succeeds, and never more than ten in a second, so that a caller that
    /// simply tries again costs next to nothing. `open`, `close` and `interruptReceive` end that pause.
    int receive(unsigned char const* buffer, unsigned capacity, unsigned& received);

    /// Ends a `receive` that is under way, or else the next one: it returns 0 with 0 bytes. The device stays open.
    void interruptReceive();

    std::string getPort(); ///< the device name given to the constructor

  private:
    class GSSIP_HIDDEN implementation;
    std::unique_ptr<implementation> own;
};

#endif
