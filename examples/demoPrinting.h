#ifndef EXAMPLES_DEMOPRINTING_H
#define EXAMPLES_DEMOPRINTING_H

#include "nullModem.h"

#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>

namespace examples
{

/// The protocol flags in words, for example "reply ack"; "none" for 0.
std::string flagsInWords(std::uint16_t flags);

/// The bytes in hexadecimal; of a long run only the beginning and the end.
std::string hexShortened(bytes const& image);

/// "0x" and four digits.
std::string idText(std::uint16_t id);

/// What one line of the output tells.
struct eventLine
{
    std::string where;  ///< direction, or whose event it is
    std::string id;     ///< empty where there is none
    std::string flags;  ///< empty where there are none
    bytes image;        ///< empty where there are none
    std::string remark; ///< whatever else there is to say; stands further left where it is all there is
};

/// Prints whole lines, whichever thread they come from.
class eventPrinter
{
  public:
    /// Times are shown from now on. The stream must outlive the printer.
    explicit eventPrinter(std::ostream& stream);

    void columnTitles();
    void event(eventLine const& line);
    void plain(std::string const& text);

  private:
    double sinceStart_sec() const;

    std::mutex outMutex; ///< guards `out`; times are taken under it, so that they never go backwards
    std::ostream& out;
    double start_sec;
};

} // namespace examples

#endif
