#ifndef KIT_MESSAGES_H
#define KIT_MESSAGES_H

#include "gssipMessage.h"

#include <cstdint>
#include <vector>

namespace kit
{

/// A message to send; the port computes its checksums.
inline gssipMessage message(std::uint16_t id, std::uint16_t flags = 0, std::vector<std::uint16_t> const& data = {})
{
    gssipMessage result;
    result.setId(id);
    result.setProtocolFlags(flags);
    result.setData(data);
    return result;
}

} // namespace kit

#endif
