#include "scriptedDevice.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

namespace
{

scriptedDevice* script = nullptr;

void call(std::function<void()> const& hook)
{
    if (hook)
    {
        hook();
    }
}

} // namespace

scriptedDevice::scriptedDevice()
{
    script = this;
}

scriptedDevice::~scriptedDevice()
{
    script = nullptr;
}

void scriptedDevice::answer(std::string const& call, int result)
{
    std::lock_guard<std::mutex> const lock(mutex);
    answers[call] = result;
}

std::vector<std::string> scriptedDevice::calls() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return notes;
}

void scriptedDevice::forgetCalls()
{
    std::lock_guard<std::mutex> const lock(mutex);
    notes.clear();
}

unsigned scriptedDevice::count(std::string const& call) const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return static_cast<unsigned>(std::count(notes.begin(), notes.end(), call));
}

std::vector<kit::bytes> scriptedDevice::sent() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return frames;
}

int scriptedDevice::noted(std::string const& name, std::string const& arguments)
{
    std::string const note = name + "(" + arguments + ")";
    std::lock_guard<std::mutex> const lock(mutex);
    notes.push_back(note);
    auto found = answers.find(note);
    if (found == answers.end())
    {
        found = answers.find(name);
    }
    return found == answers.end() ? 0 : found->second;
}

bool scriptedDevice::isOpen() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return open;
}

void scriptedDevice::setOpen(bool nowOpen)
{
    {
        std::lock_guard<std::mutex> const lock(mutex);
        open = nowOpen;
    }
    interrupt();
}

/// No byte ever comes. A closed device holds its readers back a little, as the real one does.
int scriptedDevice::waitForBytes()
{
    std::unique_lock<std::mutex> lock(mutex);
    unsigned const before = wakeUps;
    auto const woken = [&] { return wakeUps != before; };
    if (!open)
    {
        changed.wait_for(lock, std::chrono::milliseconds(10), woken);
        return EBADF;
    }
    changed.wait_for(lock, std::chrono::milliseconds(10), woken);
    return 0;
}

void scriptedDevice::interrupt()
{
    {
        std::lock_guard<std::mutex> const lock(mutex);
        ++wakeUps;
    }
    changed.notify_all();
}

int scriptedDevice::keepSent(kit::bytes const& bytes)
{
    std::lock_guard<std::mutex> const lock(mutex);
    frames.push_back(bytes);
    auto const found = answers.find("send");
    return found == answers.end() ? 0 : found->second;
}

class serialPort::implementation
{
  public:
    std::string name;
};

serialPort::serialPort(std::string const& deviceName, asciiLogInterface& log)
    : own(std::make_unique<implementation>(implementation{deviceName}))
{
    script->logGiven = &log;
    script->noted("serialPort", deviceName);
}

serialPort::~serialPort()
{
    script->noted("~serialPort", "");
}

int serialPort::open()
{
    int const result = script->noted("open", "");
    call(script->duringOpen);
    script->setOpen(result == 0);
    return result;
}

int serialPort::close()
{
    int const result = script->noted("close", "");
    call(script->duringClose);
    script->setOpen(false);
    return result;
}

bool serialPort::isOpen() const
{
    return script->isOpen();
}

int serialPort::setRaw()
{
    return script->noted("setRaw", "");
}

int serialPort::setSpeed(unsigned const& speed)
{
    return script->noted("setSpeed", std::to_string(speed));
}

int serialPort::setDataBits(unsigned const& bits)
{
    return script->noted("setDataBits", std::to_string(bits));
}

int serialPort::setParity(PARITY_TYPE const& parity)
{
    return script->noted("setParity", std::to_string(parity));
}

int serialPort::setStopBits(unsigned const& bits)
{
    return script->noted("setStopBits", std::to_string(bits));
}

int serialPort::setVminVtime(unsigned char const& vmin, unsigned char const& vtime)
{
    return script->noted("setVminVtime", std::to_string(vmin) + ", " + std::to_string(vtime));
}

int serialPort::getVminVtime(unsigned char& vmin, unsigned char& vtime)
{
    int const result = script->noted("getVminVtime", std::to_string(vmin) + ", " + std::to_string(vtime));
    vmin = 1;
    vtime = script->vtimeInForce;
    return result;
}

int serialPort::setInterMsgGapBits(unsigned bits)
{
    return script->noted("setInterMsgGapBits", std::to_string(bits));
}

int serialPort::getByteTransmitTime(double& seconds)
{
    int const result = script->noted("getByteTransmitTime", std::to_string(seconds));
    if (result == 0)
    {
        seconds = script->byteTime_sec;
    }
    return result;
}

int serialPort::getConfigString(std::string& text)
{
    int const result = script->noted("getConfigString", "");
    text = script->text;
    return result;
}

int serialPort::send(unsigned char const* bytes, unsigned count, unsigned& sent)
{
    return send(bytes, count, sent, nullptr);
}

int serialPort::send(unsigned char const* bytes, unsigned count, unsigned& sent,
                     std::function<void()> const& beforeFirstByte)
{
    call(beforeFirstByte);
    int const result = script->keepSent({bytes, bytes + count});
    call(script->duringSend);
    sent = result == 0 ? count : 1;
    return result;
}

int serialPort::receive(unsigned char const* /*buffer*/, unsigned /*capacity*/, unsigned& received)
{
    received = 0;
    return script->waitForBytes();
}

void serialPort::interruptReceive()
{
    script->interrupt();
}

std::string serialPort::getPort()
{
    return own->name + " as the device says";
}
