#pragma once

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace nimbra::simulator {

/// The number of a field of the file status in `directory`, which is that of a process in /proc; 0
/// if there is none.
[[nodiscard]] inline std::size_t NumberInStatus(const std::filesystem::path &directory,
                                                const std::string &field)
{
    std::ifstream status(directory / "status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(field + ":"))
            return std::strtoul(line.c_str() + field.size() + 1, nullptr, 10);
    return 0;
}

} // namespace nimbra::simulator
