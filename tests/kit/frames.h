#ifndef KIT_FRAMES_H
#define KIT_FRAMES_H

#include "pseudoTerminal.h"

#include <cstdint>
#include <vector>

namespace kit
{

/// The bytes of a whole frame, composed here without any class of the library.
bytes frame(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data = {});

/// The same with a wrong header checksum.
bytes frameWithBadHeader(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data = {});

/// The same with a wrong data checksum; `data` must not be empty.
bytes frameWithBadData(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data);

bytes operator+(bytes left, bytes const& right);

} // namespace kit

#endif
