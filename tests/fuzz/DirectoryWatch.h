#pragma once

#include "base/Descriptor.h"

#include <filesystem>
#include <vector>

namespace nimbra::fuzz {

/// Notices every change of the files in some directories, without a look at the files.
class DirectoryWatch
{
public:
    explicit DirectoryWatch(const std::vector<std::filesystem::path> &directories);

    /// Whether a file has been created, written, renamed, removed or given other rights since the
    /// last call, even if it is as before again.
    [[nodiscard]] bool HasChanged() const;

private:
    Descriptor events_;
};

} // namespace nimbra::fuzz
