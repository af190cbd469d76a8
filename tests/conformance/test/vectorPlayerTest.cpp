#include "deviceSubject.h"
#include "exposedPort.h"
#include "lineRelay.h"
#include "monotonicTimeStamp.h"
#include "portSubject.h"
#include "pseudoTerminal.h"
#include "recordingLog.h"
#include "runner.h"
#include "vectorReader.h"

#include <atomic>
#include <fstream>
#include <gmock/gmock.h>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

namespace
{

using namespace conformance;
using testing::HasSubstr;
using testing::StartsWith;

constexpr duration shortPatience{0.5};
constexpr duration patience{10.0};

/// The numbers of the lines of a file that bear a mark.
std::set<unsigned> linesWith(std::string const& mark, std::string const& path)
{
    std::set<unsigned> found;
    std::ifstream file(path);
    unsigned number = 0;
    for (std::string line; std::getline(file, line);)
    {
        ++number;
        if (line.find(mark) != std::string::npos)
        {
            found.insert(number);
        }
    }
    return found;
}

unsigned lineOf(verdict const& failure)
{
    std::string const behindThePath = failure.reason.substr(failure.reason.find(".vectors:") + 9);
    return static_cast<unsigned>(std::stoul(behindThePath));
}

vectorFile vectorsOf(std::string const& subjectName)
{
    return readVectors(VECTORS "/" + subjectName + ".vectors");
}

std::set<unsigned> failingLines(vectorFile const& file, subject& with)
{
    std::set<unsigned> lines;
    for (testVector const& vector : file.vectors)
    {
        verdict const result = play(vector, file.path, with, shortPatience);
        EXPECT_EQ(result.result, verdict::failed) << vector.name;
        EXPECT_THAT(result.reason, StartsWith(file.path));
        lines.insert(lineOf(result));
    }
    return lines;
}

TEST(VectorPlayer, WrongVectors_FailEachAtItsLine)
{
    portSubject port;
    vectorFile const wrong = readVectors(WRONG_VECTORS);
    ASSERT_EQ(linesWith("# wrong", wrong.path).size(), wrong.vectors.size());
    EXPECT_EQ(failingLines(wrong, port), linesWith("# wrong", wrong.path));
}

TEST(VectorPlayer, FailedVector_DoesNotSpoilTheNext)
{
    portSubject port;
    vectorFile const wrong = readVectors(WRONG_VECTORS);
    vectorFile const right = vectorsOf("frames");
    EXPECT_EQ(play(wrong.vectors.back(), wrong.path, port, shortPatience).result, verdict::failed);
    EXPECT_EQ(play(right.vectors.front(), right.path, port, patience).result, verdict::passed);
}

TEST(VectorPlayer, Failure_SaysWhatWasExpectedAndWhatCame)
{
    portSubject port;
    std::istringstream text("vector a\nin FF 81 09 00 00 00 00 40 F8 3D\nout FF 81 08");
    verdict const result = play(readVectors(text, "my.vectors").vectors.front(), "my.vectors", port, shortPatience);
    EXPECT_EQ(result.reason, "my.vectors:3: expected the bytes FF 81 08, came FF 81 09 00 00 00 00 88 F8 F5");
}

TEST(VectorRunner, Vectors_AreCountedAndChosenByName)
{
    portSubject port;
    std::ostringstream shown;
    tally const counted = playFiles({vectorsOf("messages")}, "handshake reject", port, patience, shown);
    EXPECT_EQ(counted.passed, 2U);
    EXPECT_EQ(counted.failed + counted.skipped, 0U);
    EXPECT_THAT(shown.str(), HasSubstr("passed   a handshake reject with its extra bit\n"));
    EXPECT_THAT(shown.str(), HasSubstr("2 passed, 0 failed, 0 skipped\n"));
}

/// Two pseudo-terminals whose far ends are joined: what one device writes the other receives.
struct joinedLines
{
    joinedLines()
    {
        int const ends[] = {one.masterDescriptor(), other.masterDescriptor()};
        kit::lineRelay::prepare(ends[0]);
        kit::lineRelay::prepare(ends[1]);
        std::lock_guard<std::mutex> const lock(relay.mutex);
        forth.from = back.to = ends[0];
        forth.to = back.from = ends[1];
    }

