#include "temporaryFolder.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <string>
#include <sys/wait.h>

namespace
{

using testing::HasSubstr;

struct runResult
{
    int status = -1;
    std::string output;
};

runResult run(std::string const& arguments)
{
    runResult result;
    std::FILE* const pipe = ::popen((PROGRAM " " + arguments + " 2>&1").c_str(), "r");
    std::array<char, 4096> chunk{};
    for (std::size_t count = std::fread(chunk.data(), 1, chunk.size(), pipe); count > 0;
         count = std::fread(chunk.data(), 1, chunk.size(), pipe))
    {
        result.output.append(chunk.data(), count);
    }
    int const status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TEST(ConformanceProgram, RightVectors_EndWithZero)
{
    runResult const result = run(VECTORS "/messages.vectors");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr(" passed, 0 failed, 0 skipped"));
}

TEST(ConformanceProgram, WrongVector_EndsWithOne)
{
    runResult const result = run("--patience 0.5 --only 'other bytes' " WRONG_VECTORS);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("FAILED   a message with other bytes\n"));
    EXPECT_THAT(result.output, HasSubstr("0 passed, 1 failed, 0 skipped"));
}

TEST(ConformanceProgram, BadFile_EndsWithTwoAndSaysWhere)
{
    kit::temporaryFolder const folder;
    std::string const path = folder.path / "bad.vectors";
    std::ofstream(path) << "vector a\n\nin XY\n";
    runResult const result = run(path);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, HasSubstr(path + ":3: 'XY' is no byte"));
}

TEST(ConformanceProgram, DeviceThatIsNotThere_EndsWithTwo)
{
    runResult const result = run("--device /dev/nowhere " VECTORS "/messages.vectors");
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, HasSubstr("/dev/nowhere"));
}

TEST(ConformanceProgram, WrongCommandLines_EndWithTwo)
{
    for (char const* const arguments : {"", "--colour blue", "--framing 9N1 x", "--framing 8X1 x", "--framing 8N3 x",
                                        "--speed 0 x", "--patience -1 x"})
    {
        EXPECT_EQ(run(arguments).status, 2) << arguments;
    }
}

TEST(ConformanceProgram, Help_TellsEveryOption)
{
    runResult const result = run("--help");
    EXPECT_EQ(result.status, 0);
    for (char const* const option :
         {"--device", "--speed", "--framing", "--application", "--only", "--patience", "--list"})
    {
        EXPECT_THAT(result.output, HasSubstr(option));
    }
}

TEST(ConformanceProgram, List_PlaysNothing)
{
    runResult const result = run("--list --device /dev/nowhere " WRONG_VECTORS);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("a silence that is none\n"));
}

} // namespace
