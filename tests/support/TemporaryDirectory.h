#pragma once

#include <string>

namespace nimbra::test {

/// A fresh directory below the system's temporary one, removed with all that is in it when the
/// object goes.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    /// The path of the directory, or of a file in it.
    [[nodiscard]] const std::string &Path() const { return path_; }
    [[nodiscard]] std::string Path(const std::string &file) const { return path_ + "/" + file; }

private:
    std::string path_;
};

} // namespace nimbra::test
