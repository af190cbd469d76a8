// Gives every file named, and every file of every folder named, to the target once. Without a fuzzer: for ordinary
// builds, and for a debugger.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer calls it so
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* input, std::size_t size);

namespace
{

std::vector<std::uint8_t> contentOf(std::filesystem::path const& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
    {
        throw std::runtime_error("cannot read " + file.string());
    }
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::set<std::filesystem::path> filesOf(std::vector<std::string> const& names)
{
    std::set<std::filesystem::path> files;
    for (std::filesystem::path const name : names)
    {
        if (std::filesystem::is_directory(name))
        {
            files.insert(std::filesystem::directory_iterator(name), std::filesystem::directory_iterator());
        }
        else
        {
            files.insert(name);
        }
    }
    return files;
}

void replay(std::filesystem::path const& file)
{
    std::vector<std::uint8_t> const content = contentOf(file);
    std::printf("%s\n", file.c_str()); // first: the last line names the input that ends the program
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(content.data(), content.size());
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        std::set<std::filesystem::path> const files = filesOf({argv + 1, argv + argc});
        if (files.empty())
        {
            throw std::runtime_error("no input");
        }
        for (std::filesystem::path const& file : files)
        {
            replay(file);
        }
        std::printf("%zu inputs, nothing wrong\n", files.size());
        return 0;
    }
    catch (std::exception const& failure)
    {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