    kit::pseudoTerminal one;
    kit::pseudoTerminal other;
    kit::oneWay forth;
    kit::oneWay back;
    kit::lineRelay relay{{&forth, &back}};
};

/// An implementation at the far end of a line, with an application that takes messages and does nothing else.
class farImplementation
{
  public:
    explicit farImplementation(std::string const& device) : port(device, clock, &log, false)
    {
        EXPECT_TRUE(port.start());
        application = std::thread([this] { run(); });
    }
    ~farImplementation()
    {
        leaving = true;
        port.stop();
        application.join();
    }
    farImplementation(farImplementation const&) = delete;
    farImplementation& operator=(farImplementation const&) = delete;

  private:
    void run()
    {
        while (!leaving)
        {
            gssipMessage message;
            port.getMessage(message, false);
        }
    }

    monotonicTimeStamp clock;
    kit::recordingLog log;
    kit::exposedPort port;
    std::atomic<bool> leaving{false};
    std::thread application;
};

struct deviceUnderTest
{
    joinedLines lines;
    farImplementation far{lines.other.name()};
    deviceSubject device{lines.one.name(), {}, {}};
};

TEST(VectorsAtADevice, RightImplementation_PassesWhatTheLineShows)
{
    deviceUnderTest at;
    ASSERT_EQ(whyNoExchange(at.device, patience), "");
    for (char const* const file : {"answers", "startOfMessage", "resynchronisation"})
    {
        std::ostringstream shown;
        tally const counted = playFiles({vectorsOf(file)}, "", at.device, patience, shown);
        EXPECT_EQ(counted.failed, 0U) << shown.str();
        EXPECT_GE(counted.passed, 10U) << shown.str();
    }
}

TEST(VectorsAtADevice, WhatNeedsTheApplication_IsSkippedWithoutIt)
{
    deviceUnderTest at;
    vectorFile const sending = vectorsOf("sending");
    verdict const result = play(sending.vectors.front(), sending.path, at.device, patience);
    EXPECT_EQ(result.result, verdict::skipped);
    EXPECT_THAT(result.reason, HasSubstr("--application"));
}

TEST(VectorsAtADevice, WhatTheLineDoesNotShow_IsSkipped)
{
    deviceUnderTest at;
    vectorFile const messages = vectorsOf("messages");
    EXPECT_EQ(play(messages.vectors.front(), messages.path, at.device, patience).result, verdict::skipped);
}

TEST(VectorsAtADevice, WrongAnswer_Fails)
{
    deviceUnderTest at;
    vectorFile const wrong = readVectors(WRONG_VECTORS);
    for (std::size_t index = 0; index < 4; ++index)
    {
        EXPECT_EQ(play(wrong.vectors[index], wrong.path, at.device, shortPatience).result, verdict::failed)
            << wrong.vectors[index].name;
    }
    EXPECT_EQ(whyNoExchange(at.device, patience), "");
}

TEST(VectorsAtADevice, NobodyThere_IsTold)
{
    kit::pseudoTerminal line;
    deviceSubject device(line.name(), {}, {});
    EXPECT_THAT(whyNoExchange(device, shortPatience), HasSubstr("only 0 of them"));
}

TEST(VectorsAtADevice, ApplicationCommand_GetsSettingsAndStatement)
{
    kit::pseudoTerminal line;
    std::istringstream text("vector a\nset acknowledge-time-out 2 s\nsend tracked id 0007 flags 4000\nout FF");
    vectorFile const file = readVectors(text, "my.vectors");
    std::string const record = testing::TempDir() + "asked-" + std::to_string(getpid());
    deviceSubject device(line.name(), {}, "echo >>" + record);
    EXPECT_EQ(play(file.vectors.front(), file.path, device, shortPatience).result, verdict::failed);
    std::ifstream asked(record);
    std::string const all{std::istreambuf_iterator<char>(asked), {}};
    EXPECT_EQ(all, "set acknowledge-time-out 2.000000 s\nset handshake-time-out 60.000000 s\n"
                   "set automatic-answers on\nset invalid-messages returned\nsend tracked id 0007 flags 4000\n");
    std::remove(record.c_str());
}

TEST(VectorsAtADevice, ApplicationCommandThatFails_EndsThePlay)
{
    kit::pseudoTerminal line;
    deviceSubject device(line.name(), {}, "false");
    vectorFile const sending = vectorsOf("sending");
    EXPECT_THROW(play(sending.vectors.front(), sending.path, device, shortPatience), std::runtime_error);
}

} // namespace
