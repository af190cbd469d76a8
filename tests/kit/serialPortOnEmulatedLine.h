#ifndef KIT_SERIALPORTONEMULATEDLINE_H
#define KIT_SERIALPORTONEMULATEDLINE_H

#include "emulatedLine.h"
#include "serialPortOnLine.h"

#include <gtest/gtest.h>

namespace kit
{

/// An open serial device behind an emulated driver. The line flows again before the device is closed at the end.
struct serialPortOnEmulatedLine : serialPortOnLine
{
    explicit serialPortOnEmulatedLine(lineTraits const& traits, unsigned speed = 9600) : driver(traits)
    {
        EXPECT_EQ(port.setSpeed(speed), 0);
        EXPECT_EQ(port.open(), 0);
    }
    ~serialPortOnEmulatedLine()
    {
        driver.letFlow();
        port.close();
    }
    serialPortOnEmulatedLine(serialPortOnEmulatedLine const&) = delete;
    serialPortOnEmulatedLine& operator=(serialPortOnEmulatedLine const&) = delete;

    emulatedLine driver;
    systemReplaced replaced{driver};
};

} // namespace kit

#endif
