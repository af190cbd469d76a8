// What people would use instead, with the same payload.

#include "roundTrip.h"
#include "stream.h"

#include <array>
#include <asio/io_context.hpp>
#include <asio/read.hpp>
#include <asio/serial_port.hpp>
#include <asio/write.hpp>
#include <memory>
#include <modbus/modbus.h>
#include <stdexcept>

namespace bench
{
namespace
{

/// A serial port of asio, used by one thread without any of its own.
class asioEnd
{
  public:
    using message = std::vector<std::uint8_t>;

    asioEnd(std::string const& device, std::size_t receivedBytes) : line(context, device), length(receivedBytes) {}

    static message make(std::size_t bytes) { return message(bytes, 0x55); }

    void send(message const& toSend) { asio::write(line, asio::buffer(toSend)); }

    void receive(message& received)
    {
        received.resize(length);
        asio::read(line, asio::buffer(received));
    }

  private:
    asio::io_context context;
    asio::serial_port line;
    std::size_t const length;
};

pairOf<asioEnd> makeAsio(options const& asked)
{
    return makeEnds(asked, [&](lineUnderTest const& line, place end) -> asioEnd& {
        return everlasting<asioEnd>(line.nameAt(end), asked.bytes);
    });
}

/// Modbus RTU carries words in requests and answers: the near end writes as many as it reads back, in one request.
class modbusLine
{
  public:
    explicit modbusLine(options const& asked)
        : words(static_cast<int>(asked.bytes / 2 - 6)), line(asked.line), near(open(place::nearEnd)),
          far(open(place::farEnd)), registers(modbus_mapping_new(0, 0, words, 0))
    {
        threadOn(place::farEnd, [this] { answer(); }).detach();
    }
    modbusLine(modbusLine const&) = delete;
    modbusLine& operator=(modbusLine const&) = delete;

    void exchange()
    {
        std::array<std::uint16_t, 125> written{};
        std::array<std::uint16_t, 125> read{};
        check(modbus_write_and_read_registers(near, 0, words, written.data(), 0, words, read.data()) == words);
    }

  private:
    static constexpr int SLAVE = 1;
    static constexpr std::uint32_t RESPONSE_LIMIT_SEC = 10;

    static void check(bool succeeded)
    {
        if (!succeeded)
        {
            throw std::runtime_error(std::string("modbus: ") + modbus_strerror(errno));
        }
    }

    modbus_t* open(place end)
    {
        modbus_t* const opened = modbus_new_rtu(line.nameAt(end).c_str(), 115200, 'N', 8, 1);
        check(opened != nullptr && modbus_set_slave(opened, SLAVE) == 0 &&
              modbus_set_response_timeout(opened, RESPONSE_LIMIT_SEC, 0) == 0 && modbus_connect(opened) == 0);
        return opened;
    }

    void answer()
    {
        std::array<std::uint8_t, MODBUS_RTU_MAX_ADU_LENGTH> request{};
        while (true)
        {
            int const length = modbus_receive(far, request.data());
            if (length > 0)
            {
                modbus_reply(far, request.data(), length, registers);
            }
        }
    }

    int const words;
    lineUnderTest const line;
    modbus_t* const near;
    modbus_t* const far;
    modbus_mapping_t* const registers;
};

} // namespace

void addPeers(measurements& all)
{
    all[{"roundTrip", "asio"}] = [](options const& asked) {
        return roundTrip(makeAsio(asked), asioEnd::make(asked.bytes), asked.count);
    };
    all[{"stream", "asio"}] = [](options const& asked) {
        return stream(makeAsio(asked), asioEnd::make(asked.bytes), asked.count);
    };
    all[{"roundTrip", "modbus"}] = [](options const& asked) {
        auto& line = everlasting<modbusLine>(asked);
        runOn(place::nearEnd);
        return timeEach(asked.count, [&] {
            std::int64_t const start_ns = now_ns();
            line.exchange();
            return now_ns() - start_ns;
        });
    };
}

} // namespace bench
