#ifndef FUZZ_FAULT_H
#define FUZZ_FAULT_H

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz
{

/// Ends the program: the input at hand has shown that something is wrong. The fuzzer then keeps the input.
[[noreturn]] inline void fault(std::string const& what)
{
    std::fprintf(stderr, "FAULT: %s\n", what.c_str());
    std::abort();
}

inline void require(bool isSo, char const* what)
{
    if (!isSo)
    {
        fault(what);
    }
}

} // namespace fuzz

#endif
