#ifndef EXAMPLES_DEMOSTATION_H
#define EXAMPLES_DEMOSTATION_H

#include "asciiLogInterface.h"
#include "demoJournal.h"
#include "gssipPort.h"
#include "monotonicTimeStamp.h"

#include <atomic>
#include <string>
#include <thread>

namespace examples
{

/// A port with all that it needs: clock, log, and a thread that receives. What it receives and logs goes to a journal.
class demoStation
{
  public:
    /// What to do with a message whose data checksum is wrong.
    enum class invalidMessages { SKIP, SHOW };

    /// `place` is how the journal calls this station. The journal must outlive it.
    demoStation(std::string const& place, std::string const& device, demoJournal& journal, invalidMessages treatment);
    ~demoStation();
    demoStation(demoStation const&) = delete;
    demoStation& operator=(demoStation const&) = delete;

    /// True when the port is started and receives.
    bool start();
    /// Ends the receiving. True when the port stopped in good order, or had not been started.
    bool stop();

    gssipPort& port() { return ownPort; }

  private:
    class journalLog : public asciiLogInterface
    {
      public:
        journalLog(std::string nameOfPlace, demoJournal& journalToFill);
        void log(std::int32_t const& level, std::string const& text) override;
        void log(double const& time_sec, std::int32_t const& level, std::string const& text) override;

      private:
        std::string place;
        demoJournal& journal;
    };

    void receiveLoop();
    void show(int result, gssipMessage const& message);

    std::string place;
    demoJournal& journal;
    invalidMessages treatment;
    monotonicTimeStamp clock;
    journalLog log;
    gssipPort ownPort;
    std::atomic<bool> leaving{false};
    std::thread receiveThread;
};

} // namespace examples

#endif
