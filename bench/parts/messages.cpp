// Wire images and checksums.

#include "messageOf.h"
#include "timing.h"

#include <cstring>
#include <memory>

namespace bench
{
namespace
{

class image
{
  public:
    explicit image(std::size_t bytes) : message(messageOf(bytes)) {}
    void prepare() {}
    void work()
    {
        message.getHeaderAndDataUint8(made);
        benchmark::DoNotOptimize(made.data());
    }

  private:
    gssipMessage const message;
    std::vector<std::uint8_t> made;
};

class checksums
{
  public:
    explicit checksums(std::size_t bytes) : message(messageOf(bytes)) {}
    void prepare() {}
    void work()
    {
        message.setHeaderChecksum();
        message.setDataChecksum();
        benchmark::DoNotOptimize(message.getDataChecksum());
    }

  private:
    gssipMessage message;
};

class validity
{
  public:
    explicit validity(std::size_t bytes) : message(messageOf(bytes)) {}
    void prepare() {}
    void work() { benchmark::DoNotOptimize(message.isValid()); }

  private:
    gssipMessage const message;
};

class copy
{
  public:
    explicit copy(std::size_t bytes) : from(bytes, 1), to(bytes) {}
    void prepare() {}
    void work()
    {
        std::memcpy(to.data(), from.data(), to.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }

  private:
    std::vector<std::uint8_t> const from;
    std::vector<std::uint8_t> to;
};

template <typename Subject>
std::unique_ptr<Subject> of(std::size_t size)
{
    return std::make_unique<Subject>(size);
}

} // namespace

void addMessages()
{
    for (std::size_t const bytes : {42U, 4096U, 131082U})
    {
        add("image", "port", bytes, of<image>);
        add("checksums", "port", bytes, of<checksums>);
        add("validity", "port", bytes, of<validity>);
        add("image", "memcpy", bytes, of<copy>);
    }
}

} // namespace bench
