#include "nullModem.h"
#include "frameSplitter.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <numeric>
#include <poll.h>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>

namespace
{

using examples::bytes;
using examples::nullModem;
using testing::ElementsAre;

constexpr int LONG_ENOUGH_MS = 10000;

/// One device opened as a program would.
class opened
{
  public:
    explicit opened(std::string const& name) : number(open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
    ~opened() { close(number); }
    opened(opened const&) = delete;
    opened& operator=(opened const&) = delete;

    void write(bytes const& data) const
    {
        std::size_t done = 0;
        while (done < data.size())
        {
            ssize_t const count = ::write(number, data.data() + done, data.size() - done);
            ASSERT_GT(count, 0);
            done += static_cast<std::size_t>(count);
        }
    }

    bytes read(std::size_t count) const
    {
        bytes result;
        pollfd waiting{number, POLLIN, 0};
        while (result.size() < count && poll(&waiting, 1, LONG_ENOUGH_MS) > 0)
        {
            bytes chunk(count - result.size());
            ssize_t const got = ::read(number, chunk.data(), chunk.size());
            if (got <= 0)
            {
                break;
            }
            result.insert(result.end(), chunk.begin(), chunk.begin() + got);
        }
        return result;
    }

    bool hasHungUp() const
    {
        pollfd waiting{number, POLLIN, 0};
        return poll(&waiting, 1, LONG_ENOUGH_MS) > 0 && (waiting.revents & POLLHUP) != 0;
    }

  private:
    int number;
};

bytes counting(std::size_t count)
{
    bytes data(count);
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    return data;
}

double processTime_sec()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

TEST(NullModem, Relay_CarriesEveryByteBothWays)
{
    nullModem const modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    a.write(counting(256));
    EXPECT_EQ(b.read(256), counting(256));
    b.write(counting(256));
    EXPECT_EQ(a.read(256), counting(256));
}

TEST(NullModem, Relay_WithALateReader_LosesNothing)
{
    nullModem const modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    bytes const much = counting(1000000);
    std::thread writer([&] { a.write(much); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    bytes const received = b.read(much.size());
    writer.join();
    EXPECT_TRUE(received == much) << received.size() << " bytes";
}

TEST(NullModem, Relay_HoldsUpAWriterWhoseBytesNobodyTakes)
{
    nullModem const modem;
    opened const a(modem.deviceA());
    std::atomic<bool> written{false};
    std::thread writer([&] {
        a.write(bytes(1000000));
        written = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(written);
    EXPECT_EQ(opened(modem.deviceB()).read(1000000).size(), 1000000U);
    writer.join();
}

TEST(NullModem, Relay_WithNothingToDo_Sleeps)
{
    nullModem const modem;
    opened(modem.deviceA()).write({1});
    double const before_sec = processTime_sec();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(processTime_sec() - before_sec, 0.03);
}

TEST(NullModem, Hook_MayDrop)
{
    nullModem modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    modem.setHook(nullModem::A_TO_B, [](bytes chunk) {
        chunk.erase(std::remove(chunk.begin(), chunk.end(), 2), chunk.end());
        return chunk;
    });
    a.write({1, 2, 3});
    EXPECT_THAT(b.read(2), ElementsAre(1, 3));
}

TEST(NullModem, Hook_MayDamageOneDirectionAlone)
{
    nullModem modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    modem.setHook(nullModem::B_TO_A, [](bytes chunk) {
        for (std::uint8_t& each : chunk)
        {
            each ^= 0x80U;
        }
        return chunk;
    });
    a.write({1});
    b.write({1});
    EXPECT_THAT(b.read(1), ElementsAre(0x01));
    EXPECT_THAT(a.read(1), ElementsAre(0x81));
}

TEST(NullModem, Hook_MayHoldWhatIsInjectedLater)
{
    nullModem modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    bytes held;
    modem.setHook(nullModem::A_TO_B, [&held, first = true](bytes chunk) mutable {
        if (first)
        {
            held.push_back(chunk.front());
            chunk.erase(chunk.begin());
            first = false;
        }
        return chunk;
    });
    a.write({1, 2});
    EXPECT_THAT(b.read(1), ElementsAre(2));
    modem.setHook(nullModem::A_TO_B, nullptr); // from now on `held` is ours
    modem.inject(nullModem::A_TO_B, held);
    EXPECT_THAT(b.read(1), ElementsAre(1));
}

TEST(NullModem, Hook_FrameByFrame_SeesWholeFramesOfABytewiseWriter)
{
    bytes const frame{0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6};
    nullModem modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    modem.setHook(nullModem::A_TO_B, examples::frameByFrame([first = true](examples::piece const& passing) mutable {
                      bool const lost = passing.what == examples::piece::FRAME && first;
                      first = false;
                      return lost ? bytes() : passing.image;
                  }));
    for (int copy = 0; copy < 2; ++copy)
    {
        for (std::uint8_t const each : frame)
        {
            a.write({each});
        }
    }
    a.write({0x55});
    bytes expected = frame;
    expected.push_back(0x55);
    EXPECT_EQ(b.read(expected.size()), expected);
}

TEST(NullModem, Stop_EndsTheRelayAndLeavesTheDevices)
{
    nullModem modem;
    opened const a(modem.deviceA());
    opened const b(modem.deviceB());
    std::atomic<unsigned> seen{0};
    modem.setHook(nullModem::A_TO_B, [&seen](bytes chunk) {
        ++seen;
        return chunk;
    });
    modem.stop();
    modem.stop();
    a.write({1});
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(seen, 0U);
}

TEST(NullModem, Stop_WhileTheLineIsFull_Returns)
{
    nullModem modem;
    modem.inject(nullModem::A_TO_B, bytes(1000000)); // nobody reads at B
    modem.stop();
}

TEST(NullModem, Destructor_HangsUp)
{
    auto modem = std::make_unique<nullModem>();
    opened const a(modem->deviceA());
    opened const b(modem->deviceB());
    modem.reset();
    EXPECT_TRUE(a.hasHungUp());
    EXPECT_TRUE(b.hasHungUp());
}

} // namespace
