#include "support/TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace nimbra::test {

TemporaryDirectory::TemporaryDirectory()
    : path_(std::filesystem::temp_directory_path() / "nimbra-unit-XXXXXX")
{
    if (mkdtemp(path_.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), path_);
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace nimbra::test
