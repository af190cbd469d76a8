#include "deviceSubject.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace conformance
{
namespace
{

/// What the driver still holds is on its way; nobody tells when it has left, but the line's speed does.
constexpr unsigned charactersAtOnce = 256;

bool needsTheApplication(step const& each)
{
    return std::holds_alternative<sendMessage>(each.what) || std::holds_alternative<sendReject>(each.what) ||
           std::holds_alternative<sendFiller>(each.what);
}

bool needsNoLine(step const& each)
{
    return std::holds_alternative<expectImage>(each.what);
}

bool areDefault(portSettings const& settings)
{
    return settings.answers && settings.returnsInvalid;
}

std::string secondsOf(double value)
{
    return std::to_string(value) + " s";
}

void check(int status, std::string const& what)
{
    if (status != 0)
    {
        throw std::system_error(status, std::generic_category(), what);
    }
}

} // namespace

deviceSubject::deviceSubject(std::string const& device, lineFraming const& framing, std::string applicationCommand)
    : line(device, log), command(std::move(applicationCommand))
{
    open(framing);
    receiver = std::thread([this] { receive(); });
}

deviceSubject::~deviceSubject()
{
    closing = true;
    line.close();
    receiver.join();
}

void deviceSubject::open(lineFraming const& framing)
{
    check(line.setSpeed(framing.speed), "speed " + std::to_string(framing.speed));
    check(line.setDataBits(framing.dataBits), "data bits");
    check(line.setParity(framing.parity), "parity");
    check(line.setStopBits(framing.stopBits), "stop bits");
    check(line.open(), line.getPort());
}

void deviceSubject::receive()
{
    std::array<unsigned char, 4096> buffer{};
    while (!closing)
    {
        unsigned count = 0;
        if (line.receive(buffer.data(), static_cast<unsigned>(buffer.size()), count) == 0)
        {
            seen.putBytes(buffer.data(), count);
        }
    }
}

std::string deviceSubject::whyNot(testVector const& vector) const
{
    if (std::any_of(vector.steps.begin(), vector.steps.end(), needsNoLine))
    {
        return "the line does not show it";
    }
    bool const application = std::any_of(vector.steps.begin(), vector.steps.end(), needsTheApplication);
    if (command.empty() && (application || !areDefault(vector.settings)))
    {
        return "needs the application at the far end (--application)";
    }
    return {};
}

void deviceSubject::begin(portSettings const& settings)
{
    if (!command.empty())
    {
        ask("set acknowledge-time-out " + secondsOf(settings.acknowledgeTimeout_sec));
        ask("set handshake-time-out " + secondsOf(settings.handshakeTimeout_sec));
        ask(std::string("set automatic-answers ") + (settings.answers ? "on" : "off"));
        ask(std::string("set invalid-messages ") + (settings.returnsInvalid ? "returned" : "skipped"));
    }
}

void deviceSubject::put(bytes const& content)
{
    for (std::size_t at = 0; at < content.size(); at += charactersAtOnce)
    {
        unsigned const count = static_cast<unsigned>(std::min<std::size_t>(charactersAtOnce, content.size() - at));
        unsigned sent = 0;
        check(line.send(content.data() + at, count, sent), line.getPort());
    }
}

void deviceSubject::send(sendMessage const& /*message*/, std::string const& request)
{
    ask(request);
}

void deviceSubject::reject(sendReject const& /*rejected*/, std::string const& request)
{
    ask(request);
}

void deviceSubject::filler(std::string const& request)
{
    ask(request);
}

bytes deviceSubject::imageOf(messageFields const& /*fields*/) const
{
    return {};
}

duration deviceSubject::characterTime() const
{
    double seconds = 0.0;
    line.getByteTransmitTime(seconds);
    return duration(seconds);
}

void deviceSubject::ask(std::string const& request) const
{
    std::string const whole = command + " " + request;
    if (std::system(whole.c_str()) != 0) // the user's own command line
    {
        throw std::runtime_error("'" + whole + "' did not succeed");
    }
}

} // namespace conformance
