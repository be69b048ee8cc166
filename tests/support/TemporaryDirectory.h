#pragma once

#include <string>

namespace nimbra::test {

/// A new directory in the system's temporary directory. The destructor removes it with its content.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    /// The path of the directory or of a file in it.
    [[nodiscard]] const std::string &Path() const { return path_; }
    [[nodiscard]] std::string Path(const std::string &file) const { return path_ + "/" + file; }

private:
    std::string path_;
};

} // namespace nimbra::test
