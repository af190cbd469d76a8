#ifndef UART_DISCARDINGLOG_H
#define UART_DISCARDINGLOG_H

#include "asciiLogInterface.h"

namespace uart
{

class discardingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const& /*level*/, std::string const& /*text*/) override {}
    void log(double const& /*time_sec*/, std::int32_t const& /*level*/, std::string const& /*text*/) override {}
};

} // namespace uart

#endif
