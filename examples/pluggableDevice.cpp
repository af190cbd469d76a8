#include "pluggableDevice.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <unistd.h>

namespace examples
{
namespace
{

std::string makeFolder()
{
    std::string pattern = "/tmp/pluggableDevice.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return pattern;
}

} // namespace

pluggableDevice::pluggableDevice() : folder(makeFolder()) {}

pluggableDevice::~pluggableDevice()
{
    pullOut();
    rmdir(folder.c_str());
}

void pluggableDevice::plugIn()
{
    line = std::make_unique<exampleLine>(0, nullptr);
    if (symlink(line->device().c_str(), path().c_str()) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "symlink");
    }
}

void pluggableDevice::pullOut()
{
    unlink(path().c_str());
    line.reset();
}

} // namespace examples
