#include "asciiLogInterface.h"
#include "gssipVersion.h"
#include "monotonicTimeStamp.h"
#include "streamLog.h"
#include "timeStampInterface.h"

#include "virtualSlot.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <locale>
#include <map>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace
{

double monotonicSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

TEST(MonotonicTimeStamp, Time_IsTheMonotonicClocksInSeconds)
{
    monotonicTimeStamp clock;
    timeStampInterface& asInterface = clock;
    constexpr double rounding = 1e-6;

    double const before = monotonicSeconds();
    double const told = asInterface.getTime_sec();
    double const after = monotonicSeconds();

    EXPECT_GE(told, before - rounding);
    EXPECT_LE(told, after + rounding);
}

TEST(MonotonicTimeStamp, ManyReadings_NeverGoBack)
{
    monotonicTimeStamp clock;
    double last = clock.getTime_sec();
    for (int times = 0; times < 10000; ++times)
    {
        double const next = clock.getTime_sec();
        ASSERT_GE(next, last);
        last = next;
    }
}

TEST(StreamLog, TimedLine_IsTimeLevelAndText)
{
    std::ostringstream out;
    streamLog log(out);
    log.log(1.5, 2, "gssipReceive(0) Header Checksum ERROR Detected");
    log.log(-0.0000015, -7, "");

    EXPECT_EQ(out.str(), "1.500000 2 gssipReceive(0) Header Checksum ERROR Detected\n-0.000002 -7 \n");
}

TEST(StreamLog, TextWithFormatCharacters_IsPrintedAsItIs)
{
    std::ostringstream out;
    streamLog log(out);
    log.log(0.0, 4, "100 %s %n done");

    EXPECT_EQ(out.str(), "0.000000 4 100 %s %n done\n");
}

TEST(StreamLog, LongestTimeAndLevel_AreComplete)
{
    std::ostringstream out;
    streamLog log(out);
    log.log(std::numeric_limits<double>::lowest(), std::numeric_limits<std::int32_t>::min(), "text");

    std::string const line = out.str();
    std::size_t const digits = 1 + 309 + 7; // sign, integer part, point and fraction
    ASSERT_GT(line.size(), digits);
    EXPECT_EQ(line.substr(0, 10), "-179769313");
    EXPECT_EQ(line.substr(digits), " -2147483648 text\n");
}

TEST(StreamLog, LineWithoutTime_GetsTheMonotonicClocks)
{
    std::ostringstream out;
    streamLog log(out);
    asciiLogInterface& asInterface = log;

    double const before = monotonicSeconds();
    asInterface.log(4, "no time given");
    double const after = monotonicSeconds();

    std::istringstream line(out.str());
    double time = 0.0;
    std::string rest;
    line >> time;
    std::getline(line, rest);
    EXPECT_GE(time, before - 1e-6);
    EXPECT_LE(time, after + 1e-6);
    EXPECT_EQ(rest, " 4 no time given");
}

/// Writes numbers as no other locale does.
class foreignNumbers : public std::numpunct<char>
{
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(StreamLog, ForeignLocale_ChangesNothing)
{
    std::locale const foreign(std::locale::classic(), new foreignNumbers);
    std::locale const former = std::locale::global(foreign);
    std::ostringstream out;
    out.imbue(foreign);
    streamLog log(out);
    log.log(1234567.5, 1234, "text");
    std::locale::global(former);
    EXPECT_EQ(out.str(), "1234567.500000 1234 text\n");
}

/// Keeps what has reached it by a flush.
class flushedText : public std::stringbuf
{
  public:
    std::string flushed;

  private:
    int sync() override
    {
        flushed = str();
        return 0;
    }
};

TEST(StreamLog, EveryLine_IsFlushed)
{
    flushedText buffer;
    std::ostream out(&buffer);
    streamLog log(out);

    log.log(1.0, 2, "one");
    EXPECT_EQ(buffer.flushed, "1.000000 2 one\n");
    log.log(2.0, 2, "two");
    EXPECT_EQ(buffer.flushed, "1.000000 2 one\n2.000000 2 two\n");
}

TEST(StreamLog, LinesOfManyThreads_NeverMixAndKeepEachThreadsOrder)
{
    constexpr int threadCount = 4;
    constexpr int linesEach = 500;
    std::ostringstream out;
    streamLog log(out);
    std::vector<std::thread> threads;
    for (int each = 0; each < threadCount; ++each)
    {
        threads.emplace_back([&log, each] {
            for (int line = 0; line < linesEach; ++line)
            {
                log.log(static_cast<double>(line), each, "line of thread " + std::to_string(each));
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    std::map<int, int> seen;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);)
    {
        double time = -1.0;
        int level = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "%lf %d", &time, &level), 2) << line;
        std::string const number = std::to_string(level);
        std::string const expected = std::to_string(seen[level]) + ".000000 " + number + " line of thread " + number;
        ASSERT_EQ(line, expected);
        ++seen[level];
    }
    EXPECT_EQ(seen, (std::map<int, int>{{0, linesEach}, {1, linesEach}, {2, linesEach}, {3, linesEach}}));
}

TEST(GssipVersion, LoadedLibrary_HasTheHeadersVersion)
{
    std::ostringstream expected;
    expected << GSSIP_VERSION_MAJOR << '.' << GSSIP_VERSION_MINOR << '.' << GSSIP_VERSION_PATCH;
    EXPECT_EQ(gssipVersion(), expected.str());
}

TEST(InterfaceSlots, Log_FillsTheFirstTwoAndTheDestructorStandsBehind)
{
    using untimed = void (asciiLogInterface::*)(std::int32_t const&, std::string const&);
    using timed = void (asciiLogInterface::*)(double const&, std::int32_t const&, std::string const&);
    static_assert(std::has_virtual_destructor_v<asciiLogInterface>);
    static_assert(std::is_abstract_v<asciiLogInterface>);
    static_assert(sizeof(asciiLogInterface) == sizeof(void*));

    EXPECT_EQ(kit::virtualSlot(static_cast<untimed>(&asciiLogInterface::log)), 0);
    EXPECT_EQ(kit::virtualSlot(static_cast<timed>(&asciiLogInterface::log)), 1);
}

TEST(InterfaceSlots, TimeStamp_StandsBehindTheDestructorsTwoEntries)
{
    static_assert(std::has_virtual_destructor_v<timeStampInterface>);
    static_assert(std::is_abstract_v<timeStampInterface>);
    static_assert(sizeof(timeStampInterface) == sizeof(void*));

    EXPECT_EQ(kit::virtualSlot(&timeStampInterface::getTime_sec), 2);
}

/// Implementations that tell of their end, destroyed through the interface.
template <typename Interface>
class dying : public Interface
{
  public:
    explicit dying(bool& endFlag) : ended(endFlag) {}
    ~dying() override { ended = true; }

  private:
    bool& ended;
};

struct dyingLog : dying<asciiLogInterface>
{
    using dying::dying;
    void log(std::int32_t const& /*level*/, std::string const& /*text*/) override {}
    void log(double const& /*time_sec*/, std::int32_t const& /*level*/, std::string const& /*text*/) override {}
};

struct dyingTimeStamp : dying<timeStampInterface>
{
    using dying::dying;
    double getTime_sec() override { return 0.0; }
};

TEST(InterfaceSlots, Implementations_AreDestroyedThroughTheInterface)
{
    bool logEnded = false;
    std::unique_ptr<asciiLogInterface> log = std::make_unique<dyingLog>(logEnded);
    log.reset();
    EXPECT_TRUE(logEnded);

    bool timeStampEnded = false;
    std::unique_ptr<timeStampInterface> timeStamp = std::make_unique<dyingTimeStamp>(timeStampEnded);
    timeStamp.reset();
    EXPECT_TRUE(timeStampEnded);
}

} // namespace
