#ifndef KIT_TEMPORARYFOLDER_H
#define KIT_TEMPORARYFOLDER_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace kit
{

/// An empty folder, which goes with all it holds.
class temporaryFolder
{
  public:
    temporaryFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "gssip-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
        {
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        }
        path = pattern;
    }
    ~temporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    temporaryFolder(temporaryFolder const&) = delete;
    temporaryFolder& operator=(temporaryFolder const&) = delete;

    std::filesystem::path path;
};

} // namespace kit

#endif
