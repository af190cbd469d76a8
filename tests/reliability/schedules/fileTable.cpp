#include "fileTable.h"

#include <algorithm>
#include <cerrno>

namespace schedules
{

int openFile::ioctl(unsigned long /*request*/, void* /*argument*/)
{
    errno = ENOTTY;
    return -1;
}

int openFile::flock(int /*operation*/)
{
    return 0;
}

void openFile::describe(struct stat& status)
{
    status = {};
}

int fileTable::open(char const* path)
{
    std::shared_ptr<openFile> opened = devices.at(path)->open();
    return opened == nullptr ? -1 : insert(std::move(opened));
}

int fileTable::insert(std::shared_ptr<openFile> file)
{
    auto const place = std::find(files.begin(), files.end(), nullptr);
    auto const number = static_cast<int>(place - files.begin());
    if (place == files.end())
    {
        files.push_back(std::move(file));
    }
    else
    {
        *place = std::move(file);
    }
    return FIRST + number;
}

std::shared_ptr<openFile> fileTable::find(int descriptor) const
{
    auto const place = static_cast<std::size_t>(descriptor - FIRST);
    return place < files.size() ? files[place] : nullptr;
}

void fileTable::remove(int descriptor)
{
    files[static_cast<std::size_t>(descriptor - FIRST)] = nullptr;
}

std::string fileTable::whatIsOpen() const
{
    std::string all;
    for (std::shared_ptr<openFile> const& file : files)
    {
        all += file == nullptr ? "" : std::string(file->kind()) + ' ';
    }
    return all;
}

bool fileTable::isWaitedFor(int descriptor) const
{
    auto const found = waiters.find(descriptor);
    return found != waiters.end() && found->second > 0;
}

} // namespace schedules
