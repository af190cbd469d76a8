// One fault of each kind that a sanitizer must report. The test script runs this before it trusts a silent run.

#include <climits>
#include <cstring>
#include <iostream>
#include <memory>
#include <thread>

namespace
{

int sharedNumber = 0;

void race()
{
    std::thread other([] { ++sharedNumber; });
    ++sharedNumber;
    other.join();
}

void leak()
{
    static int* volatile lost = nullptr;
    lost = new int(1);
    lost = nullptr;
}

void useAfterFree()
{
    auto number = std::make_unique<int>(1);
    int volatile* const dangling = number.get();
    number.reset();
    *dangling = 2;
}

void overflow()
{
    int volatile number = INT_MAX;
    number = number + 1;
}

void misaligned()
{
    alignas(int) static unsigned char bytes[2 * sizeof(int)] = {};
    unsigned char* volatile place = bytes + 1;
    *reinterpret_cast<int volatile*>(place) = 1;
}

} // namespace

int main(int argc, char** argv)
{
    char const* const fault = argc == 2 ? argv[1] : "";
    if (std::strcmp(fault, "race") == 0)
    {
        race();
    }
    else if (std::strcmp(fault, "leak") == 0)
    {
        leak();
    }
    else if (std::strcmp(fault, "use-after-free") == 0)
    {
        useAfterFree();
    }
    else if (std::strcmp(fault, "overflow") == 0)
    {
        overflow();
    }
    else if (std::strcmp(fault, "misaligned") == 0)
    {
        misaligned();
    }
    else
    {
        std::cerr << "which fault?\n";
        return 2;
    }
    std::cout << "not reported: " << fault << '\n';
    return 0;
}
