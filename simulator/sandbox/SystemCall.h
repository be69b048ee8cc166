#pragma once

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

/// A descriptor that its owner closes; close-on-exec.
class OpenFile
{
public:
    /// Throws std::system_error when the file cannot be opened.
    OpenFile(const std::string &path, int flags, mode_t mode = 0)
        : Descriptor(Check(open(path.c_str(), flags | O_CLOEXEC, mode), path))
    {}
    ~OpenFile() { close(Descriptor); }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    /// A path that leads to the open file, whatever has been mounted over its name.
    [[nodiscard]] std::string Path() const { return "/proc/self/fd/" + std::to_string(Descriptor); }

    const int Descriptor;
};

} // namespace nimbra::sandbox
