#include "nullModem.h"
#include "partner.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

using testing::AllOf;
using testing::HasSubstr;

/// The demonstration program, running; its output and its error output together are read here.
class demo
{
  public:
    explicit demo(std::vector<std::string> arguments)
    {
        std::array<int, 2> pipe{};
        EXPECT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
        output = pipe[0];
        process = fork();
        if (process == 0)
        {
            dup2(pipe[1], STDOUT_FILENO);
            dup2(pipe[1], STDERR_FILENO);
            arguments.insert(arguments.begin(), DEMO_PROGRAM);
            std::vector<char*> words;
            words.reserve(arguments.size() + 1);
            for (std::string& each : arguments)
            {
                words.push_back(each.data());
            }
            words.push_back(nullptr);
            execv(DEMO_PROGRAM, words.data());
            _exit(127);
        }
        close(pipe[1]);
    }

    ~demo()
    {
        close(output);
        if (process > 0)
        {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
    }

    demo(demo const&) = delete;
    demo& operator=(demo const&) = delete;

    /// Reads until `text` has come; false when the output ends before or nothing comes for long.
    bool waitFor(std::string const& text)
    {
        while (seen.find(text) == std::string::npos)
        {
            if (!readMore())
            {
                return false;
            }
        }
        return true;
    }

    void interrupt(int signal) const { kill(process, signal); }

    /// Reads to the end and returns the exit status, or minus the signal that killed the program.
    int finish()
    {
        while (readMore())
        {}
        int status = 0;
        waitpid(process, &status, 0);
        process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    std::string seen;

  private:
    bool readMore()
    {
        pollfd waiting{output, POLLIN, 0};
        std::array<char, 4096> chunk{};
        ssize_t const count = poll(&waiting, 1, 30000) > 0 ? read(output, chunk.data(), chunk.size()) : 0;
        seen.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return count > 0;
    }

    int output = -1;
    pid_t process = -1;
};

TEST(Demo, WithoutArguments_ShowsEveryStepAndEndsWell)
{
    demo program({});
    EXPECT_EQ(program.finish(), 0) << program.seen;
    EXPECT_THAT(program.seen, AllOf(HasSubstr(" as expected, 0 NOT as expected"), HasSubstr("LOST on the way"),
                                    HasSubstr("DAMAGED on the way"), HasSubstr("reply nak"), HasSubstr("reply ack"),
                                    HasSubstr("reply handshake reject"), HasSubstr("resync filler"),
                                    HasSubstr("Header Checksum ERROR Detected"), HasSubstr("garbage")));
}

TEST(Demo, Help_ExplainsTheArguments)
{
    demo program({"--help"});
    EXPECT_EQ(program.finish(), 0);
    EXPECT_THAT(program.seen, AllOf(HasSubstr("DEVICE"), HasSubstr("SPEED")));
}

TEST(Demo, MissingDevice_IsTold)
{
    demo program({"/dev/thereIsNoSuchDevice"});
    EXPECT_EQ(program.finish(), 1);
    EXPECT_THAT(program.seen, AllOf(HasSubstr("/dev/thereIsNoSuchDevice"), HasSubstr("No such file or directory")));
}

TEST(Demo, NoTerminal_IsTold)
{
    demo program({"/dev/null"});
    EXPECT_EQ(program.finish(), 1);
    EXPECT_THAT(program.seen, HasSubstr("cannot receive on /dev/null"));
}

TEST(Demo, WrongSpeed_IsAWrongCommandLine)
{
    for (std::string const speed : {"0", "-1", "fast", "99999999999"})
    {
        demo program({"/dev/null", speed});
        EXPECT_EQ(program.finish(), 2) << program.seen;
        EXPECT_THAT(program.seen, HasSubstr("SPEED"));
    }
}

TEST(Demo, Device_PrintsWhatArrivesUntilInterrupted)
{
    for (int const signal : {SIGINT, SIGTERM})
    {
        examples::nullModem modem;
        examples::partner sender(modem.deviceA());
        demo program({modem.deviceB(), "9600"});
        ASSERT_TRUE(program.waitFor("Receiving until interrupted")) << program.seen;
        gssipMessage message(0x1234, gssipMessage::ACK_REQ_FLAG, 0);
        message.setData({0xABCD});
        sender.port().sendMessage(message, true);
        EXPECT_TRUE(program.waitFor("received")) << program.seen;
        program.interrupt(signal);
        EXPECT_EQ(program.finish(), 128 + signal);
        EXPECT_THAT(program.seen, AllOf(HasSubstr("9600 8N1"), HasSubstr("0x1234  ack-request"),
                                        HasSubstr("FF 81 34 12 01 00 00 40")));
    }
}

TEST(Demo, Device_InUse_IsTold)
{
    examples::nullModem modem;
    examples::partner const owner(modem.deviceA());
    demo program({modem.deviceA()});
    EXPECT_EQ(program.finish(), 1);
    EXPECT_THAT(program.seen, HasSubstr("another program is using it"));
}

} // namespace
