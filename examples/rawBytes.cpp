// Raw bytes with `send`: what is no message, such as a command to a radio modem, and a frame composed by hand.
// Run it as `rawBytes` (on a null modem of its own) or as `rawBytes DEVICE`.

#include "gssipPort.h"
#include "partner.h"

#include <iostream>
#include <string>
#include <system_error>

namespace
{

/// Writes past the queue and the port-ready gate, but never into the middle of a message.
bool sendRaw(gssipPortInterface& port, std::vector<std::uint8_t> const& raw)
{
    unsigned sent = 0;
    int const result = port.send(raw.data(), static_cast<unsigned>(raw.size()), sent);
    if (result != 0)
    {
        std::cerr << "only " << sent << " of " << raw.size() << " bytes: " << std::generic_category().message(result)
                  << '\n';
        return false;
    }
    std::cout << sent << " bytes written\n";
    return true;
}

/// The bytes of a message as they stand on the line. The port fills in checksums for messages only.
std::vector<std::uint8_t> composeFrame(std::uint16_t id, std::vector<std::uint16_t> const& data)
{
    gssipMessage message(id, 0, 0);
    message.setData(data);
    message.setHeaderChecksum();
    message.setDataChecksum();
    return message.getHeaderAndDataUint8();
}

bool arrived(examples::exampleLine& line)
{
    if (line.otherSide() == nullptr)
    {
        return true; // who knows
    }
    std::vector<gssipMessage> const taken = line.otherSide()->waitFor(1);
    return taken.size() == 1 && taken[0].getId() == 7 && taken[0].getData() == std::vector<std::uint16_t>{0xCAFE};
}

} // namespace

int main(int argc, char** argv)
{
    examples::exampleLine line(argc, argv);
    monotonicTimeStamp clock;
    streamLog log(std::cerr);
    gssipPort port(line.device(), clock, &log, false);
    if (!port.start())
    {
        std::cerr << "cannot start the port on " << line.device() << '\n';
        return 1;
    }
    std::string const command = "AT+CHANNEL=5\r\n"; // a receiver passes over it
    bool const sent = sendRaw(port, {command.begin(), command.end()}) && sendRaw(port, composeFrame(7, {0xCAFE}));
    bool const asItShould = sent && arrived(line);
    std::cout << (asItShould ? "the frame among them was received\n" : "nothing was received\n");
    return asItShould ? 0 : 1;
}
