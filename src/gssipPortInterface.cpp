#include "gssipPortInterface.h"

unsigned gssipPortInterface::sendMessages(std::vector<gssipMessage> const& messages, bool trackAck)
{
    for (gssipMessage const& message : messages)
    {
        sendMessage(message, trackAck);
    }
    return 0;
}
