#ifndef LINERECEIVER_H
#define LINERECEIVER_H

#include "failureBudget.h"
#include "sharedSettings.h"
#include "wakeableDescriptor.h"

#include <cstdint>
#include <mutex>

namespace gssipInternal
{

/// Reads bytes from the device as VMIN and VTIME tell, and holds back failures that repeat.
class lineReceiver
{
  public:
    lineReceiver(wakeableDescriptor& deviceToUse, sharedSettings const& settingsInForce)
        : device(deviceToUse), settings(settingsInForce)
    {}

    /// See `serialPort::receive`.
    int receive(unsigned char* buffer, unsigned capacity, unsigned& received);

  private:
    enum class afterFailure { report, retry, leave };

    int receiveOnce(unsigned char* buffer, unsigned capacity, unsigned& received, std::uint64_t& generation);
    static int readAsLimited(wakeableDescriptor::use& use, lineSettings const& limits, unsigned char* buffer,
                             unsigned capacity, unsigned& received);
    static std::int64_t readDeadline_ns(lineSettings const& limits, unsigned received);
    static int readSome(int descriptor, lineSettings const& limits, unsigned char* buffer, unsigned capacity,
                        unsigned& received);
    static bool isGone(int descriptor, lineSettings const& limits);
    afterFailure holdBack(std::uint64_t generation);
    std::int64_t pauseBefore_ns(std::int64_t now_ns);
    void countReport();

    wakeableDescriptor& device;     // safe by itself
    sharedSettings const& settings; // safe by itself

    std::mutex failureMutex; ///< guards `failures`
    failureBudget failures;
};

} // namespace gssipInternal

#endif
