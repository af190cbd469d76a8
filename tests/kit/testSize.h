#ifndef GSSIP_KIT_TESTSIZE_H
#define GSSIP_KIT_TESTSIZE_H

#include <cstdlib>
#include <stdexcept>
#include <string>

/// How much a test does: what every commit can wait for, what a night can, what a release deserves.
enum class testSize { commit, nightly, release };

/// What the environment variable GSSIP_TEST_SIZE asks for, by name; commit where it is not set.
inline testSize sizeOfTests()
{
    char const* const asked = std::getenv("GSSIP_TEST_SIZE");
    std::string const name = asked == nullptr || *asked == '\0' ? "commit" : asked;
    if (name == "commit")
    {
        return testSize::commit;
    }
    if (name == "nightly")
    {
        return testSize::nightly;
    }
    if (name == "release")
    {
        return testSize::release;
    }
    throw std::invalid_argument("GSSIP_TEST_SIZE is '" + name + "', not commit, nightly or release");
}

/// One of three values, by the size of the tests.
template <typename T>
T bySize(T commit, T nightly, T release)
{
    switch (sizeOfTests())
    {
    case testSize::nightly:
        return nightly;
    case testSize::release:
        return release;
    default:
        return commit;
    }
}

#endif
