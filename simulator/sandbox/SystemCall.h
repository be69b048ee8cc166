#pragma once

#include "base/Descriptor.h"

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra::sandbox {

/// Throws std::system_error with errno and the given words when a system call has returned -1;
/// otherwise gives its result.
inline int Check(int result, const std::string &what)
{
    if (result == -1)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

/// Opens a file, close-on-exec. Throws std::system_error.
[[nodiscard]] inline Descriptor OpenFile(const std::string &path, int flags, mode_t mode = 0)
{
    return Descriptor(Check(open(path.c_str(), flags | O_CLOEXEC, mode), path));
}

/// A path that leads to an open file, whatever has been mounted over its name.
[[nodiscard]] inline std::string PathOf(const Descriptor &file)
{
    return "/proc/self/fd/" + std::to_string(file.Get());
}

/// The two ends of a pipe, close-on-exec.
struct Pipe
{
    Descriptor ReadEnd;
    Descriptor WriteEnd;
};

/// Throws std::system_error.
[[nodiscard]] inline Pipe MakePipe()
{
    std::array<int, 2> ends{};
    Check(pipe2(ends.data(), O_CLOEXEC), "pipe");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

} // namespace nimbra::sandbox
