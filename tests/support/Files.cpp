#include "support/Files.h"

#include <fstream>
#include <sstream>

namespace nimbra::test {

std::string ReadFile(const std::string &path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
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
