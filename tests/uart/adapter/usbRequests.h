#ifndef UART_USBREQUESTS_H
#define UART_USBREQUESTS_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace adapter
{

using bytes = std::vector<unsigned char>;

/// What the host asks of a device: a transfer on an endpoint.
struct request
{
    std::uint32_t number = 0;
    bool isInput = false;
    std::uint32_t endpoint = 0;
    std::uint32_t length = 0;
    std::array<unsigned char, 8> setup{}; ///< of a control transfer
    bytes data;                           ///< of an output
};

/// A device's plug: the requests that the kernel sends to it through a socket, as its driver for devices that are
/// plugged in over a network does, and the answers.
class plug
{
  public:
    /// Puts a device into that socket of the virtual hub. It is there until `pull`.
    explicit plug(unsigned hubPort);
    ~plug();
    plug(plug const&) = delete;
    plug& operator=(plug const&) = delete;

    void pull();
    int socket() const { return own; }

    /// Reads what has come: calls `transfer` for each request, and `cancel` for the number of each that is taken back,
    /// which tells whether it was still unanswered. False when the device has been pulled.
    bool step(std::function<void(request const&)> const& transfer, std::function<bool(std::uint32_t)> const& cancel);

    void answerInput(request const& asked, bytes const& data) const;
    void answerOutput(request const& asked) const;
    /// The device cannot do that.
    void refuse(request const& asked) const;

  private:
    bool takeOne(std::function<void(request const&)> const& transfer, std::function<bool(std::uint32_t)> const& cancel);
    void answer(request const& asked, std::int32_t status, std::uint32_t length, bytes const& data) const;
    void write(bytes const& packet) const;

    unsigned port;
    int own = -1;
    bytes unread;
};

} // namespace adapter

#endif
