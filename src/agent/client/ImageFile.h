#pragma once

#include <string_view>
#include <vector>

namespace nimbra {

/// Files of the panel's image directory. A name that is empty, "." or "..", or holds a "/" would
/// leave the directory, and one like ".upload-a1B2c3" is that of an unfinished upload: they cannot
/// be opened. Any thread.

/// Reads the whole file; false when it cannot be opened or read, is no plain file, or
/// has more than 2147483647 bytes.
[[nodiscard]] bool ReadImageFile(std::string_view name, std::vector<char> *bytes);

/// Makes or replaces the file: at any moment it is the old one or the new one, whole, also after a
/// power failure. A replaced plain file keeps its mode, and its owner if the agent may give files
/// away; a symbolic link is replaced, not followed. False, and nothing changed, when it cannot be
/// made or written.
[[nodiscard]] bool WriteImageFile(std::string_view name, const std::vector<char> &bytes);

/// Removes the files of uploads that a power failure or a crash has interrupted. Call it while no
/// image is being written.
void RemoveUnfinishedUploads();

} // namespace nimbra
