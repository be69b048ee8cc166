#include "nimbractl/UserDirectory.h"

#include <cstdlib>

namespace nimbra::ctl {

std::filesystem::path UserDirectory(const char *variable, const char *place)
{
    const char *named = std::getenv(variable);
    if (named != nullptr && *named == '/')
        return std::filesystem::path(named) / "nimbractl";
    const char *home = std::getenv("HOME");
    if (home != nullptr && *home == '/')
        return std::filesystem::path(home) / place / "nimbractl";
    return {};
}

} // namespace nimbra::ctl
