#ifndef SCHEDULES_FILETABLE_H
#define SCHEDULES_FILETABLE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace schedules
{

/// What a descriptor of a schedule stands for: one opening of a device, or an event. Nothing in it ever waits; failures
/// are told as by system calls, -1 and errno.
class openFile
{
  public:
    openFile() = default;
    virtual ~openFile() = default;
    openFile(openFile const&) = delete;
    openFile& operator=(openFile const&) = delete;

    virtual ssize_t read(void* bytes, std::size_t capacity) = 0;
    virtual ssize_t write(void const* bytes, std::size_t count) = 0;
    virtual short ready(short events) = 0; ///< as poll tells it
    virtual int ioctl(unsigned long request, void* argument);
    virtual int flock(int operation);
    virtual void describe(struct stat& status);
    /// While that is so, the system holds up whoever closes it; 30 s at most.
    virtual bool holdsUpClose() { return false; }
    virtual char const* kind() const = 0;
};

/// What stands in the file system under a name.
class device
{
  public:
    device() = default;
    virtual ~device() = default;
    device(device const&) = delete;
    device& operator=(device const&) = delete;
    /// Null and errno when it cannot be opened.
    virtual std::shared_ptr<openFile> open() = 0;
};

/// The descriptors of a schedule. Their numbers are far from those of the process, and the lowest free one is given out
/// next, as by the system: who goes on with a number that was closed meanwhile hits another file, or fails.
class fileTable
{
  public:
    void add(std::string const& path, std::shared_ptr<device> which) { devices[path] = std::move(which); }

    static bool isNumber(int descriptor) { return descriptor >= FIRST; }
    bool knows(char const* path) const { return devices.count(path) != 0; }

    int open(char const* path);
    int insert(std::shared_ptr<openFile> file);
    /// Null when there is none (any more).
    std::shared_ptr<openFile> find(int descriptor) const;
    void remove(int descriptor);

    std::string whatIsOpen() const;

    /// How many threads wait for a file just now.
    void wait(int descriptor, int by) { waiters[descriptor] += by; }
    bool isWaitedFor(int descriptor) const;

  private:
    static constexpr int FIRST = 1'000'000;

    std::map<std::string, std::shared_ptr<device>> devices;
    std::vector<std::shared_ptr<openFile>> files;
    std::map<int, int> waiters;
};

} // namespace schedules

#endif
