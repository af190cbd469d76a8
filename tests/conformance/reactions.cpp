#include "reactions.h"

#include "inWords.h"

namespace conformance
{

void reactions::putBytes(std::uint8_t const* first, std::size_t count)
{
    steadyClock::time_point const now = steadyClock::now();
    {
        std::lock_guard<std::mutex> const lock(mutex);
        for (std::size_t index = 0; index < count; ++index)
        {
            bytesCome.push_back({first[index], now});
        }
    }
    changed.notify_all();
}

void reactions::putMessage(deliveredMessage const& message)
{
    put(messages, message);
}

void reactions::putLine(loggedLine const& line)
{
    put(lines, line);
}

std::optional<timedByte> reactions::takeByte(steadyClock::time_point limit)
{
    return take(bytesCome, limit);
}

std::optional<deliveredMessage> reactions::takeMessage(steadyClock::time_point limit)
{
    return take(messages, limit);
}

std::optional<loggedLine> reactions::takeLine(steadyClock::time_point limit)
{
    return take(lines, limit);
}

bool reactions::quietFor(duration length)
{
    std::unique_lock<std::mutex> lock(mutex);
    return !changed.wait_for(lock, length, [this] { return !nothingLeftLocked(); });
}

bool reactions::nothingLeft() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return nothingLeftLocked();
}

std::string reactions::describe() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    std::string text;
    if (!bytesCome.empty())
    {
        bytes come;
        for (timedByte const& each : bytesCome)
        {
            come.push_back(each.value);
        }
        text += "the bytes " + inWords(come) + "; ";
    }
    for (deliveredMessage const& each : messages)
    {
        text += inWords(each) + "; ";
    }
    for (loggedLine const& each : lines)
    {
        text += inWords(each) + "; ";
    }
    return text.empty() ? "nothing" : text.substr(0, text.size() - 2);
}

void reactions::forget()
{
    std::lock_guard<std::mutex> const lock(mutex);
    bytesCome.clear();
    messages.clear();
    lines.clear();
}

template <typename Entry>
std::optional<Entry> reactions::take(std::deque<Entry>& from, steadyClock::time_point limit)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_until(lock, limit, [&from] { return !from.empty(); }))
    {
        return std::nullopt;
    }
    Entry const entry = from.front();
    from.pop_front();
    return entry;
}

template <typename Entry>
void reactions::put(std::deque<Entry>& to, Entry const& entry)
{
    {
        std::lock_guard<std::mutex> const lock(mutex);
        to.push_back(entry);
    }
    changed.notify_all();
}

} // namespace conformance
