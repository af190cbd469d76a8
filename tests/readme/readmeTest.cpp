// The README's program, run as a process of its own on a line that the test holds.

#include "pseudoTerminal.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace
{

kit::bytes const MESSAGE_7{0xFF, 0x81, 0x07, 0x00, 0x03, 0x00, 0x00, 0x40, 0xF7,
                           0x3D, 0x01, 0x00, 0x02, 0x00, 0x03, 0x00, 0xFA, 0xFF};
kit::bytes const ACK_7{0xFF, 0x81, 0x07, 0x00, 0x00, 0x00, 0x00, 0x88, 0xFA, 0xF5};
kit::bytes const MESSAGE_9{0xFF, 0x81, 0x09, 0x00, 0x00, 0x00, 0x00, 0x40, 0xF8, 0x3D};
kit::bytes const ACK_9{0xFF, 0x81, 0x09, 0x00, 0x00, 0x00, 0x00, 0x88, 0xF8, 0xF5};

/// A program with its standard input and output joined to this one.
class program
{
  public:
    explicit program(std::string const& argument)
    {
        if (pipe(input.data()) != 0 || pipe(output.data()) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        child = fork();
        if (child == 0)
        {
            become(argument);
        }
        close(input[0]);
        close(output[1]);
    }

    ~program()
    {
        close(input[1]);
        close(output[0]);
        if (child > 0)
        {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    program(program const&) = delete;
    program& operator=(program const&) = delete;

    void pressEnter() const { ASSERT_EQ(::write(input[1], "\n", 1), 1); }

    /// The next line that it prints, or what there is of it when it ends.
    std::string readLine() const
    {
        std::string line;
        char next = '\0';
        while (next != '\n' && ::read(output[0], &next, 1) == 1)
        {
            line += next;
        }
        return line;
    }

    /// Everything that it prints until it ends.
    std::string readToEnd() const
    {
        std::string all;
        std::array<char, 256> part{};
        for (ssize_t count = 1; count > 0;)
        {
            count = ::read(output[0], part.data(), part.size());
            all.append(part.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        }
        return all;
    }

    int exitStatus()
    {
        int status = 0;
        waitpid(child, &status, 0);
        child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    [[noreturn]] void become(std::string const& argument) const
    {
        dup2(input[0], STDIN_FILENO);
        dup2(output[1], STDOUT_FILENO);
        close(input[1]); // else the program could not see its end
        close(output[0]);
        execl(README_PROGRAM, README_PROGRAM, argument.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }

    std::array<int, 2> input{};
    std::array<int, 2> output{};
    pid_t child = -1;
};

} // namespace

TEST(ReadmeProgram, Run_SendsPrintsAndEndsWhenEnterIsPressed)
{
    kit::pseudoTerminal line;
    program talk(line.name());
    EXPECT_EQ(line.read(MESSAGE_7.size()), MESSAGE_7);
    line.write(ACK_7);
    line.write(MESSAGE_9);
    EXPECT_EQ(line.read(ACK_9.size()), ACK_9);
    EXPECT_EQ(talk.readLine(), "message 9, 0 words\n");
    talk.pressEnter();
    EXPECT_EQ(talk.readToEnd(), "");
    EXPECT_EQ(talk.exitStatus(), 0);
}

TEST(ReadmeProgram, RunWithoutDevice_SaysSoAndFails)
{
    program talk("/nonexistent/device");
    EXPECT_EQ(talk.readToEnd(), "");
    EXPECT_EQ(talk.exitStatus(), 1);
}
