#include "portLedger.h"

#include "fault.h"

#include <string>

namespace fuzz
{

gssipMessage ledger::enter(kind how, std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data,
                           bool trackAck)
{
    ++count;
    auto const marked = static_cast<std::uint16_t>((flags & 0xFF00U) | count);
    entries[count].item = frameItem(id, marked, data);
    entries[count].how = how;
    entries[count].isTracked = how == kind::queued && trackAck && (flags & gssipMessage::ACK_REQ_FLAG) != 0;

    gssipMessage message;
    message.setId(id);
    message.setProtocolFlags(marked);
    message.setData(data);
    return message;
}

void ledger::saw(sentItem const& item)
{
    std::size_t const key = item.flags & 0xFFU;
    require(key <= count, "a message on the line that nobody has given");
    entry& written = entries[key];
    require(written.item == item, "a message on the line differs from what was given");
    ++written.writes;
    checkCount(written, key);
}

void ledger::checkCount(entry const& written, std::size_t key)
{
    std::string const name = "message " + std::to_string(key);
    switch (written.how)
    {
    case kind::dropped:
        fault(name + " was given to a closed port, and is on the line");
    case kind::direct:
        require(written.writes <= written.writesAsked, "a direct message is on the line too often");
        break;
    case kind::queued:
        if (written.writes > (written.isTracked ? 2U : 1U))
        {
            fault(name + " is on the line " + std::to_string(written.writes) + " times");
        }
        if (written.writes == 1)
        {
            require(key > lastFirstWrite, "messages are on the line in another order than they were queued");
            lastFirstWrite = key;
            ++passed;
        }
        break;
    }
}

} // namespace fuzz
