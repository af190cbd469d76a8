#ifndef SCHEDULES_LOSSYSTATION_H
#define SCHEDULES_LOSSYSTATION_H

#include "exposedPort.h"
#include "lossyTraffic.h"
#include "monotonicTimeStamp.h"
#include "referencePort.h"
#include "scheduler.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace schedules
{

/// A port at one end of a line, with an application that does what it has been told and writes down what it sees.
class lossyStation
{
  public:
    lossyStation(scheduler& schedule, line::end place, endOfLine const& plan);
    ~lossyStation();
    lossyStation(lossyStation const&) = delete;
    lossyStation& operator=(lossyStation const&) = delete;

    void start(); ///< the port, the receiving thread, and the one that acts
    bool hasActed() const { return allDone; }
    void stop();

    /// What has been given to the port, as the reference model has it.
    std::vector<reference::order> orders() const;
    reference::habits habits() const;

    // What has been seen; who did it is not known.
    std::vector<reference::delivery> const& delivered() const { return deliveries; }
    std::vector<reference::logLine> const& logged() const;

  private:
    class notebook;

    void act();
    void perform(::schedules::act const& which);
    void receive();

    scheduler& schedule;
    endOfLine const& todo;
    std::unique_ptr<notebook> lines;
    monotonicTimeStamp clock;
    kit::exposedPort port;
    std::int64_t start_ns = 0;
    bool allDone = false;
    bool leaving = false;
    std::vector<reference::delivery> deliveries;
    std::thread actor;
    std::thread receiver;
};

} // namespace schedules

#endif
