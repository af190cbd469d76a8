// The sizes of the public classes, which programs that are linked against the libraries have built in.

#include "gssipPort.h"
#include "gssipReceive.h"
#include "monotonicTimeStamp.h"
#include "sentry.h"
#include "streamLog.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <vector>

namespace
{

struct size
{
    char const* name;
    std::size_t here;
    std::size_t onX86_64;
    std::size_t onArm; ///< 32-bit, with 64-bit time
};

template <typename Class>
size sizeOf(char const* name, std::size_t onX86_64, std::size_t onArm)
{
    return {name, sizeof(Class), onX86_64, onArm};
}

std::vector<size> const& sizes()
{
    static std::vector<size> const all{
        sizeOf<gssipMessage>("gssipMessage", 80, 48),
        sizeOf<serialPort>("serialPort", 8, 4),
        sizeOf<pthreadFlag>("pthreadFlag", 1, 1),
        sizeOf<sentry>("sentry", 8, 4),
        sizeOf<monotonicTimeStamp>("monotonicTimeStamp", 8, 4),
        sizeOf<streamLog>("streamLog", 56, 32),
        sizeOf<gssipSendAckReqEvent>("gssipSendAckReqEvent", 104, 72),
        sizeOf<gssipSendAckReq>("gssipSendAckReq", 216, 136),
        sizeOf<ThreadSafeQueue<gssipMessage>>("ThreadSafeQueue<gssipMessage>", 184, 120),
        sizeOf<gssipReceive>("gssipReceive", 4456, 4344),
        sizeOf<gssipPort>("gssipPort", 648, 440),
    };
    return all;
}

TEST(PublicClasses, OnAKnownProcessor_HaveTheirSizes)
{
    for (size const& each : sizes())
    {
#if defined(__x86_64__) && defined(__LP64__)
        EXPECT_EQ(each.here, each.onX86_64) << each.name;
#elif defined(__arm__)
        EXPECT_EQ(each.here, each.onArm) << each.name;
#else
        GTEST_SKIP() << "no binary interface is on record for this processor";
#endif
    }
}

} // namespace
