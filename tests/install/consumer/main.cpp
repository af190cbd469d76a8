// A program of somebody else's: uses both libraries, and nothing but what they install.

#include "gssipPort.h"
#include "gssipVersion.h"
#include "monotonicTimeStamp.h"

#include <iostream>

int main()
{
    monotonicTimeStamp clock;
    gssipPort port("/nonexistent/device", clock, nullptr, false);
    if (port.start())
    {
        std::cerr << "a port without a device has started\n";
        return 1;
    }
    std::string configuration;
    if (port.getPortConfigStr(configuration) != 0)
    {
        return 1;
    }
    std::cout << gssipVersion() << '\n' << configuration << '\n';
    return 0;
}
