#pragma once

#include <string_view>
#include <vector>

namespace nimbra {

/// Files of the panel's image directory. A name that is empty, "." or "..", or holds a "/" would
/// leave the directory: it cannot be opened. Any thread.

/// Reads the whole file; false when it cannot be opened or read, is no plain file, or
/// has more than 2147483647 bytes.
[[nodiscard]] bool ReadImageFile(std::string_view name, std::vector<char> *bytes);

/// Makes or replaces the file: at any moment it is the old one or the new one, whole. False, and
/// nothing changed, when it cannot be made or written.
[[nodiscard]] bool WriteImageFile(std::string_view name, const std::vector<char> &bytes);

} // namespace nimbra
