#ifndef SCHEDULES_LOSSYJUDGE_H
#define SCHEDULES_LOSSYJUDGE_H

#include "lossyAgreement.h"
#include "lossyMedium.h"
#include "referencePort.h"

#include <cstdint>
#include <string>
#include <vector>

namespace schedules
{

/// What has been put to the test, over all schedules.
struct lossyTally
{
    std::uint64_t framesWritten = 0;
    std::uint64_t secondCopies = 0;
    std::uint64_t bytesArrived = 0;
    std::uint64_t bytesDamaged = 0; ///< flipped, inserted, or next to a loss
    std::uint64_t delivered = 0;
    std::uint64_t headersRejected = 0;
    std::uint64_t foundAgain = 0; ///< undamaged frames behind the bound, all of them received
    std::uint64_t excused = 0;    ///< undamaged frames within the bound, or held by a header that promises more
    std::uint64_t refused = 0;    ///< damaged frames that the data checksum tells
    std::uint64_t unnoticed = 0;  ///< damaged frames that every checksum finds right
};

/// One way of the line, from the one who writes to the one who receives.
struct oneWayStory
{
    std::vector<lossyMedium::fateOfByte> const& arrived; ///< what became of its bytes
    std::vector<happening> const& frames;                ///< what was written, in the order of writing
    std::vector<reference::order> const& orders;         ///< what the writer was given
    std::vector<kit::decodedFrame> const& framed;        ///< what the receiver has found
};

// Each is empty when all is well, else what is wrong.

/// A message is written once; twice, when it is tracked and asks for acknowledgement.
std::string writtenTooOften(oneWayStory const& way);

/// What was received undamaged is a frame that was written, whole; unless the bytes FF 81 stand in the middle of
/// something, or something else than frames was written.
std::string unexplained(oneWayStory const& way, lossyTally& tally);

/// An undamaged frame that begins 8 bytes behind the last damage, or later, is received; unless a header before it,
/// whose checksum is right, promises more bytes than have come. The same exception as above.
std::string notFoundAgain(oneWayStory const& way, lossyTally& tally);

} // namespace schedules

#endif
