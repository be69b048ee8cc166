#include "support/Files.h"

#include <fstream>
#include <iterator>

namespace nimbra::test {

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

void NameHost(const std::string &address, const std::string &name)
{
    std::ofstream("/etc/hosts", std::ios::app) << address << ' ' << name << '\n';
}

} // namespace nimbra::test
